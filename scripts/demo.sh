#!/usr/bin/env bash
# Runs cfgupgrade on a copy of an example phone image in the order a phone runs it
# at an upgrade (mode 1, then 2, then all) and shows what each run logged and changed.
# Given cfgupgrade-plan too, it first shows what mode all will change, without changing it.
# The real /config is never touched: the copy lives in a temporary directory.
#   bash scripts/demo.sh CFGUPGRADE IMAGE [CFGUPGRADE-PLAN]
set -euo pipefail
binary=$(realpath "$1")
image=$(realpath "$2")
plan=${3:+$(realpath "$3")}

work=$(mktemp -d /tmp/cfgupgrade-demo-XXXXXX)
trap 'rm -rf "$work"' EXIT
root="$work/root"
cp -a "$image" "$root"
mkdir -p "$root/tmp"   # /tmp exists on every phone; the version record lives there

bold=$'\e[1m'; dim=$'\e[2m'; reset=$'\e[0m'
[ -t 1 ] || { bold=; dim=; reset=; }
summary=()
for mode in 1 2 all; do
  if [ "$mode" = all ] && [ -n "$plan" ]; then
    printf '\n%s=== cfgupgrade-plan all: what the next run will change ===%s\n' "$bold" "$reset"
    "$plan" all "$root" || true   # 1: something will change; 2: the run will log a failure
  fi
  rm -rf "$work/before"
  cp -a "$root" "$work/before"
  printf '\n%s=== cfgupgrade %s ===%s\n' "$bold" "$mode" "$reset"
  CFGUPGRADE_ROOT="$root" CFGUPGRADE_LOG="$work/log" "$binary" "$mode" > "$work/out"
  printf '%s--- standard output ---%s\n' "$dim" "$reset"; cat "$work/out"
  printf '%s--- log ---%s\n' "$dim" "$reset"; cat "$work/log" 2>/dev/null || true
  : > "$work/log"
  printf '%s--- changes ---%s\n' "$dim" "$reset"
  (cd "$work" && diff -ruN --color=always before root) || true
  changed=$(cd "$work" && diff -rqN before root | wc -l || true)
  summary+=("mode $mode: $changed file(s) changed")
done

printf '\n%s=== summary ===%s\n' "$bold" "$reset"
printf '%s\n' "${summary[@]}"
