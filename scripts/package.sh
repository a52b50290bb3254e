#!/usr/bin/env bash
# Builds the Debian package of drover with CPack: BUILD_DIR/drover_<version>_<arch>.deb.
# Usage: scripts/package.sh [build-dir]   (default build/package)
# A new build directory is set up without tests; an existing one (build/test, say) is reused and
# only given the /usr prefix that the package's unit and instance runner name.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/package}

if [ -f "$build/CMakeCache.txt" ]; then
  scripts/setup.sh "$build" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
else
  scripts/setup.sh "$build" -DCMAKE_INSTALL_PREFIX=/usr -DDROVER_TESTS=OFF \
    -DDROVER_BENCHMARKS=OFF >/dev/null
fi
# The version text is stamped again on every build; the package version follows it.
cmake --build "$build" --target drover drover-sink drover_dist -j"$(nproc)" >/dev/null

rm -f "$build"/drover_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
package=$(ls "$build"/drover_*.deb)
echo "drover version $("$build/drover" version)"
echo "$package"
