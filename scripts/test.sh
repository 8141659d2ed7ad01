#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and runs every test under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the concurrent suites under ThreadSanitizer.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

"$root/scripts/install-deps.sh"

# Compiled objects are reused across clones and build folders: the cache lives outside the
# clone, and paths below the clone are hashed relative to it.
if command -v ccache >/dev/null 2>&1; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache
  export CCACHE_BASEDIR="$root" CCACHE_NOHASHDIR=1 CCACHE_MAXSIZE=${CCACHE_MAXSIZE:-8G}
fi

echo "== format"
mapfile -t sources < <(git ls-files '*.cpp' '*.h' 2>/dev/null || true)
if [[ ${#sources[@]} -gt 0 ]]; then
  clang-format --dry-run --Werror "${sources[@]}"
fi

echo "== build (release: the tool and the benchmarks, g++ -O3)"
cmake --preset release >/dev/null
cmake --build --preset release -j "$jobs"

# A user's or a packager's build: no preset, no -Werror, installed to a prefix and run from
# there. The release preset above is the g++ one; this one is clang's.
check_install() {
  local build=$1 prefix
  prefix=$(mktemp -d)
  cmake --install "$build" --prefix "$prefix" >/dev/null
  "$prefix/bin/veltra" --version
  test -x "$prefix/share/veltra/tools/xcodebuild"
  # The manual and the shell completions, where man and the shells look.
  test -s "$prefix/share/man/man1/veltra.1" && test -s "$prefix/share/man/man1/veltra-release.1"
  test -s "$prefix/share/bash-completion/completions/veltra"
  test -s "$prefix/share/zsh/site-functions/_veltra"
  test -s "$prefix/share/fish/vendor_completions.d/veltra.fish"
  if [[ ${2:-} == demo ]]; then
    # The main job, from the installed tool: it finds its sample and stand-ins beside itself.
    if ! "$prefix/bin/veltra" demo >"$prefix/demo.log" 2>&1 ||
      ! grep -q "stand-ins from $prefix/share/veltra/tools" "$prefix/demo.log" ||
      ! grep -q "^Success: Live appcast.xml and DMG verified$" "$prefix/demo.log"; then
      cat "$prefix/demo.log"
      echo "The installed demo did not reach a live release." >&2
      exit 1
    fi
    echo "demo: live release from $prefix"
    # The same release started in the Studio, on a real (virtual) X screen.
    QT_QPA_PLATFORM=offscreen "$prefix/bin/veltra-studio" --version
    if ! QT_QPA_PLATFORM=xcb xvfb-run -a -s "-screen 0 1280x800x24" \
      "$prefix/bin/veltra-studio" --demo --screenshots "$prefix/shots" >"$prefix/studio.log" 2>&1 ||
      [[ $(find "$prefix/shots" -name '*.png' | wc -l) -ne 11 ]]; then
      cat "$prefix/studio.log"
      echo "The installed Studio did not take a release of the demo to a live website." >&2
      exit 1
    fi
    echo "studio: live release from $prefix"
  fi
  rm -rf "$prefix"
}
echo "== install (release) and the demo from there"
check_install build/release demo
echo "== standard build (clang, Release) and install"
cmake -S . -B build/standard-clang -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER=clang++-19 -DVELTRA_TESTS=OFF -DVELTRA_BENCH=OFF >/dev/null
cmake --build build/standard-clang -j "$jobs"
check_install build/standard-clang

# Apple's toolchain has libc++, not libstdc++: core, the command line and their tests built and
# run with clang 19 and Debian's libc++ (the suites that need the demo's web server excepted).
echo "== build and test (clang 19 with libc++)"
cmake --preset libcxx >/dev/null
cmake --build --preset libcxx -j "$jobs"
ctest --preset libcxx -j "$jobs"

for preset in asan tsan; do
  echo "== build ($preset)"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== test ($preset)"
  ctest --preset "$preset" -j "$jobs"
done

# A short run of each fuzzer from its seed corpus: enough to catch a parser that crashes on
# the first odd input. Longer runs are for developers (see the README).
echo "== fuzz (smoke)"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$jobs"
for fuzzer in build/fuzz/fuzz/fuzz_*; do
  name=$(basename "$fuzzer")
  corpus="fuzz/corpus/${name#fuzz_}"
  corpus="${corpus%_*}"
  work=$(mktemp -d)
  "$fuzzer" "$work" "$corpus" -max_total_time="${VELTRA_FUZZ_SECONDS:-15}" -print_final_stats=0 2>&1 | tail -n 2
  rm -rf "$work"
done
