#!/usr/bin/env bash
# The figures of docs/embedded.md: for armhf and arm64, dynamic and static, the
# stripped size of the tool, the libraries it needs, and its peak RSS under qemu-user
# (usage line only, mode all on the example image, mode all on the benchmark's typical
# image), beside the same runs of a native build. Run `make cross-test ARCH=armhf` and
# `ARCH=arm64` first: they install the packages this needs.
#
#   scripts/embedded_figures.sh [JOBS]
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
jobs=${1:-2}
work=$top/build-figures
mkdir -p "$work"

# One build of the tool alone, without its tests.
build() {
  local dir=$1; shift
  cmake --no-warn-unused-cli -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGUPGRADE_TESTS=OFF "$@" >/dev/null
  cmake --build "$dir" -j "$jobs" --target cfgupgrade >"$dir.log" 2>&1 || { cat "$dir.log"; exit 1; }
}

# The typical image as the benchmark makes it, from a native build of its generator.
cmake -S bench -B "$work/bench" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$work/bench" -j "$jobs" --target gen_image >/dev/null
rm -rf "$work/typical"
"$work/bench/gen_image" --examples "$top/examples" --size typical "$work/typical" >/dev/null

# Peak RSS in MiB of one run of "$@" in mode $mode on a fresh copy of image $image.
peak() {
  local image=$1 mode=$2; shift 2
  rm -rf "$work/run"
  if [ "$image" = none ]; then mkdir -p "$work/run"; else cp -a "$image" "$work/run"; fi
  mkdir -p "$work/run/tmp"
  CFGUPGRADE_ROOT=$work/run CFGUPGRADE_LOG=/dev/null /usr/bin/time -f %M -o "$work/rss" "$@" $mode >/dev/null
  awk '{ printf "%.1f MiB", $1 / 1024 }' "$work/rss"
}

# One table row: the runs of the tool in $2.., after a label and the build's tool file.
row() {
  local label=$1 tool=$2; shift 2
  local stripped=$work/stripped-$label
  "${strip:-strip}" -o "$stripped" "$tool"
  local needed
  needed=$(readelf -d "$stripped" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd' ')
  printf '| %s | %s KiB | %s | %s | %s | %s |\n' "$label" $(( $(stat -c %s "$stripped") / 1024 )) \
    "${needed:-none (static)}" "$(peak none "" "$@" "$stripped")" \
    "$(peak "$top/examples/phone-root" all "$@" "$stripped")" "$(peak "$work/typical" all "$@" "$stripped")"
}

echo "| build | stripped size | libraries needed (readelf -d) | peak RSS, usage line | peak RSS, all on example | peak RSS, all on typical |"
echo "|---|---|---|---|---|---|"
for static in OFF ON; do
  kind=dynamic; [ $static = ON ] && kind=static
  build "$work/x86_64-$kind" -DCFGUPGRADE_STATIC=$static
  strip=strip row "x86_64 $kind (native)" "$work/x86_64-$kind/cfgupgrade"
done
for arch in armhf arm64; do
  case $arch in armhf) triplet=arm-linux-gnueabihf qemu=qemu-arm ;; arm64) triplet=aarch64-linux-gnu qemu=qemu-aarch64 ;; esac
  for static in OFF ON; do
    kind=dynamic; [ $static = ON ] && kind=static
    build "$work/$arch-$kind" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$arch.cmake -DCFGUPGRADE_STATIC=$static
    strip=$triplet-strip row "$arch $kind" "$work/$arch-$kind/cfgupgrade" "$qemu" -L "/usr/$triplet"
  done
done
