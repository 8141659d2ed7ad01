#!/usr/bin/env bash
# Installs what is missing, then configures and builds one preset (default: release).
# Quiet when everything is up to date; the compiler's output is shown when the build fails.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
preset=${1:-release}
"$root/scripts/install-deps.sh"
cd "$root"
if [[ ! -f "build/$preset/build.ninja" ]]; then
  echo "Configuring and building the $preset preset (first time only)..."
  cmake --preset "$preset" >/dev/null
fi
if ! log=$(cmake --build --preset "$preset" 2>&1); then
  printf '%s\n' "$log"
  exit 1
fi
