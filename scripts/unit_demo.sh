#!/usr/bin/env bash
# Runs the example image's upgrade (modes 1, 2, all) under the boot unit's sandbox and
# checks that the result is the one an unconfined run gives.
#
#   unit_demo.sh TOOL [UNIT-TEMPLATE]   (default systemd/cfgupgrade@.service.in)
#
# Where systemd is the init system, each mode runs as a transient unit with the unit's
# [Service] settings. Elsewhere that part says it skipped and why, and the part that
# needs no systemd still runs (as root): the unit's capability set and no new
# privileges, on an image whose /config belongs to another user, as on a phone where
# the application owns its files.
set -euo pipefail
unit=${2:-$(dirname "$0")/../systemd/cfgupgrade@.service.in}
image=$(dirname "$0")/../examples/phone-root
work=$(mktemp -d /tmp/cfgupgrade-unit-XXXXXX)
trap 'rm -rf "$work"' EXIT
# A copy under /tmp: the sandbox hides /home and leaves only /tmp and /config writable.
cp "$1" "$work/cfgupgrade"
tool=$work/cfgupgrade

# A fresh copy of the example image at $work/$1, its /config owned by user 1000 when $2 says so.
image_copy() {
  cp -a "$image" "$work/$1"
  mkdir -p "$work/$1/tmp"
  if [ "${2:-}" = foreign ]; then
    chown -R 1000:1000 "$work/$1/config"
    find "$work/$1/config" -type d -exec chmod 0700 {} + -o -type f -exec chmod 0600 {} +
  fi
}
# Every file's name, owner, mode and bytes; protected values differ by their random nonce.
snapshot() {
  (cd "$work/$1" && find . -printf '%p %u:%g %m\n' | sort &&
   find . -type f -print0 | sort -z | xargs -0 sed 's/pw1:[A-Za-z0-9_-]*/pw1:NONCE/g')
}
# Runs the three modes on $work/$1, each through the words after it.
upgrade() {
  local name=$1; shift
  for mode in 1 2 all; do
    "$@" env CFGUPGRADE_ROOT="$work/$name" CFGUPGRADE_LOG="$work/$name.log" "$tool" $mode >/dev/null
  done
}
same() {
  diff <(snapshot "$1") <(snapshot "$2") && diff "$work/$1.log" "$work/$2.log" ||
    { echo "unit demo: $3 differs from an unconfined run"; exit 1; }
  echo "unit demo: $3 gives the unconfined result"
}

if [ "$(id -u)" != 0 ]; then
  echo "unit demo: SKIPPED, the sandbox is set up for root and this is uid $(id -u)"; exit 0
fi

# The unit's sandbox settings as systemd-run properties. /config is the copy's here,
# under /tmp; the real one need not exist.
properties=()
while IFS= read -r line; do properties+=(-p "$line"); done < <(
  sed -n '/^\[Service\]/,/^\[/p' "$unit" | grep -E '^[A-Za-z]+=' |
    grep -Ev '^(Type|RemainAfterExit|ExecStart)=' | sed 's|^ReadWritePaths=/config |ReadWritePaths=|')

if [ -d /run/systemd/system ]; then
  image_copy unit && image_copy plain
  upgrade unit systemd-run --quiet --wait --pipe --collect "${properties[@]}" --
  upgrade plain
  same unit plain "the transient unit"
else
  echo "unit demo: SKIPPED the transient unit: systemd is not the init system here" \
       "(PID 1 is $(cat /proc/1/comm)), so systemd-run cannot start one"
fi

caps=$(sed -n 's/^CapabilityBoundingSet=//p' "$unit" | tr 'A-Z ' 'a-z\n' | sed 's/^cap_/+/' | paste -sd,)
image_copy capped foreign && image_copy root foreign
upgrade capped setpriv --bounding-set=-all,"$caps" --inh-caps=-all --no-new-privs
upgrade root
same capped root "the unit's capability set ($caps)"
