#!/usr/bin/env bash
# Installs the library, moves the installed tree elsewhere, and builds and runs a small outside project
# against it: through the CMake package, then through pkg-config. The project's program is the one in
# the README, its library of classes the example's, which the installed command loads.
#
# usage: run.sh BUILD_DIRECTORY C++_COMPILER
set -euo pipefail
build=$1
compiler=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$work/tree"
library=$(find "$work/tree" -name libtarns.so)
mkdir "$work/project"
cp "$here/CMakeLists.txt" "$work/project/"
cp "$here"/../../examples/{Machine.h,Machine.cpp,machine_library.cpp} "$work/project/"
sed -n '/^```cpp$/,/^```$/{/^```/!p}' "$here/../../README.md" >"$work/project/main.cpp"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# The program counts its runs in the database in its directory.
expect_two_runs() {
  local output run
  mkdir "$work/$1.run"
  cd "$work/$1.run"
  for run in 1 2; do
    output=$("$2") || fail "$2: exit status $?"
    [[ $output == "press ran $run times" ]] || fail "run $run of $2 printed \"$output\""
  done
}

echo "through CMake"
cmake -S "$work/project" -B "$work/cmake" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$work/tree" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" >/dev/null
cmake --build "$work/cmake" >"$work/log" || { cat "$work/log" && fail "the CMake build"; }
expect_two_runs cmake "$work/cmake/outside"

echo "a library of classes"
command=$(find "$work/tree" -path '*/bin/tarns')
if [[ -n $command ]]; then
  mkdir "$work/hall"
  mkdir -m 700 "$work/hall/tarns.libraries"
  install -m 600 "$work/cmake/libmachines.so" "$work/hall/tarns.libraries/"
  tarns=("$command" -d "$work/hall")
  "${tarns[@]}" init >/dev/null
  printf 'Machine press\n  Speed 40\n' | "${tarns[@]}" --libraries import - press --format text >/dev/null
  [[ $("${tarns[@]}" --libraries get press~Speed) == 40 ]] || fail "the class of the library is not known"
fi

echo "through pkg-config"
export PKG_CONFIG_PATH=${library%/*}/pkgconfig
read -ra flags <<<"$(pkg-config --cflags --libs tarns)"
"$compiler" -std=c++20 "$work/project/main.cpp" "${flags[@]}" -Wl,-rpath,"${library%/*}" -o "$work/outside"
expect_two_runs pkg-config "$work/outside"

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
