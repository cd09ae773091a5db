# shellcheck shell=bash disable=SC2034
# Shared by the scripts of this folder: `. "$(dirname "$0")/lib.sh"`. Bash. Everything that these functions
# say, and all noise of apt, CMake and the compiler, goes to standard error: standard output is for results.

# What building the two libraries takes, and what the tool takes beyond that.
ORVAN_BUILD_PACKAGES=(g++ cmake ninja-build pkg-config qtbase5-dev qtkeychain-qt5-dev libboost-dev libminizip-dev libdeflate-dev zlib1g-dev)
ORVAN_TOOL_PACKAGES=(libcli11-dev)
# What the tests take: the frameworks, and the real servers that they start on free ports.
ORVAN_TEST_PACKAGES=(libgtest-dev libgmock-dev nginx-light openssl python3 gunicorn python3-httpbin python3-oauthlib
  gnome-keyring libsecret-1-0 libsecret-tools dbus-daemon libglib2.0-bin squid iproute2)
# Clang and its sanitizers. Without llvm-symbolizer, reports have no names and suppressions do not match.
ORVAN_CLANG_PACKAGES=(clang libclang-rt-14-dev llvm util-linux)
ORVAN_TIDY_PACKAGES=(clang clang-tidy cppcheck)
ORVAN_DOCS_PACKAGES=(doxygen python3)

say() { printf '%s\n' "$*" >&2; }
die() { say "${0##*/}: $*"; exit 1; }

# need_packages <Debian package>...
#
# Installs those that are missing, through sudo if we are not root. Asks nothing, so it works without a
# terminal; only sudo itself may want a password.
need_packages() {
  local package missing=()
  for package in "$@"; do
    # shellcheck disable=SC2016  # ${Status} is dpkg's own
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  command -v apt-get >/dev/null || die "these Debian packages are missing, and there is no apt-get: ${missing[*]}"
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null ||
      die "Debian packages are missing, and there is no sudo. As root: apt-get update && apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  say "Installing Debian packages: ${missing[*]}"
  "${as_root[@]}" bash -s -- "${missing[@]}" <<'AS_ROOT' >&2 || die "the packages could not be installed: ${missing[*]}"
set -eu
export DEBIAN_FRONTEND=noninteractive
# A web server that is installed for a demonstration must not start serving the machine's port 80. A policy
# that the machine has of its own stays what it is.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  trap 'rm -f "$policy"' EXIT
  printf '#!/bin/sh\nexit 101\n' >"$policy"
  chmod 755 "$policy"
fi
apt-get update -q
apt-get install -q -y --no-install-recommends "$@" </dev/null
AS_ROOT
}

# build_target <preset> <build folder> <target> [<CMake argument>...]
#
# Configures and builds, in the tree's root. Of configuring only a failure is heard.
build_target() {
  local preset=$1 folder=$2 target=$3 log
  shift 3
  log=$(cmake --preset "$preset" -B "$folder" "$@" 2>&1) || { say "$log"; return 1; }
  cmake --build "$folder" --target "$target" >&2
}

# free_port: prints a TCP port of 127.0.0.1 on which nobody listens at the moment. Somebody else may take it
# first, so be ready to try another one.
free_port() {
  local port
  while :; do
    port=$((20000 + RANDOM % 40000))
    port_open "$port" || { printf '%s\n' "$port"; return; }
  done
}

# port_open <port>: whether somebody listens there.
port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
