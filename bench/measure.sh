#!/usr/bin/env bash
# Measures `rulenlu parse` per query and at start-up on the benchmark workloads, beside the
# nlp.js peer, in one run on one machine, and prints a Markdown table.
#
#   bench/measure.sh [--build DIR] [--repeat N] [--workload shared|many-rules|all]
#                    [--peer PATH] [--seconds S] [--peer-seconds S] [--no-peer] [--no-p99]
#
# - Per-query cost: (time over the queries repeated N times - time over an empty query list)
#   / (N x count), through `rulenlu parse --quiet --config CONFIG < queries > /dev/null`; the
#   median of 3 runs. Without --repeat, N is chosen so that each run takes about S/3 seconds
#   (S = --seconds, default 15), at least 1.
# - Start-up: the median of 5 runs over an empty query list (load, build, exit).
# - Peak RSS: the maximum resident set of one run over the queries (GNU time if installed,
#   else getrusage through python3).
# - p99: each query written to the tool's stdin and its answer line read back, one at a time
#   (the tool flushes every answer), by a small python3 driver; the round trip includes the
#   pipes and the driver, whose own floor (the same driver against `cat`) is printed below the
#   table. Skipped without python3 or with --no-p99.
# - nlp.js: the shared peer runner (default ../shared/bench/peer_nlpjs.js from the repository
#   root), installed with npm into ${XDG_CACHE_HOME:-$HOME/.cache}/rulenlu-bench/peer when
#   missing; it extracts the vocabularies and regex vocabularies only, so it runs on the shared
#   workload only. Skipped, with a message, when node or npm is not available.
#
# Progress goes to stderr; the table and its notes to stdout. Compare ratios from one run.
set -euo pipefail

usage() { sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; }

