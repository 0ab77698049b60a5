#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Idempotent: does nothing when every package is already installed.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config clang-format
  qt6-base-dev qt6-base-dev-tools libqt6charts6-dev libqt6opengl6-dev libqt6svg6-dev
  qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
  libopencv-dev libopencv-contrib-dev
  libraw-dev libheif-dev libxxhash-dev libspdlog-dev libfmt-dev
  xvfb xauth trash-cli
)
if [ "${1:-}" = "--bench" ]; then
  packages+=(jdupes rdfind fdupes rmlint time)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
# A fresh machine has no package lists yet; refresh them when they are missing or stale.
if [ -z "$(find /var/lib/apt/lists -maxdepth 1 -name '*Packages*' -mmin -1440 2>/dev/null | head -n 1)" ]; then
  $sudo apt-get update -qq
fi
if ! $sudo apt-get install -y -qq "${missing[@]}"; then
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq "${missing[@]}"
fi
