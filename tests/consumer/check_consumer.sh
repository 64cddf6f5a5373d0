#!/usr/bin/env bash
# Installs the built library into a fresh prefix, then builds the consumer project against it
# twice, once with find_package(QelCore) and once with pkg-config, and runs both programs.
# usage: check_consumer.sh BUILD_DIR CONSUMER_SOURCE_DIR CXX
set -eu
build_dir=$1 source_dir=$2 cxx=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

echo "== find_package(QelCore)"
cmake -S "$source_dir" -B "$work/cmake-build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
      -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer" | grep -qx "consumer ok"

echo "== pkg-config qelcore"
pc_dir=$(dirname "$(find "$prefix" -name qelcore.pc | head -1)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs qelcore)
# shellcheck disable=SC2086
"$cxx" "$source_dir/main.cpp" $flags -o "$work/pc-consumer"
"$work/pc-consumer" | grep -qx "consumer ok"
echo "consumer builds and runs both ways"
