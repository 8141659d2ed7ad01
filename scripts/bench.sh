#!/usr/bin/env bash
# Builds the optimised preset and runs the benchmarks. Arguments go to Google Benchmark.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" release
exec "$root/build/release/bench/veltra_bench" "$@"
