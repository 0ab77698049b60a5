#!/usr/bin/env bash
# Scan benchmark: times twinfold-cli against the duplicate finders Debian packages
# and a bare walk, on a generated corpus with a hot page cache, and reports peak memory.
#   bench/scan_bench.sh [--files N] [--runs N]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
files=100000
runs=3
while [ $# -gt 0 ]; do
  case "$1" in
    --files) files="$2"; shift 2 ;;
    --runs) runs="$2"; shift 2 ;;
    *) echo "usage: $0 [--files N] [--runs N]" >&2; exit 2 ;;
  esac
done

"$root/scripts/install-deps.sh" --bench
build="$root/build-bench"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTWINFOLD_BUILD_GUI=OFF -DTWINFOLD_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target twinfold-cli >/dev/null
cli="$build/cli/twinfold-cli"

work="${BENCH_DIR:-/tmp/twinfold-bench}"
corpus="$work/corpus-$files"
if [ ! -f "$corpus/.complete" ]; then
  rm -rf "$corpus"
  echo "generating $files files in $corpus ..." >&2
  python3 "$root/bench/make_corpus.py" "$corpus" --files "$files"
  touch "$corpus/.complete"
fi
mkdir -p "$work/empty"
prefs="$work/preferences.cfg"
: > "$prefs"
# Keep benchmark runs out of the user's own log and settings.
export XDG_CONFIG_HOME="$work/config"
cd "$work"

# Best of $runs wall-clock seconds and the peak resident set (KiB) of that run.
measure() {
  local name="$1"; shift
  "$@" >/dev/null 2>&1 || true   # warm the page cache
  local best="" mem=""
  for _ in $(seq "$runs"); do
    /usr/bin/time -o "$work/time.out" -f '%e %M' "$@" >/dev/null 2>&1 || true
    local out t m
    out=$(tail -n 1 "$work/time.out")
    t="${out% *}" m="${out#* }"
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN{exit !(a<b)}'; then best="$t"; mem="$m"; fi
  done
  printf '%s\t%s\t%s\n' "$name" "$best" "$mem"
}

results="$work/results.tsv"
{
  measure "find -type f" find "$corpus" -type f
  # For reference: a walk that also reads every size (as any duplicate finder must), and
  # our own walk with every file filtered out by size, so nothing is opened.
  measure "find -printf %s" find "$corpus" -type f -printf '%s\n'
  measure "twinfold walk only" "$cli" scan -q --no-similar --preferences "$prefs" --min-size 100000000 "$corpus"
  measure "twinfold content" "$cli" scan -q --no-similar --preferences "$prefs" --method content "$corpus"
  measure "twinfold sampled" "$cli" scan -q --no-similar --preferences "$prefs" --method sampled "$corpus"
  measure "twinfold empty" "$cli" scan -q --no-similar --preferences "$prefs" --method sampled "$work/empty"
  measure "jdupes -r" jdupes -r -q "$corpus"
  measure "rdfind" rdfind -dryrun true -outputname "$work/rdfind.txt" "$corpus"
  measure "fdupes -r" fdupes -r -q "$corpus"
  measure "rmlint" rmlint -T df -o fdupes:/dev/null "$corpus"
} > "$results"

awk -F'\t' -v files="$files" '
  { t[$1] = $2; m[$1] = $3; order[NR] = $1 }
  END {
    printf "%-20s %10s %12s\n", "command", "seconds", "peak KiB"
    for (i = 1; i <= NR; i++) printf "%-20s %10.2f %12d\n", order[i], t[order[i]], m[order[i]]
    fastest = t["jdupes -r"]
    split("rdfind,fdupes -r,rmlint", peers, ",")
    for (p in peers) if (t[peers[p]] < fastest) fastest = t[peers[p]]
    printf "\ncontent / fastest peer: %.2f (target <= 0.5)\n", t["twinfold content"] / fastest
    printf "sampled / bare walk:    %.2f (target <= 2.5)\n", t["twinfold sampled"] / t["find -type f"]
    printf "sampled / sized walk:   %.2f (find reading sizes; for reference)\n", t["twinfold sampled"] / t["find -printf %s"]
    printf "memory above empty scan: %.0f bytes per file (target <= 300)\n", (m["twinfold sampled"] - m["twinfold empty"]) * 1024 / files
  }' "$results"
