#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a bounded time, two at a time, each
# from a copy of its committed seed corpus (what it finds new is not kept). Any
# finding fails the run; the input that caused it is kept in BUILD/fuzz-findings/.
#   bash fuzz/run.sh BUILD [SECONDS_PER_TARGET]
set -uo pipefail
build=$(realpath "$1")
seconds=${2:-45}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/cfgupgrade-fuzz-run-XXXXXX)
trap 'rm -rf "$work"' EXIT
findings="$build/fuzz-findings"
mkdir -p "$findings"

# One target: NAME is the file name without _fuzz.cpp; writes NAME.status and NAME.log.
run_one() {
  local name=$1 dict=() options=()
  mkdir -p "$work/$name"
  cp "$here/corpus/$name/"* "$work/$name/"
  [ -f "$here/$name.dict" ] && dict=(-dict="$here/$name.dict")
  # NAME.options: more flags for one target, one line, after a comment line saying why.
  [ -f "$here/$name.options" ] && read -ra options < <(grep -v '^#' "$here/$name.options")
  "$build/${name}_fuzz" "${dict[@]}" "${options[@]}" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$findings/$name-" "$work/$name" \
    > "$work/$name.log" 2>&1
  echo $? > "$work/$name.status"
}

names=()
for source in "$here"/*_fuzz.cpp; do
  name=$(basename "$source" _fuzz.cpp)
  names+=("$name")
  run_one "$name" &
  # Two at a time: the machine has two cores.
  while [ "$(jobs -rp | wc -l)" -ge 2 ]; do wait -n; done
done
wait

passed=0 failed=0
for name in "${names[@]}"; do
  runs=$(grep -o 'number_of_executed_units: [0-9]*' "$work/$name.log" | grep -o '[0-9]*$' || echo 0)
  if [ "$(cat "$work/$name.status")" = 0 ]; then
    passed=$((passed + 1))
    echo "fuzz $name: $runs runs in ${seconds}s, no finding"
  else
    failed=$((failed + 1))
    echo "fuzz $name: FINDING after $runs runs (input kept in $findings):"
    grep -E 'fuzz property broken|ERROR|SUMMARY|runtime error' "$work/$name.log" | head -20
  fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" = 0 ]
