#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when any is
# missing. Runs apt-get update first, as a fresh machine needs.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config googletest libgtest-dev libgmock-dev nlohmann-json3-dev
          libcli11-dev libtinyxml2-dev iproute2 nftables libmnl-dev dpkg-dev file "$@")
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
