#!/bin/sh
# Runs a command in a network of its own, if that is permitted, and says so in ORVAN_OWN_NETWORK.
if unshare -rn true 2>/dev/null; then ORVAN_OWN_NETWORK=1 exec unshare -rn "$@"; else exec "$@"; fi
