#!/usr/bin/env python3
"""Fails when the Homebrew formula or the GitHub Actions example misses a package CMake requires.

Usage: check_dependencies.py SOURCE_DIR

Reads every find_package(... REQUIRED) and pkg_check_modules(... REQUIRED ...) of the build, maps
each to the Homebrew formula that provides it (or to macOS itself), and compares with the
formula's depends_on lines and the example workflow's `brew install` command. Both must name
every formula the build needs, and nothing the build does not use.
"""
import pathlib
import re
import sys

# CMake package or pkg-config module -> Homebrew formula; None: macOS provides it.
FORMULA = {
    "Threads": None, "ZLIB": None, "BZip2": None, "Iconv": None, "PkgConfig": "pkgconf",
    "fmt": "fmt", "CLI11": "cli11", "nlohmann_json": "nlohmann-json", "OpenSSL": "openssl@3",
    "EXPAT": "expat", "CURL": "curl", "Qt6": "qt", "libplist-2.0": "libplist",
    "libsodium": "libsodium", "pangocairo": "pango", "cairo": "cairo", "libisofs-1": "libisofs",
    "libutf8proc": "utf8proc", "LibLZMA": "xz", "cpp-httplib": "cpp-httplib", "httplib": "cpp-httplib",
}
# What builds it rather than what it links.
TOOLS = {"cmake", "ninja"}


def required(source):
    found = set()
    files = [source / "CMakeLists.txt"] + [source / d / "CMakeLists.txt"
                                            for d in ("core", "cli", "dsstore", "app")]
    for path in files:
        text = re.sub(r"#[^\n]*", "", path.read_text())
        for name, rest in re.findall(r"find_package\((\w+)([^)]*)\)", text):
            if "REQUIRED" in rest or "CONFIG QUIET" in rest:
                found.add(name)
        for rest in re.findall(r"pkg_check_modules\(\w+ ([^)]*)\)", text):
            found.update(w for w in rest.split() if w not in ("REQUIRED", "IMPORTED_TARGET"))
    return found


def main():
    source = pathlib.Path(sys.argv[1])
    problems = []
    wanted = set()
    for name in sorted(required(source)):
        if name not in FORMULA:
            problems.append(f"CMake requires {name}, which this check cannot map to a formula")
        elif FORMULA[name]:
            wanted.add(FORMULA[name])
    formula = (source / "packaging/homebrew/veltra.rb").read_text()
    listed = set(re.findall(r'depends_on "([^"]+)"', formula)) - TOOLS
    workflow = (source / "examples/github-actions/release.yml").read_text()
    match = re.search(r"brew install ((?:[^\n\\]|\\\n)+)", workflow)
    installed = set(match.group(1).replace("\\\n", " ").split()) - TOOLS if match else set()
    for where, names in (("packaging/homebrew/veltra.rb", listed),
                         ("examples/github-actions/release.yml", installed)):
        for missing in sorted(wanted - names):
            problems.append(f"{where} lacks {missing}, which the build requires")
        for extra in sorted(names - wanted):
            problems.append(f"{where} names {extra}, which the build does not use")
    for problem in problems:
        print(problem)
    print(f"{len(wanted)} formulas required; {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
