#!/usr/bin/env bash
# Runs every fuzz target over its seed corpus for the given number of seconds each (default 20).
# New inputs go to a scratch folder; the seed corpus in fuzz/corpus is only read.
# Targets: fuzz_ini (corpus/ini), fuzz_pathname (corpus/pathname), fuzz_xmlparser (corpus/xmlparser),
# fuzz_stringtables (corpus/stringtables).
#   fuzz/run_fuzzers.sh [SECONDS] [BUILD_DIR]
set -euo pipefail
seconds=${1:-20}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${2:-$root/build/fuzz}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="$root/fuzz/corpus/${name#fuzz_}"
  mkdir -p "$scratch/$name"
  echo "== $name: $seconds s over $corpus"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            -artifact_prefix="$scratch/$name-" "$scratch/$name" "$corpus" 2>&1 | tail -12
done
