#!/usr/bin/env bash
# From the click to the new copy answering: an installed copy of the release build updating
# itself from vantrel-service on 127.0.0.1 (HTTPS), against the same steps done by the shell
# (curl, openssl, tar, mv, rm, then the same new copy started), side by side, alternating, medians.
#
#   bench/update.sh        (scripts/bench update builds first)
# UPDATE_RUNS (5) sets the runs per side; UPDATE_SERVICE names another vantrel-service program.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=$PWD/build/bin
service=${UPDATE_SERVICE:-$bin/vantrel-service}
if [ ! -x "$service" ]; then
  echo "bench/update.sh: no vantrel-service at $service (set UPDATE_SERVICE)" >&2
  echo "update: no service (target ratio <= 1.2) FAIL"
  exit 1
fi
work=$(mktemp -d /tmp/vantrel-bench-update-XXXXXX)
trap 'rm -rf "$work"' EXIT

# One binary packaged twice: the installed copy reports 1.1.3 and the release offered is 1.2.0.
for version in 1.1.3 1.2.0; do
  scripts/package --build build --out "$work/releases" --version "$version" \
    --sign build/release-key/private.pem >/dev/null
done
ls -l "$work/releases" | awk 'NR > 1 { print "archive:", $NF, $5, "bytes" }'
echo "load: $(uptime)"
"$bin/bench_update" "$work" "$service" "${UPDATE_RUNS:-5}"
