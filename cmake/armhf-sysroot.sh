#!/usr/bin/env bash
# Makes the armhf sysroot that cmake/armhf-toolchain.cmake builds against and
# qemu-arm runs from: Debian's armhf packages of the C and C++ libraries and
# of the project's dependencies, fetched with `apt-get download` and unpacked
# with `dpkg-deb -x` (nothing is installed on the host, so nothing conflicts
# with the host's own packages, and a half-synced mirror cannot leave the
# host's package state broken).
#
#   cmake/armhf-sysroot.sh DEST
#
# Exit status 0 when DEST holds a complete sysroot (made now or before),
# 1 when the packages could not be fetched. Idempotent: a sysroot made from
# the same package list is kept.
set -euo pipefail

DEST="${1:?usage: armhf-sysroot.sh DEST}"
PACKAGES=(
  libc6 libc6-dev linux-libc-dev libgcc-s1 libgcc-12-dev libstdc++6 libstdc++-12-dev
  libhiredis0.14 libhiredis-dev libgtest-dev libgmock-dev
)
# Architecture-independent packages (headers only), fetched as they are.
ALL_PACKAGES=(nlohmann-json3-dev)
STAMP="$DEST/.orbel-sysroot"
# Any change of this script (its package list, its layout) makes a new one.
WANT="$(sha1sum <"${BASH_SOURCE[0]}")"

if [ -f "$STAMP" ] && [ "$(cat "$STAMP")" = "$WANT" ]; then
  exit 0
fi

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; elif command -v sudo >/dev/null 2>&1; then sudo "$@"; else
    echo "armhf-sysroot: need root rights for: $*" >&2
    return 1
  fi
}

# The host's package lists must know the armhf architecture. One index that
# fails to download (a mirror syncing) is not fatal: the others usually
# carry every package needed.
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  as_root dpkg --add-architecture armhf
fi
if ! apt-cache show libc6:armhf >/dev/null 2>&1; then
  as_root apt-get update >/dev/null 2>&1 || true
fi

DEBS="$DEST.debs"
rm -rf "$DEBS" "$DEST"
mkdir -p "$DEBS" "$DEST"
armhf=()
for p in "${PACKAGES[@]}"; do armhf+=("$p:armhf"); done
armhf+=("${ALL_PACKAGES[@]}")
if ! (cd "$DEBS" && apt-get download -o APT::Sandbox::User=root "${armhf[@]}" >/dev/null 2>"$DEBS/apt.err"); then
  sed 's/^/armhf-sysroot: /' "$DEBS/apt.err" >&2
  rm -rf "$DEBS" "$DEST"
  exit 1
fi
for deb in "$DEBS"/*.deb; do
  dpkg-deb -x "$deb" "$DEST"
done

# Lay the tree out as Debian's merged /usr: the armhf loader searches
# /usr/lib/arm-linux-gnueabihf but not /lib/arm-linux-gnueabihf, where the
# C library's packages put their files.
for d in lib bin sbin; do
  if [ -d "$DEST/$d" ] && [ ! -L "$DEST/$d" ]; then
    mkdir -p "$DEST/usr/$d"
    cp -a "$DEST/$d/." "$DEST/usr/$d/"
    rm -rf "${DEST:?}/$d"
    ln -s "usr/$d" "$DEST/$d"
  fi
done
# The loader must not read the host's cache (qemu falls back to host files
# that the sysroot lacks); an empty cache file is ignored.
: >"$DEST/etc/ld.so.cache"

# Debian's armhf hiredis.pc names /usr/lib, not the multiarch directory the
# library is in.
pc="$DEST/usr/lib/arm-linux-gnueabihf/pkgconfig/hiredis.pc"
sed -i 's|^libdir=.*|libdir=${prefix}/lib/arm-linux-gnueabihf|' "$pc"

rm -rf "$DEBS"
echo "$WANT" >"$STAMP"
