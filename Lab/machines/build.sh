#!/bin/sh
# Unpacks the archives that are its arguments into a root of its own, builds the project there, has the
# package judged, and writes an archive of `out` (the package, and below `build` the programs) and of the
# compiler's cache. Status 3: the fault is the project's.
set -eu
root=$(mktemp -d)
trap 'umount -R "$root" 2>/dev/null; rm -rf "$root"' EXIT
trap 'exit 1' TERM
chmod 755 "$root"
mount -t tmpfs -o size=6g,mode=755 machines "$root"
for archive in "$@"; do tar -x -C "$root" -f "$archive"; done
mkdir -p "$root/ccache" "$root/out/build/Lab" "$root/proc"
mount --rbind /proc "$root/proc"

chroot "$root" /bin/sh -eu >&2 <<'EOF' || exit 3
export CCACHE_DIR=/ccache CCACHE_MAXSIZE=400M CCACHE_SLOPPINESS=time_macros
export CMAKE_CXX_COMPILER_LAUNCHER=ccache HOME=/root
jobs=$(nproc)
cd /src
# What it only costs time to make is left out: what debuggers read.
export DEB_CFLAGS_STRIP=-g DEB_CXXFLAGS_STRIP=-g
DEB_BUILD_OPTIONS="nocheck noautodbgsym unity parallel=$jobs" dpkg-buildpackage --build=binary --no-sign
lintian --allow-root --fail-on error ../vantry_*.changes
cp ../*.deb /out
cp obj-*/vantryd obj-*/vantryctl obj-*/vantry-settings /out/build
cmake -G Ninja -S Lab/machines/programs -B /lab -DCMAKE_BUILD_TYPE=Release
cmake --build /lab --parallel "$jobs" --target lab-server demo-client login-manager
cp /lab/Lab/lab-server /lab/Lab/demo-client /lab/Lab/login-manager /out/build/Lab
EOF
tar -c -C "$root" -f "$root/ccache.tar" ccache
tar -c -C "$root" out ccache.tar
