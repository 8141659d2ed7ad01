#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and runs every test under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the concurrent suites under ThreadSanitizer.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

"$root/scripts/install-deps.sh"

echo "== format"
mapfile -t sources < <(git ls-files '*.cpp' '*.h' 2>/dev/null || true)
if [[ ${#sources[@]} -gt 0 ]]; then
  clang-format --dry-run --Werror "${sources[@]}"
fi

echo "== build (release: the tool and the benchmarks)"
cmake --preset release >/dev/null
cmake --build --preset release -j "$jobs"

for preset in asan tsan; do
  echo "== build ($preset)"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== test ($preset)"
  ctest --preset "$preset" -j "$jobs"
done
