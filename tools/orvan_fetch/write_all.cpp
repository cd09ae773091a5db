#include "tools/orvan_fetch/write_all.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "tools/orvan_fetch/interrupts.h"

namespace orvan_fetch {

bool WriteAll(int descriptor, const QByteArray& bytes) {
  for (qsizetype done = 0; done < bytes.size();) {
    const ssize_t written =
        write(descriptor, bytes.constData() + done, static_cast<size_t>(bytes.size() - done));
    if (written >= 0) {
      done += written;
    } else if (errno == EAGAIN) {
      pollfd ready{descriptor, POLLOUT, 0};
      (void)poll(&ready, 1, -1);  // how it ended shows at the next write
    } else if (errno != EINTR) {
      return false;
    }
    if (Interrupts::Pending()) {
      errno = EINTR;
      return false;
    }
  }
  return true;
}

}  // namespace orvan_fetch
