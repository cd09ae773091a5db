#pragma once

// Marks what liborvan_support.so shows to its users; everything else is hidden.
#define ORVAN_SUPPORT_EXPORT __attribute__((visibility("default")))
