#!/usr/bin/env bash
# Installs what building and testing drover needs (Debian packages), then configures and builds.
# Usage: scripts/setup.sh [build-dir] [extra cmake arguments...]
#        scripts/setup.sh --packages-only
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(g++ cmake make pkg-config libssl-dev openssl libmimalloc-dev libgtest-dev libgmock-dev
          libbenchmark-dev python3 clang libclang-rt-14-dev
          # manual pages, the Debian package and its checks, the logrotate scenario
          scdoc dpkg-dev file lintian systemd logrotate man-db)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi

[ "${1:-}" = "--packages-only" ] && exit 0
build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
