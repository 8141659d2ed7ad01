#!/usr/bin/env bash
# Pictures of the Studio at 1280x800 on a virtual X screen: every wizard page, a release while
# it runs and once the website is live, and the history, all on a demo sandbox.
# Usage: scripts/studio-screenshots.sh [FOLDER] (default: build/screenshots)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=$(realpath -m "${1:-$root/build/screenshots}")
"$root/scripts/build.sh" release >&2
rm -rf "$out"
mkdir -p "$out"
# No notification service on the virtual screen's session; the release does not need one.
QT_QPA_PLATFORM=xcb xvfb-run -a -s "-screen 0 1280x800x24" \
  "$root/build/release/app/veltra-studio" --demo --screenshots "$out"
count=$(find "$out" -name '*.png' | wc -l)
if [[ $count -ne 11 ]]; then
  echo "Expected 11 pictures in $out, found $count." >&2
  exit 1
fi
echo "Saved $count pictures in $out"
