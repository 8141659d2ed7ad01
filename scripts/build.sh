#!/usr/bin/env bash
# Installs what is missing, then configures and builds one preset (default: release).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
preset=${1:-release}
"$root/scripts/install-deps.sh"
cd "$root"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
