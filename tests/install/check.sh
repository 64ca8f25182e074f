#!/usr/bin/env bash
# A plain C program of another project builds and runs against every form in
# which the library is handed out: installed with `cmake --install` into a
# prefix, and as the Debian package unpacked into a scratch root; each time
# with CMake and with pkg-config, against the shared and the static library.
set -euo pipefail
build_dir=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "install_consumer: $*" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
(cd "$scratch" && cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$scratch/package") \
    >"$scratch/cpack.log" 2>&1 || { cat "$scratch/cpack.log"; fail "cpack -G DEB failed"; }
deb=$(echo "$scratch"/package/*.deb)
dpkg-deb -x "$deb" "$scratch/root"
# dpkg-shlibdeps found the run-time libraries of the library and the tool.
depends=$(dpkg-deb -f "$deb" Depends)
for runtime in libc6 libstdc++6 libtinyxml2; do
    [[ $depends == *"$runtime"* ]] || fail "Depends lacks $runtime: $depends"
done
# The shared library exports its C interface, nothing of its C++ insides.
shared=$(find "$scratch/root" -name libvesk_transport.so.0)
cxx_exports=$(nm -D --defined-only "$shared" | grep ' _Z' || true)
[[ -z $cxx_exports ]] || fail "the shared library exports C++ symbols: $cxx_exports"
"$scratch/root/usr/bin/vesk-transport" --help >/dev/null
zgrep -q '^\.SH "vesk-transport show"' "$scratch/root/usr/share/man/man1/vesk-transport.1.gz" ||
    fail "the man page lacks the show command"

# needs <program> yes|no: whether it loads the shared library.
needs() {
    if readelf -d "$1" | grep -q 'NEEDED.*libvesk_transport\.so\.0'; then found=yes; else found=no; fi
    [[ $found == "$2" ]] || fail "$1: needs libvesk_transport.so.0: $found, expected $2"
}

for prefix in "$scratch/prefix" "$scratch/root/usr"; do
    pcdir=$(dirname "$(find "$prefix" -name vesk_transport.pc)")
    libdir=$(dirname "$pcdir")
    out="$scratch/out-$(basename "$prefix")"
    cmake -S "$source_dir" -B "$out" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$out" >/dev/null
    needs "$out/app_shared" yes
    needs "$out/app_static" no
    "$out/app_shared"
    "$out/app_static"
    for form in vesk_transport vesk_transport_static; do
        # shellcheck disable=SC2046  # the flags are words
        cc -std=c99 -Wall -Wextra -pedantic -Werror -o "$out/pc-$form" "$source_dir/main.c" \
            $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs "$form")
        LD_LIBRARY_PATH="$libdir" "$out/pc-$form"
    done
    needs "$out/pc-vesk_transport" yes
    needs "$out/pc-vesk_transport_static" no
done
