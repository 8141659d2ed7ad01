#!/usr/bin/env bash
# Installs what building and testing Veltra needs, from Debian's packages.
# Safe to run again: it installs only what is missing and is quiet when nothing is.
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache git pkg-config python3 python3-yaml
  clang-19 libclang-rt-19-dev clang-format libc++-19-dev libc++abi-19-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libfmt-dev libcli11-dev nlohmann-json3-dev
  libssl-dev libsodium-dev libcurl4-openssl-dev libexpat1-dev
  libplist-dev libutf8proc-dev libcairo2-dev libpango1.0-dev libcpp-httplib-dev
  fonts-dejavu-core fonts-wqy-microhei
  llvm-19
  qt6-base-dev qt6-base-dev-tools qt6-qpa-plugins libgl-dev
  xvfb xauth dbus-daemon
  bash-completion fish zsh zlib1g-dev
  libisofs-dev libbz2-dev liblzma-dev dmg2img p7zip-full
)

if [[ "$(uname -s)" == "Darwin" ]]; then
  echo "On macOS, install the dependencies with Homebrew:"
  echo "  brew install cmake ninja googletest google-benchmark fmt cli11 nlohmann-json openssl@3 libsodium curl expat libplist utf8proc cairo pango cpp-httplib libisofs xz llvm qt"
  exit 0
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}"
sudo=()
[[ $(id -u) -ne 0 ]] && sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
