#!/usr/bin/env bash
# Installs what a cross build for ARCH (armhf or arm64) needs and is missing: the
# foreign architecture, the cross compiler, qemu-user, and the target's copy of each
# library package named after ARCH, at the host's version.
#
#   cross_packages.sh ARCH LIBRARY-PACKAGE...
#
# Exit status: 0 all there; 1 missing and not root (they are named); 3 the packages
# cannot be had for a reason outside the project (index, versions), said in one line.
set -uo pipefail

arch=$1; shift
case "$arch" in
  armhf) triplet=arm-linux-gnueabihf ;;
  arm64) triplet=aarch64-linux-gnu ;;
  *) echo "cross_packages.sh: ARCH must be armhf or arm64, not '$arch'" >&2; exit 2 ;;
esac
host=$(dpkg --print-architecture)
apt_get() { DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 "$@"; }

# Whether NAME is installed for ARCH. `dpkg -s NAME` answers "ambiguous" once two
# architectures have it, and an Architecture: all package matches no "NAME:ARCH".
installed() {
  dpkg-query -W -f='${Architecture} ${db:Status-Abbrev}\n' "$1" 2>/dev/null | grep -Eq "^($2|all) ii"
}
hostVersion() { dpkg-query -W -f='${Version}' "$1:$host" 2>/dev/null; }
# Versions the package index offers for NAME:ARCH, newest first.
offered() { apt-cache madison "$1:$2" 2>/dev/null | awk -F'|' '$3 ~ /Packages/ {gsub(/ /, "", $2); print $2}'; }
# NAME:ARCH=VERSION and the packages it needs at exactly VERSION (a -dev package's
# library): apt takes each dependency's candidate, not the version a pin asks for.
pinned() {
  echo "$1:$2=$3"
  apt-cache show "$1:$2=$3" 2>/dev/null | sed -n 's/^Depends: //p' | tr ',' '\n' |
    sed -n "s/^ *\([^ :]*\)\(:any\)\? *(= $3).*/\1:$2=$3/p"
}

unavailable() {
  echo "cross-test $arch: SKIPPED, the $arch packages cannot be installed here ($1); nothing was built" >&2
  exit 3
}

tools=() libs=()
for p in "g++-$triplet" qemu-user; do installed "$p" "$host" || tools+=("$p"); done
for p in "$@"; do installed "$p" "$arch" || libs+=("$p"); done
[ ${#tools[@]} -eq 0 ] && [ ${#libs[@]} -eq 0 ] && exit 0

if [ "$(id -u)" != 0 ]; then
  echo "Missing packages: ${tools[*]} ${libs[*]/%/:$arch}"
  echo "Install them (as root) with: dpkg --add-architecture $arch && apt-get update &&" \
       "apt-get install ${tools[*]} ${libs[*]/%/:$arch}"
  exit 1
fi

echo "Installing for $arch: ${tools[*]} ${libs[*]}"
dpkg --print-foreign-architectures | grep -qx "$arch" || dpkg --add-architecture "$arch"
# A foreign index caught mid-sync fails to download; the others still serve, and the
# version checks below tell whether what is left is enough.
apt_get update -qq >/dev/null 2>&1 || echo "note: apt-get update reported errors; going on with the indexes it has"

# Multi-Arch: same packages must have one version on every architecture, so each
# target library is asked for at the host's version. When the index no longer offers
# that version for the target, host and target move together, in this one run, to the
# newest version both are offered: an update within the same release, never a downgrade.
requests=("${tools[@]}")
for p in "${libs[@]}"; do
  have=$(hostVersion "$p")
  if [ -z "$have" ]; then requests+=("$p:$arch"); continue; fi
  if offered "$p" "$arch" | grep -qxF "$have"; then requests+=($(pinned "$p" "$arch" "$have")); continue; fi
  common=$(comm -12 <(offered "$p" "$host" | sort) <(offered "$p" "$arch" | sort) |
           while read -r v; do dpkg --compare-versions "$v" gt "$have" && echo "$v"; done |
           sort -V | tail -1)
  [ -n "$common" ] || unavailable "no $p for $arch at the host's $have or newer"
  echo "The index no longer offers $p $have for $arch: host and $arch both get $common"
  requests+=($(pinned "$p" "$host" "$common") $(pinned "$p" "$arch" "$common"))
done

if ! out=$(apt_get install -y -qq --no-install-recommends "${requests[@]}" 2>&1); then
  unavailable "apt-get install ${requests[*]}: $(echo "$out" | grep '^E:' | tail -1)"
fi
