#!/usr/bin/env bash
# The main job: builds the library, runs the example program, shows what a
# WAN property file does with the command-line tool, then asks whether the
# UDPv4 example works on this host and sends real traffic through it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target custom_transport vesk-transport
./build/release/examples/custom_transport
echo
echo "=== vesk-transport show --class udpv4-wan examples/udpv4_wan.properties ==="
./build/release/tools/vesk-transport show --class udpv4-wan examples/udpv4_wan.properties
echo
echo "=== vesk-transport doctor --class udpv4 examples/udpv4.properties ==="
# A problem found on this host is reported, not a failure of the job.
./build/release/tools/vesk-transport doctor --class udpv4 examples/udpv4.properties ||
  echo "(doctor exit $?: see the fixes above)"
echo
echo "=== vesk-transport perf --class udpv4 --duration 1 examples/udpv4.properties ==="
./build/release/tools/vesk-transport perf --class udpv4 --duration 1 examples/udpv4.properties
