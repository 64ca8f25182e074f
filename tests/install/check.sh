#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a program of another
# project against it twice: with find_package(vesk_transport) and with
# pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir" -B "$scratch/cmake-build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
"$scratch/cmake-build/consumer"
flags=$(PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig" pkg-config --cflags --libs vesk_transport)
cc -std=c99 -Wall -Wextra -pedantic -Werror -o "$scratch/consumer-pc" "$source_dir/main.c" $flags
"$scratch/consumer-pc"
