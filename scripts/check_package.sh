#!/usr/bin/env bash
# Checks the operator's side of drover: the Debian package (contents, version, lintian), its
# manual pages, the systemd unit (systemd-analyze verify), and the unit's command line run by
# hand, from the unpacked package, against a drover-sink under the signals systemd sends.
# CI has no running init system, hence the unit is checked statically and its command directly.
# Usage: scripts/check_package.sh [build-dir]   (default build/package)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/package}

fail() {
  echo "check_package: $*" >&2
  exit 1
}

package=$(scripts/package.sh "$build" | tail -n 1)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$package" "$root"
dpkg-deb -e "$package" "$root/DEBIAN"
echo "== $package"

# What an operator installs: programs, manual pages, the unit with its runner, the examples.
contents=$(dpkg-deb --contents "$package")
for path in usr/bin/drover usr/bin/drover-sink usr/share/man/man1/drover.1.gz \
            usr/share/man/man1/drover-sink.1.gz \
            usr/libexec/drover/drover-instance etc/drover/example.conf \
            usr/share/doc/drover/examples/example.conf \
            usr/share/doc/drover/examples/logrotate.conf usr/share/doc/drover/copyright \
            usr/share/doc/drover/changelog.gz; do
  grep -q "/$path\$" <<<"$contents" || fail "$path is not in the package"
done
# Where systemd looks for packaged units, not under /usr/local.
grep -Eq " \./(usr/)?lib/systemd/system/drover@\.service\$" <<<"$contents" ||
  fail "drover@.service is not in the system unit directory"
grep -qx /etc/drover/example.conf "$root/DEBIAN/conffiles" || fail "example.conf is no conffile"

# The package version is the binaries' own version text, in Debian's form.
info=$(dpkg-deb --info "$package")
IFS=- read -r year month day revision tree <<<"$("$root/usr/bin/drover" version)"
version="0.$year$month$day+git.$revision.$tree"
grep -qx " Version: $version" <<<"$info" || fail "package version is not $version"
grep -q "^ Depends:.*libssl3" <<<"$info" || fail "dpkg-shlibdeps found no libssl dependency"
grep -E "^ (Version|Depends):" <<<"$info"

echo "== lintian"
# Errors and unexplained warnings fail; the package's overrides say why the rest stays.
status=0
findings=$(lintian --fail-on error,warning --display-info "$package" 2>&1) || status=$?
grep -v "^running with root privileges" <<<"$findings" || true
[ "$status" -eq 0 ] || fail "lintian reports errors or warnings"

echo "== manual pages"
for page in drover drover-sink; do
  warnings=$(man --warnings -l "$root/usr/share/man/man1/$page.1.gz" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "man $page: $warnings"
  text=$(MANWIDTH=80 man -l "$root/usr/share/man/man1/$page.1.gz" 2>/dev/null)
  for section in SYNOPSIS "EXIT STATUS" EXAMPLES; do
    grep -q "^$section" <<<"$text" || fail "$page(1) has no $section"
  done
  echo "$page(1): $(wc -l <<<"$text") lines, no warnings"
done

echo "== systemd unit"
unit=$(find "$root" -path "*/systemd/system/drover@.service")
# The verifier resolves the unit's targets in the same root, so it gets the host's own units.
unit_dir=$(dirname "$unit")
for host_dir in /lib/systemd/system /usr/lib/systemd/system; do
  [ -d "$host_dir" ] && cp -an "$host_dir/." "$unit_dir/"
done
# It reports unknown settings and bad values without failing, so any word from it fails here.
report=$(systemd-analyze verify --man=no --root="$root" drover@check.service 2>&1) ||
  fail "systemd-analyze verify: $report"
[ -z "$report" ] || fail "systemd-analyze verify: $report"
echo "systemd-analyze verify drover@check.service: clean"
# The two settings the agent's behaviour depends on: SIGINT is its orderly end, and a failure
# (status 1 at a refused start, an abort) is worth a restart.
grep -qx KillSignal=SIGINT "$unit" || fail "the unit does not stop the agent with SIGINT"
grep -qx Restart=on-failure "$unit" || fail "the unit does not restart the agent on failure"
# A full-speed agent logs about 6,000 lines a second; none of them may be dropped by journald.
burst=$(sed -n 's/^LogRateLimitBurst=//p' "$unit")
grep -qx LogRateLimitIntervalSec=30s "$unit" && ((${burst:-0} >= 180000)) ||
  fail "the journal's rate limit would drop the lines of an agent at full speed"
systemd-analyze security --offline=yes --root="$root" drover@check.service 2>/dev/null |
  grep "Overall exposure" || true

echo "== the unit's command by hand"
python3 tests/reliability/run.py --short --drover "$root/usr/bin/drover" \
  --sink "$root/usr/bin/drover-sink" --instance-runner "$root/usr/libexec/drover/drover-instance" \
  --work-dir "$build/check-service" service | tail -n 4
