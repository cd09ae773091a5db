#pragma once

#include "bench/fetch/load.h"

namespace orvan::bench {

// The peers. Each runs the load to its end and returns.
void RunNetworkManager(const Load& load, Meter* meter);  // a connection for each request
enum Completion { kOnTheMainThread, kOnCallbackThreads };
void RunCmNetworkManager(const Load& load, Meter* meter, Completion completion);  // shared connections
// libcurl's easy interface, a thread for each request that is under way at the same time.
enum Handles { kOneForEachRequest, kKept };
void RunEasyHandles(const Load& load, Meter* meter, Handles handles);

// Microseconds for making and ending one of `count` connections to `port` of 127.0.0.1, without a request.
double ManagerConnectionMicroseconds(int count, int port);
double EasyConnectionMicroseconds(int count, int port);

}  // namespace orvan::bench
