#!/usr/bin/env bash
# Builds vexlo's Debian packages into one folder: libvexlo1, libvexlo-dev, vexlo-tools (and
# python3-vexlo-can when the python interface is part of the tree). Needs no root.
#   bash scripts/package.sh [OUTDIR]      (default: dist)
# The build goes to build-pkg, or to $VEXLO_PKG_BUILD, configured for /usr with Debian's
# compiler and linker hardening flags; tests and benchmarks are not built.
set -euo pipefail
out=$(realpath -m "${1:-dist}")
cd "$(dirname "$0")/.."
build=$(realpath -m "${VEXLO_PKG_BUILD:-build-pkg}")

# Debian's build flags; CMake reads CFLAGS, CXXFLAGS and LDFLAGS but not CPPFLAGS.
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DVEXLO_TESTS=OFF -DVEXLO_BENCH=OFF >/dev/null
cmake --build "$build" -j2 >/dev/null
rm -f "$build"/*.deb
# CPack notes the maintainer scripts named only to keep its own out (packaging/VexloCPack.cmake).
(cd "$build" && cpack -G DEB 2>&1 >/dev/null | { grep -v -e 'Adding file to tar' -e '^#' || true; } >&2)
mkdir -p "$out"
rm -f "$out"/{libvexlo1,libvexlo-dev,vexlo-tools,python3-vexlo-can}_*.deb
cp "$build"/*.deb "$out"/
ls "$out"/*.deb
