#!/bin/bash
# Installs what is built into a folder of its own, outside the tree, and looks at it with a stranger's eyes:
# a project that uses find_package(OrvanNet), and its twin that uses pkg-config, are built and run there; each
# installed header compiles alone; none is missing and none is there that should not be; the libraries are hardened, and
# show what the headers mark as exported, and nothing else.
#
#   run.sh <build folder> <source root> <C++ compiler> <build type> <list of internal headers>
set -euo pipefail
build=$1 root=$2 compiler=$3 type=$4 internal=$5
here=$root/tests/consumer

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
failed=0
complain() { printf '%s\n' "$*"; failed=1; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name liborvan_net.so)")

echo "-- sonames"
for library in support net; do
  readelf -d "$libdir/liborvan_$library.so" | grep -q "SONAME.*\[liborvan_$library\.so\.1\]" ||
    complain "liborvan_$library.so has no soname with version 1"
done

echo "-- hardening"
for library in "$libdir"/liborvan_{support,net}.so; do
  dynamic=$(readelf -dlW "$library") imports=$(nm -D --undefined-only "$library")
  [[ $dynamic == *GNU_RELRO* && $dynamic == *BIND_NOW* ]] || complain "$library: its tables stay writable"
  [[ $imports == *__stack_chk_fail* ]] || complain "$library: nobody looks at the stack"
  [[ $(uname -m) != x86_64 || $(objdump -d "$library" | grep -c endbr64) -gt 100 ]] ||
    complain "$library: jumps may lead anywhere"
  [[ $type != Release || $library == *support* || $imports == *_chk@* ]] || complain "$library: no call is checked"
done

echo "-- installed headers"
(cd "$prefix/include" && find . -name '*.h' -printf '%P\n' | sort) >"$work/installed"
(cd "$root/libs" && find . -name '*.h' -printf 'orvan/%P\n' | sort) >"$work/all"
sed 's,^,orvan/,' "$internal" | grep '\.h$' | sort >"$work/internal" || true
while read -r header; do complain "$header is internal, and installed"; done \
  < <(comm -12 "$work/installed" "$work/internal")
while read -r header; do complain "$header is neither installed nor internal"; done \
  < <(sort -m "$work/installed" "$work/internal" | comm -13 - "$work/all")

echo "-- symbols"
/usr/bin/python3 -B "$here/check_symbols.py" "$prefix/include" "$libdir/liborvan_support.so" "$libdir/liborvan_net.so" ||
  complain "the libraries show more or less than their headers say"

# Only what pkg-config names is on the path; Qt's headers are not judged.
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra flags < <(pkg-config --cflags orvan-net | sed 's,-I/usr/,-isystem /usr/,g')
compile_alone() {  # <compiler> <header> <flags...>: the header twice, for its guard
  printf '#include "%s"\n#include "%s"\n' "$2" "$2" |
    "$1" -std=c++17 -fPIC -fsyntax-only -Wall -Wextra -Wpedantic -Werror "${@:3}" -x c++ -
}
export -f compile_alone
for cxx in "$compiler" clang++; do
  command -v "$cxx" >/dev/null || continue
  echo "-- $(wc -l <"$work/installed") headers alone, $(basename "$cxx")"
  xargs -P "$(nproc)" -I {} bash -c 'compile_alone "$@"' - "$cxx" {} "${flags[@]}" <"$work/installed" 2>&1 ||
    complain "a header does not compile alone with $cxx"
done

echo "-- find_package(OrvanNet)"
cp -r "$here/project" "$work/project"
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$root/README.md" >"$work/project/first_program.cpp"
{
  cmake -S "$work/project" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE="$type" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" &&
  cmake --build "$work/cmake"
} >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
timeout 60 "$work/cmake/consumer" "$work/project/consumer.cpp" || complain "the consumer of the CMake package fails"

timeout 60 "$work/cmake/first_program" "$work/project/consumer.cpp" 2>&1 | grep -q '^state 2, ' ||
  complain "the first program of README.md does not fetch"

echo "-- examples"
{
  cmake -S "$root/examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE="$type" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" &&
  cmake --build "$work/examples"
} >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
timeout 60 "$work/examples/fetch_url" "$work/project/consumer.cpp" >"$work/log" 2>&1 ||
  complain "the example fetch_url fails: $(cat "$work/log")"

echo "-- pkg-config orvan-net"
read -ra libraries < <(pkg-config --libs orvan-net)
"$compiler" -std=c++17 -fPIC -Wall -Wextra -Werror "$work/project/consumer.cpp" "${flags[@]}" "${libraries[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir orvan-net)" -o "$work/twin"
timeout 60 "$work/twin" "$work/project/consumer.cpp" || complain "the consumer of the pkg-config file fails"

exit $failed
