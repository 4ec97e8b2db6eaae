#!/usr/bin/env bash
# Where an armed engine's CPU goes: the engine captures the moving 1920x1080 scene of armed_cpu
# under `perf record` (call graphs), and the report lists the cost by library and by function,
# so the part above the encoder's own (libx264) can be read off. Needs perf (Debian: linux-perf).
#
#   bench/armed_profile.sh [--still]      (scripts/bench armed_profile builds first)
# ARMED_PROFILE_SECONDS (15) sets the stretch; the report stays in $ARMED_PROFILE_OUT when set.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=build/bin
seconds=${ARMED_PROFILE_SECONDS:-15}
if ! command -v perf >/dev/null; then
  echo "armed_profile: perf is not installed (apt-get install linux-perf)" >&2
  exit 1
fi
. bench/lib/armed_scene.sh

motion "$@"
VANTREL_ENCODER=libx264 perf record -q -g -o "$work/perf.data" \
  "$bin/bench_armed_cpu" --seconds "$seconds" 2>/dev/null
report() { perf report -i "$work/perf.data" --no-children -g none --percent-limit "$2" --stdio --sort "$1" 2>/dev/null | grep -v '^#' | grep -v '^$' | sed -n "1,$3p"; }
echo "armed_profile: share of the engine's samples by library"
report dso 0.5 20
echo "armed_profile: by function (above 0.7 %)"
perf report -i "$work/perf.data" --no-children -g none --percent-limit 0.7 --stdio \
  --sort dso,sym 2>/dev/null | grep -v '^#' | grep -v '^$' | head -40
[ -n "${ARMED_PROFILE_OUT:-}" ] && cp "$work/perf.data" "$ARMED_PROFILE_OUT"
exit 0
