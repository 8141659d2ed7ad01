# Shared by the Apple tool stand-ins (sourced, not run). Each stand-in prints what the real tool
# prints, on the same stream and with the same exit status, and is steered by VELTRA_FAKE_*
# variables; every run is recorded, one argument per line after the tool's name, in
# $VELTRA_TOOL_LOG when that is set.

record() {
    if [ -n "$VELTRA_TOOL_LOG" ]; then
        { echo "$tool"; for argument in "$@"; do echo "$argument"; done; } >>"$VELTRA_TOOL_LOG"
    fi
    # What anyone on the machine could read of this run while it lasts: its command line and
    # the environment it was started with, as /proc shows them.
    if [ -n "$VELTRA_TOOL_PROC_LOG" ] && [ -r "/proc/$$/cmdline" ]; then
        {
            echo "== $tool $$"
            tr '\0' '\n' <"/proc/$$/cmdline"
            echo "-- environment"
            tr '\0' '\n' <"/proc/$$/environ"
        } >>"$VELTRA_TOOL_PROC_LOG"
    fi
}

# Sleeps for $1 seconds when it is set and not zero.
pause() {
    if [ -n "$1" ] && [ "$1" != "0" ]; then
        sleep "$1"
    fi
}

# LLVM's lipo under the name this system gives it.
lipo_tool() {
    for candidate in llvm-lipo-19 llvm-lipo-14 llvm-lipo /usr/bin/lipo; do
        if command -v "$candidate" >/dev/null 2>&1; then
            echo "$candidate"
            return
        fi
    done
    echo llvm-lipo-19
}

# A clang that can target macOS (any version writes Mach-O objects).
cross_compiler() {
    for candidate in clang-19 clang; do
        if command -v "$candidate" >/dev/null 2>&1; then
            echo "$candidate"
            return
        fi
    done
    echo clang-19
}

# Real Mach-O files, built once per user and reused: thin arm64 and universal x86_64 + arm64.
macho_cache() {
    cache="${TMPDIR:-/tmp}/veltra-fake-macho-$(id -u)"
    if [ ! -f "$cache/universal" ]; then
        work=$(mktemp -d) || return 1
        echo 'int main(void) { return 0; }' >"$work/main.c"
        compiler=$(cross_compiler)
        "$compiler" -target arm64-apple-macos11 -c "$work/main.c" -o "$work/arm64" &&
            "$compiler" -target x86_64-apple-macos11 -c "$work/main.c" -o "$work/x86_64" &&
            "$(lipo_tool)" -create "$work/x86_64" "$work/arm64" -output "$work/universal" &&
            mkdir -p "$cache" &&
            mv "$work/arm64" "$cache/arm64.$$" && mv "$cache/arm64.$$" "$cache/arm64" &&
            mv "$work/universal" "$cache/universal.$$" && mv "$cache/universal.$$" "$cache/universal"
        rm -rf "$work"
    fi
    echo "$cache"
}

# Counts a call named $1; succeeds while at most $2 such calls were made (a passing failure that
# clears after $2 tries). Without $2, always. Counts live in $VELTRA_FAKE_COUNTERS (a folder).
within_first() {
    [ -z "$2" ] && return 0
    counters="${VELTRA_FAKE_COUNTERS:-${TMPDIR:-/tmp}/veltra-fake-counters-$(id -u)}"
    mkdir -p "$counters"
    echo x >>"$counters/$1"
    [ "$(wc -l <"$counters/$1")" -le "$2" ]
}
