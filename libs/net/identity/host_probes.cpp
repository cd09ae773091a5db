#include "orvan/net/identity/host_probes.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "orvan/support/thread/lock.h"

namespace orvan::net {

namespace {

constexpr int kListBytes = 1024;
constexpr std::size_t kMacBytes = 18;  // with the NUL

SpinLock s_mac_lock;  // a leaf
char s_mac[kMacBytes] ORVAN_GUARDED_BY(s_mac_lock) = "00:00:00:00:00:00";

// The interfaces that have an address, as many as there is room for.
class Interfaces {
 public:
  Interfaces() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    struct ifconf list {};
    list.ifc_len = sizeof entries_;
    list.ifc_req = entries_;
    readable_ = socket_ >= 0 && ioctl(socket_, SIOCGIFCONF, &list) == 0;
    if (readable_) count_ = list.ifc_len / static_cast<int>(sizeof(struct ifreq));
  }
  ~Interfaces() {
    if (socket_ >= 0) close(socket_);
  }
  Interfaces(const Interfaces&) = delete;
  Interfaces& operator=(const Interfaces&) = delete;

  bool readable() const { return readable_; }
  int count() const { return count_; }

  bool GetFlags(int i, int* flags) const {
    struct ifreq request = MakeRequest(i);
    if (ioctl(socket_, SIOCGIFFLAGS, &request) != 0) return false;
    *flags = request.ifr_flags;
    return true;
  }

  bool GetMac(int i, char* text) const {
    struct ifreq request = MakeRequest(i);
    if (ioctl(socket_, SIOCGIFHWADDR, &request) != 0) return false;
    unsigned char b[6];
    std::memcpy(b, request.ifr_hwaddr.sa_data, sizeof b);
    std::snprintf(text, kMacBytes, "%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx", b[0], b[1], b[2], b[3], b[4],
                  b[5]);
    return true;
  }

 private:
  // The calls overwrite what they are given, but for the name.
  struct ifreq MakeRequest(int i) const {
    struct ifreq request {};
    std::memcpy(request.ifr_name, entries_[i].ifr_name, IFNAMSIZ - 1);
    return request;
  }

  const int socket_;
  struct ifreq entries_[kListBytes / sizeof(struct ifreq)];
  bool readable_ = false;
  int count_ = 0;
};

}  // namespace

int GetInternetConnectionStatus() {
  const Interfaces interfaces;
  if (!interfaces.readable()) return 2;
  for (int i = interfaces.count() - 1; i >= 0; --i) {
    int flags = 0;
    if (!interfaces.GetFlags(i, &flags)) continue;
    if ((flags & (IFF_UP | IFF_LOOPBACK | IFF_RUNNING)) == (IFF_UP | IFF_RUNNING)) return 1;
  }
  return 0;
}

const char* GetHostMacAddress() {
  const Interfaces interfaces;
  char found[kMacBytes];
  for (int i = interfaces.count() - 1; i >= 0; --i) {
    int flags = 0;
    if (!interfaces.GetFlags(i, &flags) || (flags & IFF_LOOPBACK) != 0 || !interfaces.GetMac(i, found))
      continue;
    SpinLockGuard guard(s_mac_lock);
    // Only if it differs: callers read the text without the lock.
    if (std::memcmp(s_mac, found, kMacBytes) != 0) std::copy(found, found + kMacBytes, s_mac);
    break;
  }
  SpinLockGuard guard(s_mac_lock);
  return s_mac;
}

}  // namespace orvan::net
