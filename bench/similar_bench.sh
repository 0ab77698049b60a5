#!/usr/bin/env bash
# Similar-image benchmark: pair matching on loaded features (10,000 images by histogram,
# 10,000 and 100,000 by hash) and decoding throughput of generated 12-megapixel JPEG,
# DNG and HEIC files.
#   bench/similar_bench.sh
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/install-deps.sh"
build="$root/build-bench"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTWINFOLD_BUILD_GUI=OFF \
  -DTWINFOLD_BUILD_TESTS=OFF -DTWINFOLD_BUILD_BENCH=ON >/dev/null
cmake --build "$build" --target similar_bench >/dev/null
# Keep benchmark runs out of the user's own log and settings.
export XDG_CONFIG_HOME="${BENCH_DIR:-/tmp/twinfold-bench}/config"
exec "$build/bench/similar_bench"
