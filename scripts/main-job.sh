#!/usr/bin/env bash
# The main job: builds the library, runs the example program, and shows what
# a WAN property file does with the command-line tool.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target custom_transport vesk-transport
./build/release/examples/custom_transport
echo
echo "=== vesk-transport show --class udpv4-wan examples/udpv4_wan.properties ==="
./build/release/tools/vesk-transport show --class udpv4-wan examples/udpv4_wan.properties
