#!/usr/bin/env bash
# The benchmark: cfgupgrade against the I/O floor and the scripted peer, whole
# processes on generated phone images. docs/performance.md describes the method.
#
#   bench/run.sh [--quick | --figures] [--repeats N] [--peer-repeats N] [--full-peer]
#
# --quick         a smoke test in seconds: demo and a small image, one repetition,
#                 nothing written outside build-bench/ (what CI runs)
# --figures       only the figures of the ordinary boot: mode all on typical and
#                 large, the start-up pairs and the profile (a few minutes)
# --repeats N     timed pairs per size and mode (default 7); medians are reported
# --peer-repeats  timed peer runs on the demo and typical images (default 3; the
#                 peer takes about 40 s per run on typical)
# --full-peer     also run the peer on the large image and at 10,000 rules (about
#                 half an hour more)
#
# Results go to build-bench/results/ (report.md and the raw tables); a full run
# also refreshes the plot docs/performance-scaling.png.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

quick=0; figures=0; repeats=7; peerRepeats=3; fullPeer=0
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=1; repeats=1; peerRepeats=1 ;;
    --figures) figures=1 ;;
    --repeats) repeats=$2; shift ;;
    --peer-repeats) peerRepeats=$2; shift ;;
    --full-peer) fullPeer=1 ;;
    *) echo "usage: bench/run.sh [--quick | --figures] [--repeats N] [--peer-repeats N] [--full-peer]" >&2; exit 2 ;;
  esac
  shift
done

# ---------------------------------------------------------------- tools

need=(crudini gnuplot-nox strace openssl valgrind)
missing=()
for p in "${need[@]}"; do dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    echo "Installing: ${missing[*]}"
    # A list that fails to download (another architecture's, a mirror in sync) must not
    # keep the packages of this one from being installed; a failed install still stops here.
    apt-get update -qq || echo "bench: some package lists could not be updated; installing from the rest" >&2
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
  else
    echo "Missing packages: ${missing[*]}; install them with: sudo apt-get install ${missing[*]}" >&2
    exit 1
  fi
fi

build=$top/build-bench
cmake -S bench -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j 2 >/dev/null
tool=$build/cfgupgrade/cfgupgrade
measure=$build/measure
floor=$build/io_floor
oneLine=$build/one_line
work=$build/work
results=$build/results
rm -rf "$work" "$results"
mkdir -p "$work" "$results"

# ---------------------------------------------------------------- helpers

log() { printf '%s %s\n' "$(date +%H:%M:%S)" "$*" >&2; }

# A fresh copy of an image whose pages are on disk, so no earlier copy's dirty
# pages are flushed by the measured run's first fsync.
fresh() { rm -rf "$2"; cp -a "$1" "$2"; sync -f "$2"; }

# Runs a command under measure and sets WALL (microseconds) and RSS (KiB); stops
# the benchmark when the command failed, since its figures would mean nothing.
timed() {
  local status
  read -r WALL RSS status < <("$measure" "$@")
  if [ "$status" != 0 ]; then echo "bench: exit status $status from: $*" >&2; exit 1; fi
}

run_tool() { timed CFGUPGRADE_ROOT="$1" CFGUPGRADE_LOG=/dev/null -- "$tool" "$2"; }  # ROOT MODE

