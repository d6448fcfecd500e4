#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a bounded time, two at a time (two
# cores), each from a copy of its committed seeds (what it finds new is not kept). A
# finding fails the run; its input is kept in BUILD/fuzz-findings/.
#   bash fuzz/run.sh BUILD [SECONDS_PER_TARGET]
set -uo pipefail
build=$(realpath "$1") seconds=${2:-45} here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/cfgupgrade-fuzz-run-XXXXXX) && trap 'rm -rf "$work"' EXIT
mkdir -p "$build/fuzz-findings"

# One target; NAME.dict is its dictionary, NAME.options one line of more flags.
run_one() {
  local name=$1 flags=()
  cp -r "$here/corpus/$name" "$work/$name"
  [ -f "$here/$name.dict" ] && flags+=(-dict="$here/$name.dict")
  [ -f "$here/$name.options" ] && read -ra more < <(grep -v '^#' "$here/$name.options") && flags+=("${more[@]}")
  "$build/${name}_fuzz" "${flags[@]}" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -close_fd_mask=1 \
    -print_final_stats=1 -artifact_prefix="$build/fuzz-findings/$name-" "$work/$name" >"$work/$name.log" 2>&1
  echo $? >"$work/$name.status"
}

names=()
for source in "$here"/*_fuzz.cpp; do
  names+=("$(basename "$source" _fuzz.cpp)")
  run_one "${names[-1]}" &
  while [ "$(jobs -rp | wc -l)" -ge 2 ]; do wait -n; done
done
wait

failed=0
for name in "${names[@]}"; do
  runs=$(grep -o 'number_of_executed_units: [0-9]*' "$work/$name.log" | grep -o '[0-9]*$' || echo 0)
  if [ "$(cat "$work/$name.status")" = 0 ]; then echo "fuzz $name: $runs runs in ${seconds}s, no finding"; continue; fi
  failed=$((failed + 1))
  echo "fuzz $name: FINDING after $runs runs (input kept in $build/fuzz-findings):"
  grep -E 'fuzz property broken|ERROR|SUMMARY|runtime error' "$work/$name.log" | head -20
done
echo "fuzz: $((${#names[@]} - failed)) passed, $failed failed"
[ "$failed" = 0 ]
