#!/usr/bin/env bash
# The two Debian packages made from a build: their control fields and contents, their man pages,
# lintian (no error; the warnings are printed) and the service's unit (systemd-analyze).
#   tests/packaging/debs.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/../.."
build=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/vantrel-debs-XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
expect_line() { # TEXT PATTERN WHAT
  grep -qE -- "$2" <<<"$1" || fail "$3 (no line matching $2)"
}
# expect_files DEB "MODE OWNER PATH"...: each file is in the package as given.
expect_files() {
  local deb=$1 contents entry
  shift
  contents=$(dpkg-deb --contents "$deb" | awk '{ print $1, $2, $6 }')
  for entry in "$@"; do
    grep -qxF -- "$entry" <<<"$contents" || fail "$(basename "$deb") lacks $entry"
  done
}
# expect_words PAGE WHAT WORD...: the man page names every word.
expect_words() {
  local page=$1 what=$2 word
  shift 2
  for word in "$@"; do expect_line "$page" "$word" "$what names $word"; done
}

DEBS_COMPRESSION=gzip scripts/package --deb --build "$build" --out "$work" >"$work/made"
version=$(QT_QPA_PLATFORM=offscreen "$build/bin/vantrel" --version | awk '{ print $2 }')
program=$work/vantrel_${version}_amd64.deb
service=$work/vantrel-service_${version}_amd64.deb
[ "$(cat "$work/made")" = "$program"$'\n'"$service" ] || fail "scripts/package printed $(cat "$work/made")"

info=$(dpkg-deb --field "$program")
expect_line "$info" '^Package: vantrel$' "the program's name"
expect_line "$info" "^Version: $version\$" "the program's version"
expect_line "$info" '^Architecture: amd64$' "the program's architecture"
# From the binary, not from a list kept by hand.
for library in 'libqt6core6 \(>= [0-9.]+\)' libavformat59 libxcb-shm0 libpulse0; do
  expect_line "$info" "^Depends: .*$library" "the program's libraries"
done
expect_line "$info" '^Recommends: .*qt6-qpa-plugins' "Qt's platform plugins, loaded at run time"
expect_files "$program" '-rwxr-xr-x root/root ./usr/bin/vantrel' \
  '-rw-r--r-- root/root ./usr/share/applications/vantrel.desktop' \
  '-rw-r--r-- root/root ./usr/share/icons/hicolor/scalable/apps/vantrel.svg' \
  '-rw-r--r-- root/root ./usr/share/man/man1/vantrel.1.gz' \
  '-rw-r--r-- root/root ./usr/share/doc/vantrel/copyright' \
  '-rw-r--r-- root/root ./usr/share/vantrel/package-managed'
dpkg-deb -x "$program" "$work/program"
expect_line "$(cat "$work/program/usr/share/applications/vantrel.desktop")" \
  '^MimeType=x-scheme-handler/vantrel;$' "the vantrel:// handler"
# The man page is the program's own --help: every link and option in it.
expect_words "$(zcat "$work/program/usr/share/man/man1/vantrel.1.gz")" "vantrel(1)" \
  'vantrel://clip' 'vantrel://auth' '\\-\\-install' '\\-\\-paths' VANTREL_SERVICE_URL

info=$(dpkg-deb --field "$service")
expect_line "$info" '^Package: vantrel-service$' "the service's name"
for library in 'passwd, ' libsqlite3-0 libsodium23 libcpp-httplib; do
  expect_line "$info" "^Depends: .*$library" "the service's libraries"
done
expect_line "$(dpkg-deb --ctrl-tarfile "$service" | tar -xO ./conffiles)" \
  '^/etc/vantrel-service/vantrel-service.conf$' "the settings file is a conffile"
expect_files "$service" '-rwxr-xr-x root/root ./usr/bin/vantrel-service' \
  '-rw-r--r-- root/root ./lib/systemd/system/vantrel-service.service' \
  '-rw-r--r-- root/root ./etc/vantrel-service/vantrel-service.conf' \
  '-rw-r--r-- root/root ./usr/share/man/man1/vantrel-service.1.gz'
dpkg-deb -x "$service" "$work/service"
expect_words "$(zcat "$work/service/usr/share/man/man1/vantrel-service.1.gz")" \
  "vantrel-service(1)" 'user add' 'token issue' 'token revoke' 'release add' 'clip delete' \
  'ads set' '\\-\\-settings' '\\-\\-trusted\\-proxy' '\\-\\-poster\\-memory'
# The shipped settings are ones the service starts with.
settings=$work/service/etc/vantrel-service/vantrel-service.conf
sed "s|^data = .*|data = $work/data|; s|^listen = .*|listen = 127.0.0.1:0|" "$settings" >"$work/check.conf"
"$build/bin/vantrel-service" serve --settings "$work/check.conf" >"$work/serve.out" 2>&1 &
serve=$!
for _ in $(seq 300); do grep -q "listening on" "$work/serve.out" && break; sleep 0.1; done
kill "$serve" 2>/dev/null || true
wait "$serve" || true
grep -q "listening on http://127.0.0.1:" "$work/serve.out" ||
  fail "the shipped settings do not start the service: $(cat "$work/serve.out")"

# The unit, pointed at this build's binary (systemd-analyze checks that it can be run).
unit=$work/vantrel-service.service
sed "s|/usr/bin/vantrel-service|$build/bin/vantrel-service|" \
  "$work/service/lib/systemd/system/vantrel-service.service" >"$unit"
systemd-analyze verify --man=no "$unit" || fail "systemd-analyze verify refuses the unit"
exposure=$(systemd-analyze security --offline=true "$unit" | sed -n 's/.*exposure level.*: \([0-9.]*\).*/\1/p')
echo "systemd-analyze security: $exposure"
awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.0) }' ||
  fail "the unit's exposure is $exposure, above 2.0"

lintian --fail-on none "$program" "$service" >"$work/lintian.txt" 2>&1 || true
cat "$work/lintian.txt"
if grep -q '^E:' "$work/lintian.txt"; then fail "lintian has errors"; fi

[ "$failures" -eq 0 ] || exit 1
echo "PASS"
