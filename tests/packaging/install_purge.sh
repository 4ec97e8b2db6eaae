#!/usr/bin/env bash
# Installs both packages with apt on this machine, uses them as a user and an operator would,
# and purges them again: nothing of them may stay behind. It changes the machine (a system user,
# /etc, /var/lib), so it runs only when asked: VANTREL_TEST_INSTALL=1, as root, with neither
# package installed before.
#   tests/packaging/install_purge.sh FOLDER    (packages made before, or a build to make them from)
set -euo pipefail
debs=$1
if [ "${VANTREL_TEST_INSTALL:-}" != 1 ]; then
  echo "skipped: set VANTREL_TEST_INSTALL=1 to install and purge the packages on this machine"
  exit 0
fi
if [ -x "$debs/bin/vantrel" ]; then
  made=$(mktemp -d /tmp/vantrel-install-XXXXXX)
  "$(dirname "$0")/../../scripts/package" --deb --build "$debs" --out "$made" >/dev/null
  debs=$made
fi
fail() { echo "FAIL: $*" >&2; exit 1; }
step() { echo "== $*"; }
for package in vantrel vantrel-service; do
  ! dpkg -s "$package" >/dev/null 2>&1 || fail "$package is installed already; purge it first"
done
export DEBIAN_FRONTEND=noninteractive
pid=""
trap '[ -z "$pid" ] || kill "$pid" 2>/dev/null || true' EXIT

step "apt-get install ./vantrel_*.deb ./vantrel-service_*.deb"
apt-get install -y -q "$(ls "$debs"/vantrel_*_amd64.deb)" "$(ls "$debs"/vantrel-service_*_amd64.deb)" |
  tail -n 3

step "the program runs and knows the package manager owns it"
vantrel --version
QT_QPA_PLATFORM=offscreen vantrel --help | head -n 1
[ -f /usr/share/vantrel/package-managed ] || fail "no package marker beside /usr/bin/vantrel"
ls /usr/share/man/man1/vantrel.1.gz /usr/share/man/man1/vantrel-service.1.gz
grep -qx 'MimeType=x-scheme-handler/vantrel;' /usr/share/applications/vantrel.desktop ||
  fail "the desktop entry does not handle vantrel:// links"

step "the service's user, data folder and unit"
getent passwd vantrel-service
[ "$(stat -c '%a %U' /var/lib/vantrel-service)" = "700 vantrel-service" ] ||
  fail "/var/lib/vantrel-service is $(stat -c '%a %U' /var/lib/vantrel-service)"
if command -v systemd-analyze >/dev/null; then
  # man-db may be missing; the pages were looked for above.
  systemd-analyze verify --man=no /lib/systemd/system/vantrel-service.service
  systemd-analyze security --offline=true /lib/systemd/system/vantrel-service.service | tail -n 1
fi

step "root's commands work on the installed data, as the service's user"
printf 'a fine password\n' | vantrel-service user add op@example.org --name Operator
token=$(vantrel-service token issue op@example.org)
[ -n "$token" ] || fail "no token"
find /var/lib/vantrel-service ! -user vantrel-service | grep . && fail "files not owned by the service"

step "the service starts from its settings as the unit starts it"
if [ -d /run/systemd/system ]; then
  systemctl restart vantrel-service
  systemctl is-active vantrel-service
else
  # No systemd here (a container or chroot): the unit's command, as the unit's user.
  runuser -u vantrel-service -- /usr/bin/vantrel-service serve \
    --settings /etc/vantrel-service/vantrel-service.conf &
  pid=$!
fi
for _ in $(seq 100); do
  status=$(curl -s -o /dev/null -w '%{http_code}' -H "Authorization: Bearer $token" \
    http://127.0.0.1:8443/v1/me || true)
  [ "$status" = 000 ] || break
  sleep 0.1
done
echo "GET /v1/me with the issued token: $status"
[ "$status" = 200 ] || fail "the installed service answered $status"
if [ -n "$pid" ]; then kill "$pid"; wait "$pid" || true; pid=""; fi

step "apt-get purge vantrel vantrel-service"
apt-get purge -y -q vantrel vantrel-service | tail -n 2
left=$(ls -d /usr/bin/vantrel /usr/bin/vantrel-service /etc/vantrel-service /var/lib/vantrel-service \
  /usr/share/vantrel /usr/share/doc/vantrel /usr/share/doc/vantrel-service \
  /lib/systemd/system/vantrel-service.service 2>/dev/null || true)
[ -z "$left" ] || fail "left behind: $left"
! getent passwd vantrel-service || fail "the vantrel-service user is left"
! getent group vantrel-service || fail "the vantrel-service group is left"
echo "PASS: installed, used and purged; nothing left behind"
