#!/usr/bin/env bash
# Installs what building and testing drover needs (Debian packages), then configures and builds.
# Usage: scripts/setup.sh [build-dir] [extra cmake arguments...]
#        scripts/setup.sh --packages build|checks   only that group of packages
set -euo pipefail
cd "$(dirname "$0")/.."

build_packages=(g++ cmake make pkg-config libssl-dev openssl libmimalloc-dev libgtest-dev
                libgmock-dev libbenchmark-dev python3 clang libclang-rt-14-dev
                # the manual pages and the Debian package
                scdoc dpkg-dev file)
# What the package checks and the logrotate scenario use, late in a test run: scripts/test.sh
# installs them while it builds.
check_packages=(lintian systemd logrotate man-db)

install() {
  local missing=() p
  for p in "$@"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  ((${#missing[@]})) || return 0
  echo "Installing: ${missing[*]}"
  local sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
}

if [ "${1:-}" = "--packages" ]; then
  case "${2:-}" in
    build) install "${build_packages[@]}" ;;
    checks) install "${check_packages[@]}" ;;
    *) echo "usage: scripts/setup.sh --packages build|checks" >&2; exit 2 ;;
  esac
  exit 0
fi
install "${build_packages[@]}" "${check_packages[@]}"

build=${1:-build}
shift || true
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
