#!/usr/bin/env bash
# Installs the library, moves the installed tree elsewhere, and builds and runs a small outside project
# against it: through the CMake package, then through pkg-config.
#
# usage: run.sh BUILD_DIRECTORY C++_COMPILER EXPECTED_OUTPUT
set -euo pipefail
build=$1
compiler=$2
expected=$3
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/tree"
library=$(find "$work/tree" -name libtarns.so)

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

expect_output() {
  local output
  output=$("$1") || fail "$1: exit status $?"
  [[ $output == "$expected" ]] || fail "$1 printed \"$output\" instead of \"$expected\""
}

echo "through CMake"
cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$work/tree" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" >/dev/null
cmake --build "$work/cmake" >"$work/log" || { cat "$work/log" && fail "the CMake build"; }
expect_output "$work/cmake/outside"

echo "through pkg-config"
export PKG_CONFIG_PATH=${library%/*}/pkgconfig
read -ra flags <<<"$(pkg-config --cflags --libs tarns)"
"$compiler" -std=c++20 "$here/main.cpp" "${flags[@]}" -Wl,-rpath,"${library%/*}" -o "$work/outside"
expect_output "$work/outside"

echo "the name that programs remember"
readelf -d "$library" | grep -q 'SONAME.*\[libtarns\.so\.0\]' || fail "the SONAME of $library"

echo "no symbols but our own"
if nm -D --defined-only -C "$library" | cut -d' ' -f3- | grep -vE 'tarns::|goods::'; then
  fail "the symbols above are visible"
fi

echo "no headers of libraries that are private to ours"
foreign='#include *[<"]((fmt|spdlog|nlohmann|CLI)/|sqlite3|xxhash|lz4)'
if grep -rnE "$foreign" "$work/tree/include"; then
  fail "the headers above are included"
fi
