#pragma once

#include "orvan/net/export.h"

namespace orvan::net {

// Two looks at the network interfaces of this host (Linux, netdevice(7)): of those that have an IPv4 address,
// the first 25. Nothing is sent.
//
// Threads: any.

// 0: no interface is up and running, loopback aside. 1: at least one is. 2: that could not be read.
ORVAN_NET_EXPORT int GetInternetConnectionStatus();

// The hardware address of the last interface in the kernel's list that has one, loopback aside and whether it
// is up or not: 17 lower-case characters such as "02:42:ac:11:00:02". If there is none, the address of an
// earlier call, or zeros. The text lives as long as the library and is rewritten when the address changes.
ORVAN_NET_EXPORT const char* GetHostMacAddress();

}  // namespace orvan::net
