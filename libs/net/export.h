#pragma once

// Marks what liborvan_net.so shows to its users; everything else is hidden.
#define ORVAN_NET_EXPORT __attribute__((visibility("default")))
// Takes an inner class of one that is shown out again: what only our own files define.
#define ORVAN_NET_HIDDEN __attribute__((visibility("hidden")))
