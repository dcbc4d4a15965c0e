#!/usr/bin/env bash
# Installs the library into a temporary prefix, then builds the consumer
# project in examples/ against it twice (CMake package, pkg-config + make)
# and runs both, together with the installed orvane-lock.
#   scripts/check-install.sh [BUILD_DIR]     (default: build)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
case $build in /*) ;; *) build=$root/$build ;; esac

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

step() { printf '== %s\n' "$*"; }

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" >/dev/null
fi
step "build the library and orvane-lock ($build)"
cmake --build "$build" --target orvane orvane-lock -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

libdir=$(cd "$prefix" && ls -d lib*/ | head -1); libdir=${libdir%/}
for f in "$libdir/liborvane.so" "$libdir/liborvane.so.1" include/orvane/orvane.h bin/orvane-lock \
         share/man/man1/orvane-lock.1 "$libdir/pkgconfig/orvane.pc" "$libdir/cmake/orvane/orvaneConfig.cmake"; do
  [ -e "$prefix/$f" ] || { echo "missing from the install: $f" >&2; exit 1; }
done
[ -L "$prefix/$libdir/liborvane.so" ] || { echo "liborvane.so is not a link" >&2; exit 1; }
soname=$(objdump -p "$prefix/$libdir/liborvane.so" | awk '/SONAME/ {print $2}')
[ "$soname" = liborvane.so.1 ] || { echo "unexpected SONAME: $soname" >&2; exit 1; }

step "installed orvane-lock"
"$prefix/bin/orvane-lock" --version
lockdir=$work/locked; mkdir "$lockdir"
"$prefix/bin/orvane-lock" "$lockdir" sh -c 'test -e "$0/.deploy_write_lock"' "$lockdir"
man -l "$prefix/share/man/man1/orvane-lock.1" >/dev/null 2>&1 || groff -man -Tutf8 "$prefix/share/man/man1/orvane-lock.1" >/dev/null 2>&1 || true

step "example with find_package(orvane)"
cmake -S "$root/examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/orvane-example"

step "example with pkg-config and make"
cp "$root/examples/main.cc" "$root/examples/Makefile" "$work/"
PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" make -s -C "$work" orvane-example
"$work/orvane-example"

step "install check passed"
