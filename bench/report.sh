#!/usr/bin/env bash
# Turns the raw tables of bench/run.sh into the Markdown tables of the report and
# the data file of the plot.
#
#   bench/report.sh RESULTS_DIR STRIPPED_BINARY_BYTES > report.md
set -euo pipefail
results=$1
binarySize=$2

# Median of a column over the rows that match a key; ratios are taken pair by pair.
awk -F'\t' -v binarySize="$binarySize" -v results="$results" '
function median(list,   n, v, i, j, t) {
  n = split(list, v, " ")
  for (i = 2; i <= n; i++) { t = v[i]; for (j = i - 1; j >= 1 && v[j] + 0 > t + 0; j--) v[j + 1] = v[j]; v[j + 1] = t }
  if (n == 0) return "nan"
  return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
}
function add(arr, k, x) { arr[k] = (k in arr) ? arr[k] " " x : x }
function ms(us) { return sprintf(us >= 100000 ? "%.0f" : "%.1f", us / 1000) }
function kib(b) { return b >= 10240 ? sprintf("%.0f KiB", b / 1024) : sprintf("%d B", b) }
function lowest(list,   n, v, i, m) { n = split(list, v, " "); m = v[1]; for (i = 2; i <= n; i++) if (v[i] + 0 < m + 0) m = v[i]; return m }
function highest(list,   n, v, i, m) { n = split(list, v, " "); m = v[1]; for (i = 2; i <= n; i++) if (v[i] + 0 > m + 0) m = v[i]; return m }
function verdict(ok) { return ok ? "met" : "missed" }
# The second run of mode all against the floor; the spread of the pair ratios says how noisy they were.
function figureTime(size,   k, r) {
  k = size SUBSEP "all"
  if (!(k in keys)) return
  r = median(r2[k])
  printf "| second run of `all` on `%s` against reading its files once | %s ms against %s ms: %.2f× (pairs %.2f× to %.2f×) | at most 2× | %s |\n",
    size, ms(median(t2[k])), ms(median(f2[k])), r, lowest(r2[k]), highest(r2[k]), verdict(r <= 2)
}
# The larger of the two runs; start-up is what the usage-line run holds, the rest is the work.
function figureRss(size, targetMib,   k, a, b, peak) {
  k = size SUBSEP "all"
  if (!(k in keys)) return
  a = median(m1[k]); b = median(m2[k]); peak = a > b ? a : b
  printf "| peak RSS of mode `all` on `%s` | %.1f MiB (first run %.1f, second %.1f; start-up %.1f, the work %.1f) | at most %d MiB | %s |\n",
    size, peak / 1024, a / 1024, b / 1024, startRss / 1024, (peak - startRss) / 1024, targetMib, verdict(peak <= targetMib * 1024)
}
FNR == 1 { file = FILENAME; sub(/.*\//, "", file); next }
file == "runs.tsv" {
  k = $1 SUBSEP $2; keys[k] = 1
  add(t1, k, $4); add(t2, k, $6); add(f1, k, $8); add(f2, k, $9)
  add(r1, k, $4 / $8); add(r2, k, $6 / $9)
  if ($5 > rss1[k]) rss1[k] = $5
  if ($7 > rss2[k]) rss2[k] = $7
  if (!(k in order)) { order[k] = ++nkeys; byorder[nkeys] = k }
  add(m1, k, $5); add(m2, k, $7)
}
file == "startup.tsv" { add(su, "tool", $2); add(su, "yard", $4); add(su, "diff", $2 - $4); add(su, "rss", $3); add(su, "yrss", $5) }
file == "observed.tsv" { k = $1 SUBSEP $2 SUBSEP $3; ob[k] = $4; of[k] = $5; ore[k] = $6; oun[k] = $7; fb[k] = $8; ff[k] = $9 }
file == "peer.tsv" { add(pp, $1, $3); add(pt, $1, $4); add(pr, $1, $3 / $4); if (!($1 in pseen)) { pseen[$1] = 1; porder[++np] = $1 } }
file == "scaling.tsv" { add(st, $1, $3); add(sf, $1, $4); if (!($1 in sseen)) { sseen[$1] = 1; sorder[++ns] = $1 } }
file == "instructions.tsv" { ir[$1] = $2 }
file == "worst.tsv" { if ($3 + 0 > worstRss) { worstRss = $3; worstWhat = $1 ", mode `" $2 "`" } }
END {
  startRss = median(su["rss"])
  print "### The ordinary boot: figures and targets\n"
  print "| figure | measured (medians) | target | verdict |"
  print "|---|---|---|---|"
  figureTime("typical"); figureTime("large")
  if ("diff" in su) {
    d = median(su["diff"])
    printf "| a run with nothing to do (the usage line) against a C program that prints one line | %s ms against %s ms: %+.1f ms (pairs %+.1f to %+.1f ms); RSS %.1f against %.1f MiB | within 1 ms | %s |\n",
      ms(median(su["tool"])), ms(median(su["yard"])), d / 1000, lowest(su["diff"]) / 1000, highest(su["diff"]) / 1000,
      startRss / 1024, median(su["yrss"]) / 1024, verdict(d <= 1000)
  }
  figureRss("typical", 3); figureRss("large", 8)
  if (worstRss)
    printf "| peak RSS of the worst image (every file under `/config` filled to its limit) | %.1f MiB (%s) | at most 32 MiB | %s |\n",
      worstRss / 1024, worstWhat, verdict(worstRss <= 32 * 1024)
  print ""
  print "### Sizes and modes: the first run (an upgrade)\n"
  print "| size | mode | cfgupgrade ms | floor ms | ratio | peak RSS | written | fsyncs | files replaced / removed | floor writes | floor fsyncs |"
  print "|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
  for (i = 1; i <= nkeys; i++) {
    k = byorder[i]; split(k, p, SUBSEP); o = k SUBSEP "first"
    printf "| %s | %s | %s | %s | %.2f | %.1f MiB | %s | %d | %d / %d | %s | %d |\n", p[1], p[2], ms(median(t1[k])), ms(median(f1[k])),
      median(r1[k]), rss1[k] / 1024, kib(ob[o]), of[o], ore[o], oun[o], kib(fb[o]), ff[o]
  }
  print "\n### Sizes and modes: the second run on the result (an ordinary boot)\n"
  print "| size | mode | cfgupgrade ms | floor ms | ratio | peak RSS | written | fsyncs | files replaced / removed |"
  print "|---|---|---:|---:|---:|---:|---:|---:|---:|"
  for (i = 1; i <= nkeys; i++) {
    k = byorder[i]; split(k, p, SUBSEP); o = k SUBSEP "second"
    printf "| %s | %s | %s | %s | %.2f | %.1f MiB | %s | %d | %d / %d |\n", p[1], p[2], ms(median(t2[k])), ms(median(f2[k])),
      median(r2[k]), rss2[k] / 1024, kib(ob[o]), of[o], ore[o], oun[o]
  }
  if (np > 0) print "\n### The scripted peer (the rule file through crudini) against cfgupgrade in mode dev, first run\n"
  if (np > 0) print "| image | runs | peer s | cfgupgrade ms | peer / cfgupgrade |\n|---|---:|---:|---:|---:|"
  for (i = 1; i <= np; i++) {
    k = porder[i]
    printf "| %s | %d | %.1f | %s | %.0f |\n", k, split(pp[k], dummy, " "), median(pp[k]) / 1e6, ms(median(pt[k])), median(pr[k])
    peerMedian[k] = median(pp[k])
  }
  if (ns > 0) {
    print "\n### Scaling with the rule count (typical image, mode dev, first run)\n"
    print "| rules | cfgupgrade ms | floor ms | peer s | cfgupgrade µs per rule added | instructions | instructions per rule added |"
    print "|---:|---:|---:|---:|---:|---:|---:|"
  }
  prev = ""
  for (i = 1; i <= ns; i++) {
    n = sorder[i]; tm = median(st[n]); fm = median(sf[n])
    per = "-"; iper = "-"
    if (prev != "") {
      per = sprintf("%.2f", (tm - prevT) / (n - prev))
      if (ir[n] != "" && ir[prev] != "") iper = sprintf("%.0f", (ir[n] - ir[prev]) / (n - prev))
    }
    peer = ("rules" n in peerMedian) ? sprintf("%.1f", peerMedian["rules" n] / 1e6) : "-"
    printf "| %d | %s | %s | %s | %s | %s | %s |\n", n, ms(tm), ms(fm), peer, per, ir[n], iper
    if (n > 0) printf "%d %.3f %.3f %s\n", n, tm / 1000, fm / 1000, peer == "-" ? "NaN" : peer * 1000 > (results "/scaling.dat")
    prev = n; prevT = tm
  }
  # The typical image gives the peer a 300-rule point; the times of the tool and the floor at
  # 300 rules come from another part of the run, so they stay off the curve.
  if ("typical" in peerMedian) printf "300 NaN NaN %.3f\n", peerMedian["typical"] / 1000 > (results "/scaling.dat")
  printf "\nStripped binary: %d bytes (%.0f KiB).\n", binarySize, binarySize / 1024
}
' "$results/runs.tsv" "$results/observed.tsv" "$results/startup.tsv" "$results/peer.tsv" "$results/scaling.tsv" \
  "$results/instructions.tsv" "$results/worst.tsv"

for f in "$results"/profile-*.txt; do
  [ -e "$f" ] || continue
  size=${f##*/profile-}; size=${size%.txt}
  printf '\n### Where the instructions of an ordinary boot go: mode all, %s image\n\n' "$size"
  printf 'Callgrind, the top functions by their own count:\n\n```\n'
  cat "$f"
  printf '```\n'
done
