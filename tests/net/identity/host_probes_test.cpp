// Run by with_network.sh in a network of its own, which begins with a loopback interface that is down.

#include "orvan/net/identity/host_probes.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/support/wait.h"

namespace orvan::net {
namespace {

TEST(HostProbesTest, LookAtTheInterfaces) {
  const char kPairs[] =
      "for i in 0 1; do ip link add net$i type veth peer name peer$i &&"
      "ip link set net$i address 02:00:00:00:00:A$i up || exit 1; done";
  if (!qEnvironmentVariableIsSet("ORVAN_OWN_NETWORK") || std::system(kPairs) != 0) {
    GTEST_SKIP() << "no networks of one's own are permitted here";
  }
  const char kNone[] = "00:00:00:00:00:00", kFirst[] = "02:00:00:00:00:a0", kSecond[] = "02:00:00:00:00:a1";
  const struct {
    const char *says, *commands;
    int status;
    const char* mac;
  } steps[] = {
      {"loopback does not count", "ip link set lo up", 0, kNone},
      {"nor does what has no address", "ip link set peer0 up", 0, kNone},
      {"what is down has a MAC", "ip link set net0 down; ip addr add 10.0.0.1 dev net0", 0, kFirst},
      {"up and running counts", "ip link set net0 up", 1, kFirst},
      {"the last in the list wins", "ip addr add 10.0.1.1 dev net1", 1, kSecond},
      {"up is not yet running", "ip link set net0 down", 0, kSecond},
      {"one that runs is enough", "ip link set net0 up", 1, kSecond},
      {"25 are seen", "for i in $(seq 30); do ip addr add 127.1.0.$i dev lo; done", 0, kSecond},
      {"an earlier MAC is kept", "ip link delete net0; ip link delete net1", 0, kSecond},
  };
  for (const auto& step : steps) {
    ASSERT_EQ(std::system(step.commands), 0) << step.says;
    EXPECT_TRUE(test::SpinUntil([&] { return GetInternetConnectionStatus() == step.status; })) << step.says;
    EXPECT_STREQ(GetHostMacAddress(), step.mac) << step.says;
  }
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  const rlimit none{0, files.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(GetInternetConnectionStatus(), 2) << "no socket, nothing to read";
  setrlimit(RLIMIT_NOFILE, &files);
}

}  // namespace
}  // namespace orvan::net