here=$(pwd)
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
abspath() { case "$1" in /*) printf '%s\n' "$1" ;; *) printf '%s\n' "$here/$1" ;; esac; }

build="$root/build"
repeat=""
workload=all
peer="$root/../shared/bench/peer_nlpjs.js"
seconds=15
peer_seconds=5
use_peer=1
use_p99=1

while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$(abspath "${2:?--build needs a directory}"); shift 2 ;;
    --repeat) repeat=${2:?--repeat needs a number}; shift 2 ;;
    --workload) workload=${2:?--workload needs a name}; shift 2 ;;
    --peer) peer=$(abspath "${2:?--peer needs a path}"); shift 2 ;;
    --seconds) seconds=${2:?--seconds needs a number}; shift 2 ;;
    --peer-seconds) peer_seconds=${2:?--peer-seconds needs a number}; shift 2 ;;
    --no-peer) use_peer=0; shift ;;
    --no-p99) use_p99=0; shift ;;
    -h|--help) usage; exit 0 ;;
    *) echo "measure.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done

case "$workload" in
  shared) workloads=(shared) ;;
  many-rules) workloads=(many-rules) ;;
  all) workloads=(shared many-rules) ;;
  *) echo "measure.sh: --workload is shared, many-rules or all" >&2; exit 2 ;;
esac
if [ -n "$repeat" ] && ! [[ "$repeat" =~ ^[1-9][0-9]*$ ]]; then
  echo "measure.sh: --repeat needs a positive integer" >&2; exit 2
fi

tool="$build/rulenlu"
if [ ! -x "$tool" ]; then
  echo "measure.sh: $tool not found; build it first:" >&2
  echo "  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo && cmake --build build -j2 --target rulenlu_cli" >&2
  exit 1
fi
have() { command -v "$1" >/dev/null 2>&1; }
say() { printf '%s\n' "$*" >&2; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
: > "$tmp/empty"

# Elapsed wall time of one run of the tool, in µs, into $elapsed_us. $EPOCHREALTIME needs no
# fork, so nothing but the tool is timed.
run_tool() {  # CONFIG INPUT
  local t0 t1 status=0
  t0=${EPOCHREALTIME/[.,]/}
  "$tool" parse --quiet --config "$1" < "$2" > /dev/null || status=$?
  t1=${EPOCHREALTIME/[.,]/}
  if [ "$status" -ne 0 ]; then
    say "measure.sh: rulenlu parse failed with status $status on $1"
    exit 1
  fi
  elapsed_us=$((t1 - t0))
}

median() { printf '%s\n' "$@" | sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

# Peak resident set of one run, in kB, into $rss_kb (empty when it cannot be measured).
peak_rss() {  # CONFIG INPUT
  rss_kb=""
  if [ -x /usr/bin/time ] && /usr/bin/time -v true >/dev/null 2>&1; then
    /usr/bin/time -v -o "$tmp/time.txt" "$tool" parse --quiet --config "$1" < "$2" > /dev/null
    rss_kb=$(awk -F: '/Maximum resident set size/ {gsub(/ /, "", $2); print $2}' "$tmp/time.txt")
  elif have python3; then
    rss_kb=$(python3 - "$tool" "$1" "$2" <<'EOF'
import resource, subprocess, sys
with open(sys.argv[3], "rb") as q:
    subprocess.run([sys.argv[1], "parse", "--quiet", "--config", sys.argv[2]], stdin=q,
                   stdout=subprocess.DEVNULL, check=True)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)  # kB on Linux
EOF
    )
  fi
}

# One query at a time through the pipes: prints "p50 p99 count" in µs.
ping_pong() {  # QUERIES MIN_SECONDS COMMAND...
  python3 - "$@" <<'EOF'
import io, subprocess, sys, time
queries_path, min_seconds, command = sys.argv[1], float(sys.argv[2]), sys.argv[3:]
with open(queries_path, "rb") as f:
    lines = f.read().split(b"\n")
if lines and lines[-1] == b"":
    lines.pop()
proc = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
out = io.BufferedReader(proc.stdout)  # whole lines, not a read per byte
def ask(line):
    proc.stdin.write(line + b"\n")
    if not out.readline():
        sys.exit("no answer from " + command[0])
for line in lines[:200]:  # warm-up
    ask(line)
lat = []
start = time.perf_counter()
while True:
    for line in lines:
        a = time.perf_counter_ns()
        ask(line)
        lat.append(time.perf_counter_ns() - a)
    if time.perf_counter() - start >= min_seconds:
        break
proc.stdin.close()
proc.wait()
lat.sort()
pick = lambda p: lat[min(len(lat) - 1, max(0, -(-len(lat) * p // 100) - 1))] / 1000
print(f"{pick(50):.1f} {pick(99):.1f} {len(lat)}")
EOF
}

# The nlp.js peer: sets peer_cmd (empty when unavailable) and says why not.
peer_cmd=()
peer_dir="${XDG_CACHE_HOME:-$HOME/.cache}/rulenlu-bench/peer"
setup_peer() {
  [ "$use_peer" -eq 1 ] || { say "nlp.js peer: skipped (--no-peer)"; return; }
  if [ ! -f "$peer" ]; then say "nlp.js peer: skipped, $peer not found (see --peer)"; return; fi
  if ! have node; then say "nlp.js peer: skipped, node is not installed"; return; fi
  if [ ! -f "$peer_dir/node_modules/@nlpjs/ner/package.json" ] ||
     [ ! -f "$peer_dir/node_modules/@nlpjs/core/package.json" ]; then
    if ! have npm; then say "nlp.js peer: skipped, npm is not installed"; return; fi
    say "nlp.js peer: installing @nlpjs/ner@4.27.0 @nlpjs/core@4.26.1 into $peer_dir"
    mkdir -p "$peer_dir"
    if ! npm install --silent --no-audit --no-fund --prefix "$peer_dir" \
         @nlpjs/ner@4.27.0 @nlpjs/core@4.26.1 >&2; then
      say "nlp.js peer: skipped, npm install failed"; return
    fi
  fi
  peer_cmd=(env "NLPJS_PREFIX=$peer_dir" "NODE_PATH=$peer_dir/node_modules" node "$peer")
}

setup_peer
if [ "$use_p99" -eq 1 ] && ! have python3; then
  say "p99: skipped, python3 is not installed"; use_p99=0
fi

rows=()
notes=()
for w in "${workloads[@]}"; do
  case "$w" in
    shared) config="$root/bench/workload/config.json"; queries="$root/bench/workload/queries.txt" ;;
    many-rules) config="$root/bench/many_rules/config.json"; queries="$root/bench/many_rules/queries.txt" ;;
  esac
  # Every line is a query, the empty ones too (the tool answers each); count a last line
  # without its "\n" as well.
  count=$(awk 'END {print NR}' "$queries")
  say "== $w: $count queries, $(du -k "$config" | cut -f1) kB configuration"

  starts=()
  for _ in 1 2 3 4 5; do run_tool "$config" "$tmp/empty"; starts+=("$elapsed_us"); done
  startup_us=$(median "${starts[@]}")
  say "start-up: runs ${starts[*]} µs, median $startup_us µs"

  # A pass is estimated over five, and never as less than a quarter of the start-up: on a busy
  # machine one pass minus the start-up can come out near zero, which would ask for millions.
  : > "$tmp/five"
  for _ in 1 2 3 4 5; do cat "$queries" >> "$tmp/five"; done
  run_tool "$config" "$tmp/five"
  once_us=$(((elapsed_us - startup_us) / 5))
  floor_us=$((startup_us / 4 > 0 ? startup_us / 4 : 1))
  [ "$once_us" -ge "$floor_us" ] || once_us=$floor_us
  if [ -n "$repeat" ]; then
    n=$repeat
  else
    n=$(awk -v s="$seconds" -v t="$once_us" 'BEGIN {n = int(s * 1e6 / 3 / t + 0.5); print (n < 1 ? 1 : n)}')
  fi
  say "five passes: $elapsed_us µs; timing 3 runs of $n pass(es)"
  rm -f "$tmp/repeated"
  for ((i = 0; i < n; i++)); do cat "$queries" >> "$tmp/repeated"; done
  runs=()
  for _ in 1 2 3; do run_tool "$config" "$tmp/repeated"; runs+=("$elapsed_us"); done
  total_us=$(median "${runs[@]}")
  per_query=$(awk -v t="$total_us" -v s="$startup_us" -v n="$n" -v c="$count" \
    'BEGIN {printf "%.1f", (t - s) / (n * c)}')
  say "runs ${runs[*]} µs, median $total_us µs -> $per_query µs/query"

  peak_rss "$config" "$queries"
  rss_mb="—"
  [ -n "$rss_kb" ] && rss_mb=$(awk -v k="$rss_kb" 'BEGIN {printf "%.1f", k / 1024}')
  peak_rss "$config" "$tmp/empty"
  [ -n "$rss_kb" ] && notes+=("$w: peak RSS at start-up alone (empty list) $(awk -v k="$rss_kb" 'BEGIN {printf "%.1f", k / 1024}') MB.")

  p99="—"
  if [ "$use_p99" -eq 1 ]; then
    say "p99: answering the queries one at a time through the pipes"
    read -r p50 p99 done_queries < <(ping_pong "$queries" 3 "$tool" parse --quiet --config "$config")
    notes+=("$w: one query at a time through the pipes: p50 $p50 µs, p99 $p99 µs over $done_queries queries.")
  fi

  peer_us="—"
  ratio="—"
  if [ "$w" = shared ] && [ ${#peer_cmd[@]} -gt 0 ]; then
    say "nlp.js peer: running for ${peer_seconds} s"
    if summary=$("${peer_cmd[@]}" --config "$config" --queries "$queries" --bulk \
                   --seconds "$peer_seconds" --json); then
      read -r peer_us peer_p99 peer_load peer_first < <(node -e '
        const s = JSON.parse(require("fs").readFileSync(0, "utf8"));
        console.log(s.meanUs.toFixed(1), s.p99Us.toFixed(1), (s.parseMs + s.loadMs).toFixed(1),
                    s.firstQueryMs.toFixed(1));' <<< "$summary")
      ratio="$(awk -v a="$per_query" -v b="$peer_us" 'BEGIN {printf "%.2f", a / b}')×"
      notes+=("$w: nlp.js ($(node -e 'console.log(JSON.parse(process.argv[1]).peer)' "$summary"), node $(node --version), --bulk) in process: mean $peer_us µs, p99 $peer_p99 µs; loading $peer_load ms plus $peer_first ms on the first query.")
    else
      say "nlp.js peer: failed on $w"
    fi
  fi
  rows+=("| $w | $per_query | $peer_us | $ratio | $(awk -v u="$startup_us" 'BEGIN {printf "%.1f", u / 1000}') | $rss_mb | $p99 |")
  spread() { printf '%s\n' "$@" | sort -n | awk '{v[NR] = $1} END {printf "%.3f–%.3f s", v[1] / 1e6, v[NR] / 1e6}'; }
  notes+=("$w: $count queries × $n pass(es), median of 3 runs ($(spread "${runs[@]}")); start-up median of 5 runs ($(spread "${starts[@]}")).")
done

if [ "$use_p99" -eq 1 ]; then
  read -r floor50 floor99 _ < <(ping_pong "$root/bench/workload/queries.txt" 1 cat)
  notes+=("Round-trip floor of the p99 driver (the same driver against \`cat\`): p50 $floor50 µs, p99 $floor99 µs.")
fi

cpu=$(awk -F': ' '/^model name/ {print $2; exit}' /proc/cpuinfo 2>/dev/null || true)
echo "| workload | rulenlu µs/query | nlp.js µs/query | ratio | start-up ms | peak RSS MB | p99 µs (pipe) |"
echo "|---|---:|---:|---:|---:|---:|---:|"
printf '%s\n' "${rows[@]}"
echo
echo "ratio = rulenlu / nlp.js (below 1: rulenlu is faster). rulenlu is timed through the"
echo "command-line tool (reading stdin, writing one JSON line per query); nlp.js"
echo "in process (vocabularies and regex vocabularies only: it has nothing like the intent rules)."
echo "Peak RSS: one run over the queries, start-up included. $(date -u +%Y-%m-%d), ${cpu:-unknown CPU}, $(nproc) CPUs, load average at the end $(cut -d' ' -f1-3 /proc/loadavg 2>/dev/null || echo unknown)."
echo
for note in "${notes[@]}"; do echo "- $note"; done