# Runs the tool under strace on ROOT and prints "BYTES FSYNCS RENAMES UNLINKS";
# the files it read go to READLIST. Writes and fsyncs are counted on files under
# ROOT (the phone's file system); fsyncs of directories count too.
observe() {  # ROOT MODE TRACE READLIST
  local root=$1 mode=$2 trace=$3 readlist=$4
  CFGUPGRADE_ROOT="$root" CFGUPGRADE_LOG=/dev/null strace -f -qq -y -s 0 -o "$trace" \
    -e trace=openat,write,writev,pwrite64,fsync,fdatasync,syncfs,sync_file_range,rename,renameat,renameat2,unlink,unlinkat \
    "$tool" "$mode" >/dev/null 2>&1
  : > "$readlist"
  awk -v root="$root" -v readlist="$readlist" '
    function under(p) { return index(p, root "/") == 1 }
    / (write|writev|pwrite64)\([0-9]+</ {
      match($0, /\([0-9]+<[^>]*>/); fd = substr($0, RSTART + 1, RLENGTH - 2); sub(/^[0-9]+</, "", fd)
      n = $NF; if (under(fd) && n ~ /^[0-9]+$/) bytes += n
    }
    / (fsync|fdatasync|syncfs|sync_file_range)\(/ { fsyncs++ }
    / rename(at2?)?\(/ && $NF == 0 { renames++ }
    / unlink(at)?\(/ && $NF == 0 { unlinks++ }
    # Files are opened relative to their directory: the path is the one strace gives the result.
    / openat\(/ && !/O_WRONLY|O_RDWR|O_DIRECTORY|O_CREAT|O_PATH/ && / = [0-9]+<[^>]*>$/ {
      match($0, / = [0-9]+<[^>]*>$/); p = substr($0, RSTART, RLENGTH - 1); sub(/^ = [0-9]+</, "", p)
      if (under(p) && !(p in seen)) { seen[p] = 1; print substr(p, length(root) + 1) > readlist }
    }
    END { printf "%d %d %d %d\n", bytes, fsyncs, renames, unlinks }
  ' "$trace"
}

# The floor's plan for going from BEFORE to AFTER: the files read, then the files
# that changed or appeared (their new bytes appended to BLOB), then those removed.
plan() {  # BEFORE AFTER READLIST PLAN BLOB
  local before=$1 after=$2 readlist=$3 out=$4 blob=$5 f offset=0 size
  : > "$blob"
  : > "$out"
  # A file the run made and then read back is not input: the floor never reads it.
  while IFS= read -r f; do
    [ -f "$before$f" ] && echo "read $f" >> "$out"
  done < "$readlist"
  while IFS= read -r f; do
    if [ ! -f "$before$f" ] || ! cmp -s "$before$f" "$after$f"; then
      size=$(stat -c %s "$after$f")
      cat "$after$f" >> "$blob"
      echo "write $offset $size $f" >> "$out"
      offset=$((offset + size))
    fi
  done < <(cd "$after" && find . -type f | sed 's/^\.//' | sort)
  while IFS= read -r f; do
    [ -e "$after$f" ] || echo "remove $f" >> "$out"
  done < <(cd "$before" && find . -type f | sed 's/^\.//' | sort)
}

median() { sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) print "nan"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# ---------------------------------------------------------------- images

images=$work/images
mkdir -p "$images"
gen() { "$build/gen_image" --examples "$top/examples" "$@"; }
modes=(all dev pwd 1 2)
if [ $quick = 1 ]; then
  sizes=(demo typical)
  ruleCounts=(0 100 1000)
elif [ $figures = 1 ]; then
  sizes=(typical large)
  ruleCounts=()
  modes=(all)
else
  sizes=(demo typical large)
  ruleCounts=(0 100 1000 10000)
fi
log "generating images"
for s in "${sizes[@]}"; do gen --size "$s" "$images/$s"; done
for n in "${ruleCounts[@]}"; do gen --size typical --rules "$n" "$images/rules$n"; done

# ---------------------------------------------------------------- sizes and modes

# runs.tsv: size mode pair tool1_us rss1 tool2_us rss2 floor1_us floor2_us
# observed.tsv: size mode run bytes fsyncs renames unlinks
printf 'size\tmode\tpair\ttool1_us\trss1_kib\ttool2_us\trss2_kib\tfloor1_us\tfloor2_us\n' > "$results/runs.tsv"
printf 'size\tmode\trun\tbytes\tfsyncs\trenames\tunlinks\tfloor_bytes\tfloor_fsyncs\n' > "$results/observed.tsv"

floor_counts() {  # PLAN -> "bytes fsyncs" of the floor
  awk '$1 == "write" { b += $3; f += 2 } $1 == "remove" { f += 1 } END { printf "%d %d\n", b, f }' "$1"
}

for s in "${sizes[@]}"; do
  for m in "${modes[@]}"; do
    log "size $s, mode $m: observing"
    d=$work/$s-$m
    mkdir -p "$d"
    fresh "$images/$s" "$d/first"
    read -r b f r u < <(observe "$d/first" "$m" "$d/trace1" "$d/read1")
    plan "$images/$s" "$d/first" "$d/read1" "$d/plan1" "$d/blob1"
    read -r fb ff < <(floor_counts "$d/plan1")
    printf '%s\t%s\tfirst\t%s\t%s\t%s\t%s\t%s\t%s\n' "$s" "$m" "$b" "$f" "$r" "$u" "$fb" "$ff" >> "$results/observed.tsv"
    fresh "$d/first" "$d/second"
    read -r b f r u < <(observe "$d/second" "$m" "$d/trace2" "$d/read2")
    plan "$d/first" "$d/second" "$d/read2" "$d/plan2" "$d/blob2"
    read -r fb ff < <(floor_counts "$d/plan2")
    printf '%s\t%s\tsecond\t%s\t%s\t%s\t%s\t%s\t%s\n' "$s" "$m" "$b" "$f" "$r" "$u" "$fb" "$ff" >> "$results/observed.tsv"

    log "size $s, mode $m: $repeats timed pairs"
    for i in $(seq "$repeats"); do
      # Alternate which of the pair goes first, so drift in the machine's load
      # does not always favour the same one.
      for who in $( [ $((i % 2)) = 1 ] && echo "tool floor" || echo "floor tool" ); do
        if [ "$who" = tool ]; then
          fresh "$images/$s" "$d/t"
          run_tool "$d/t" "$m"; t1=$WALL; rss1=$RSS
          run_tool "$d/t" "$m"; t2=$WALL; rss2=$RSS
        else
          fresh "$images/$s" "$d/f"
          timed -- "$floor" "$d/f" "$d/plan1" "$d/blob1"; f1=$WALL
          timed -- "$floor" "$d/f" "$d/plan2" "$d/blob2"; f2=$WALL
        fi
      done
      printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$s" "$m" "$i" "$t1" "$rss1" "$t2" "$rss2" "$f1" "$f2" >> "$results/runs.tsv"
    done
    rm -rf "$d/t" "$d/f"
  done
done

# ---------------------------------------------------------------- start-up

# startup.tsv: pair tool_us tool_rss_kib yardstick_us yardstick_rss_kib. The tool
# without an argument only logs its usage line: what is left is loading and exit.
printf 'pair\ttool_us\ttool_rss_kib\tyardstick_us\tyardstick_rss_kib\n' > "$results/startup.tsv"
log "start-up: $((repeats * 3)) timed pairs"
for i in $(seq $((repeats * 3))); do
  timed CFGUPGRADE_LOG=/dev/null -- "$tool"; t=$WALL; tr=$RSS
  timed -- "$oneLine"; y=$WALL; yr=$RSS
  printf '%s\t%s\t%s\t%s\t%s\n' "$i" "$t" "$tr" "$y" "$yr" >> "$results/startup.tsv"
done

# ---------------------------------------------------------------- worst images

# worst.tsv: image mode rss_kib. The typical image with every INI file under /config
# filled to just under its 4 MiB limit (blank lines, one huge section, tiny sections)
# or every XML file there of empty elements: whatever the files hold, a run stays
# within its memory budget.
printf 'image\tmode\trss_kib\n' > "$results/worst.tsv"
worstBase=typical  # in every set of sizes
fill() (  # IMAGE KIND; a subshell: `yes` and `seq` end on SIGPIPE, which pipefail would take for a failure
  set +o pipefail
  local f
  find "$1/config" -type f \( -name '*.ini' -o -name '*.cfg' \) | while IFS= read -r f; do
    case $2 in
      blank-lines) head -c $((4190208 - $(stat -c %s "$f"))) /dev/zero | tr '\0' '\n' >> "$f" ;;
      huge-section) { cat "$f"; echo '[Huge]'; seq -f 'k%g=v' 0 999999; } | head -c 4190208 > "$f.new" && mv "$f.new" "$f" ;;
      tiny-sections) { cat "$f"; yes '[]'; } | head -c 4190208 > "$f.new" && mv "$f.new" "$f" ;;
    esac
  done
  if [ "$2" = empty-elements ]; then
    find "$1/config" -type f -name '*.xml' | while IFS= read -r f; do
      { echo '<softkey>'; yes '<a/>' | head -c 4000000; echo '</softkey>'; } > "$f"
    done
  fi
)
log "worst images: 4 kinds, ${#modes[@]} modes"
for kind in blank-lines huge-section tiny-sections empty-elements; do
  fresh "$images/$worstBase" "$work/worst-$kind"
  fill "$work/worst-$kind" "$kind"
  for m in "${modes[@]}"; do
    fresh "$work/worst-$kind" "$work/worst"
    run_tool "$work/worst" "$m"
    printf '%s\t%s\t%s\n' "$kind" "$m" "$RSS" >> "$results/worst.tsv"
  done
  rm -rf "$work/worst-$kind" "$work/worst"
done

# ---------------------------------------------------------------- profile

# profile-SIZE.txt: where the instructions of an ordinary boot (mode all, run again
# on the result of a first run) go, counted by callgrind: each step and the loading
# of the program with what they call, then the top functions by their own count.
profile() {  # ROOT OUT
  local out=$2
  CFGUPGRADE_ROOT="$1" CFGUPGRADE_LOG=/dev/null valgrind --tool=callgrind --callgrind-out-file="$out.raw" \
    "$tool" all >/dev/null 2>&1
  # Shortens "COUNT (PCT%)  FILE:FUNCTION [OBJECT]" to "COUNT PCT FUNCTION (OBJECT)".
  local shorten='
    function row(   count, pct, line, object) {
      count = $1; match($0, /[0-9.]+%/); pct = substr($0, RSTART, RLENGTH)
      line = $0; sub(/^ *[0-9,]+ *\( *[0-9.]+%\) */, "", line)
      object = line; sub(/:.*/, "", object)
      if (line ~ / \[[^]]*\]$/) { object = line; sub(/.*\[/, "", object); sub(/\]$/, "", object) }
      sub(/.*\//, "", object)
      sub(/ \[[^]]*\]$/, "", line); sub(/^[^:]*:/, "", line)
      gsub(/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/, "std::string", line)
      gsub(/std::basic_string_view<char, std::char_traits<char> >/, "std::string_view", line)
      gsub(/\(anonymous namespace\)::/, "", line); gsub(/ \[clone [^]]*\]/, "", line); sub(/\(.*/, "", line)
      printf "%12s %7s  %s (%s)\n", count, pct, line, object
    }'
  {
    echo "By step (the rows of the run table, in order), with what each calls:"
    # The run table's lambdas are numbered in source order; their step names come from there.
    callgrind_annotate --inclusive=yes --threshold=100 "$out.raw" 2>/dev/null | awk "$shorten"'
      FNR == NR { if (match($0, /^ *\{"[^"]+", *\[\]/)) { n = $0; sub(/^ *\{"/, "", n); sub(/".*/, "", n); step[++steps] = n }; next }
      / PROGRAM TOTALS/ { printf "%12s %7s  the whole run\n", $1, "100%" }
      /^ *[0-9,]+ .*kRunTable::\{lambda\(\)#[0-9]+\}::_FUN\(\) \[/ {
        match($0, /#[0-9]+/); i = substr($0, RSTART + 1, RLENGTH - 1) + 0
        match($0, /[0-9.]+%/); printf "%12s %7s  step: %s\n", $1, substr($0, RSTART, RLENGTH), step[i]
      }
      /:(_dl_start|exit|store::commit)(\(\))? \[/ { row() }' "$top/src/driver/mode_table.cpp" -
    echo
    echo "The top functions by their own count:"
    callgrind_annotate "$out.raw" 2>/dev/null | awk "$shorten"'
      /file:function/ { body = 1; next }
      body && $1 ~ /^[0-9,]+$/ && shown < 12 { row(); shown++ }'
  } > "$out"
  rm -f "$out.raw"
}
for s in "${sizes[@]}"; do
  [ "$s" = demo ] && continue
  log "profile: second run of mode all on $s"
  profile "$work/$s-all/second" "$results/profile-$s.txt"
done

# ---------------------------------------------------------------- the peer

# peer.tsv: image pair peer_us tool_us (the tool in mode dev, a first run)
printf 'image\tpair\tpeer_us\ttool_us\n' > "$results/peer.tsv"
peer_images=(demo typical rules100 rules1000)
[ $quick = 1 ] && peer_images=(demo)
[ $figures = 1 ] && peer_images=()
[ $fullPeer = 1 ] && peer_images+=(large rules10000)
for img in "${peer_images[@]}"; do
  n=$peerRepeats
  case $img in demo|typical) ;; *) n=1 ;; esac
  log "peer on $img: $n run(s)"
  for i in $(seq "$n"); do
    fresh "$images/$img" "$work/p"
    timed -- bash "$top/bench/peer.sh" "$work/p"; p=$WALL
    fresh "$images/$img" "$work/p"
    run_tool "$work/p" dev; t=$WALL
    printf '%s\t%s\t%s\t%s\n' "$img" "$i" "$p" "$t" >> "$results/peer.tsv"
  done
done
rm -rf "$work/p"

# ---------------------------------------------------------------- scaling

# scaling.tsv: rules pair tool_us floor_us (mode dev, first run)
# instructions.tsv: rules instructions (callgrind, mode dev, first run)
printf 'rules\tpair\ttool_us\tfloor_us\n' > "$results/scaling.tsv"
printf 'rules\tinstructions\n' > "$results/instructions.tsv"
for n in "${ruleCounts[@]}"; do
  log "scaling: $n rules"
  d=$work/rules$n-dev
  mkdir -p "$d"
  fresh "$images/rules$n" "$d/first"
  observe "$d/first" dev "$d/trace" "$d/read" >/dev/null
  plan "$images/rules$n" "$d/first" "$d/read" "$d/plan" "$d/blob"
  for i in $(seq "$repeats"); do
    fresh "$images/rules$n" "$d/t"
    run_tool "$d/t" dev; t=$WALL
    fresh "$images/rules$n" "$d/f"
    timed -- "$floor" "$d/f" "$d/plan" "$d/blob"; f=$WALL
    printf '%s\t%s\t%s\t%s\n' "$n" "$i" "$t" "$f" >> "$results/scaling.tsv"
  done
  fresh "$images/rules$n" "$d/t"
  ir=$(CFGUPGRADE_ROOT="$d/t" CFGUPGRADE_LOG=/dev/null valgrind --tool=callgrind --callgrind-out-file=/dev/null \
         "$tool" dev 2>&1 >/dev/null | awk '/Collected/ { print $NF }')
  printf '%s\t%s\n' "$n" "$ir" >> "$results/instructions.tsv"
  rm -rf "$d/t" "$d/f"
done

# ---------------------------------------------------------------- the plan over many images

# cfgupgrade-plan --summary over N copies of the typical image (hard links: the plan
# writes nothing), mode all, two jobs (this machine's cores); twice as many images
# show whether memory stays flat.
log "the plan over many images"
planTool=$build/cfgupgrade/cfgupgrade-plan
planCounts=(200 400); [ $quick = 1 ] && planCounts=(4 8)
printf 'images\tseconds\timages per second\tpeak RSS KiB\n' > "$results/plan.tsv"
for n in "${planCounts[@]}"; do
  rm -rf "$work/plan" && mkdir -p "$work/plan"
  for i in $(seq "$n"); do cp -al "$images/typical" "$work/plan/i$i"; done
  read -r WALL RSS status < <("$measure" -- "$planTool" --summary -j 2 all "$work/plan"/i*)
  [ "$status" -le 1 ] || { echo "bench: cfgupgrade-plan exit status $status" >&2; exit 1; }
  awk -v n="$n" -v us="$WALL" -v rss="$RSS" 'BEGIN { printf "%d\t%.2f\t%.0f\t%d\n", n, us / 1e6, n / (us / 1e6), rss }' >> "$results/plan.tsv"
done
rm -rf "$work/plan"

# ---------------------------------------------------------------- report

strip -o "$work/cfgupgrade.stripped" "$tool"
binarySize=$(stat -c %s "$work/cfgupgrade.stripped")
bash "$top/bench/report.sh" "$results" "$binarySize" > "$results/report.md"
{ printf '\n### cfgupgrade-plan --summary, mode all, typical images, -j 2\n\n'
  awk -F'\t' 'NR == 1 { print "| " $1 " | " $2 " | " $3 " | " $4 " |"; print "|---:|---:|---:|---:|"; next }
               { print "| " $1 " | " $2 " | " $3 " | " $4 " |" }' "$results/plan.tsv"; } >> "$results/report.md"

plotOut=$top/docs/performance-scaling.png
[ $quick = 1 ] && plotOut=$results/performance-scaling.png
if [ $figures = 1 ]; then
  log "report: $results/report.md"
else
  gnuplot -e "results='$results'; out='$plotOut'" "$top/bench/scaling.gp"
  log "report: $results/report.md; plot: $plotOut"
fi
cat "$results/report.md"
