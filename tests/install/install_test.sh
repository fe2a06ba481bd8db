#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then builds and runs a consumer
# against it twice: through find_package(zephlo) and through pkg-config.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR "CXX_FLAGS"
set -euo pipefail
build=$1 source=$2 flags=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/include/zephlo/platform/main_queue.hpp"
test ! -e "$work/prefix/include/zephlo/testing"
test -z "$(find "$work/prefix/include" -name '*_test.cpp' -o -name '*_test.hpp')"

cmake -S "$source/tests/install/consumer" -B "$work/cmake-build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib" "$work/cmake-build/consumer"

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
c++ $flags "$source/tests/install/consumer/main.cpp" -o "$work/pc-consumer" \
  $(pkg-config --cflags --libs zephlo)
LD_LIBRARY_PATH="$work/prefix/lib" "$work/pc-consumer"
