#pragma once

// Marks what liborvan_net.so shows to its users; everything else is hidden.
#define ORVAN_NET_EXPORT __attribute__((visibility("default")))
