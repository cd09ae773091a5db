#!/bin/bash
# with_keyring.sh <program> [<argument>...]: runs it on a session bus of its own, with an empty home and an
# unlocked gnome-keyring, whose process id is in KEYRING_PID. Needs neither a display nor a terminal.
set -u
if [ "${1:-}" != --on-the-bus ]; then
  PATH=$PATH:/usr/sbin type gnome-keyring-daemon dbus-run-session gdbus secret-tool squid >/dev/null ||
    { echo "Debian packages: gnome-keyring dbus-daemon libglib2.0-bin libsecret-tools squid" >&2; exit 1; }
  home=$(mktemp -d) && trap 'rm -rf "$home"' EXIT
  # Without a display a locked keyring answers at once, and does not wait for a window.
  env -u DISPLAY -u WAYLAND_DISPLAY -u DBUS_SESSION_BUS_ADDRESS -u QT_NO_GLIB HOME="$home" \
    XDG_DATA_HOME="$home" XDG_CACHE_HOME="$home" XDG_CONFIG_HOME="$home" XDG_RUNTIME_DIR="$home" \
    dbus-run-session -- bash "$0" --on-the-bus "$@" </dev/null
  exit $?
fi
shift
printf x | gnome-keyring-daemon --foreground --unlock --components=secrets >/dev/null 2>&1 &
export KEYRING_PID=$!
# Whoever asks the bus before the daemon is there makes it start a second one, which is locked.
gdbus wait --session --timeout 30 org.freedesktop.secrets || exit 1
# Freed memory is overwritten, so that Qt, which no sanitizer looks into, falls over it too.
MALLOC_PERTURB_=165 ASAN_OPTIONS="${ASAN_OPTIONS:-}:max_free_fill_size=4096:free_fill_byte=165" "$@"
result=$?
kill -CONT "$KEYRING_PID"; kill "$KEYRING_PID"; wait "$KEYRING_PID" 2>/dev/null
exit "$result"
