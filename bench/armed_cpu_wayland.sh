#!/usr/bin/env bash
# Cost of an armed engine in a Wayland session against GStreamer recording the same PipeWire
# stream (pipewiresrc, x264enc and AAC with the engine's settings) through its own portal session,
# side by side in the headless Wayland fixture with a scrolling terminal and a tone: the CPU of
# each process alone, the frames each encodes per second, and the ratio, as medians of alternating
# runs. The compositor's own cost (sway, the portal backend, PipeWire) is shown beside them. Then,
# for the engine alone, the frames lost while a 30 s clip is saved mid-capture.
#
#   bench/armed_cpu_wayland.sh        (scripts/bench armed_cpu_wayland builds first)
# ARMED_CPU_SECONDS (20) and ARMED_CPU_RUNS (3) shorten it for a trial.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=build/bin
seconds=${ARMED_CPU_SECONDS:-20}
runs=${ARMED_CPU_RUNS:-3}
work=$(mktemp -d /tmp/vantrel-armed-wayland-XXXXXX)
fixture=tests/fixtures/wayland
session=$work/session
peer_pid=""

cleanup() {
  [ -n "$peer_pid" ] && kill "$peer_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  "$fixture" stop "$session" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

ticks() { sed 's/.*) //' "/proc/$1/stat" | awk '{print $12 + $13}'; }
median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
field() { tr ' ' '\n' | sed -n "s/^$1=//p"; }
hz=$(getconf CLK_TCK)

"$fixture" start "$session" "$PWD/build/xdg-desktop-portal-wlr" 2>"$work/fixture.log" ||
  { cat "$work/fixture.log" >&2; exit 1; }
eval "$("$fixture" env "$session")"
unset DISPLAY
compositor_pids=$(for name in sway xdpw pipewire; do cut -d' ' -f1 "$session/pids/$name"; done)
compositor_ticks() { local sum=0 p; for p in $compositor_pids; do sum=$((sum + $(ticks "$p"))); done; echo $sum; }

# The engine; prints its own figures, and the compositor's cost over the same stretch.
engine() {
  local c0 t0 out
  c0=$(compositor_ticks); t0=$(date +%s.%N)
  out=$("$bin/bench_armed_cpu" --seconds "$seconds" --settle 3)
  awk -v out="$out" -v c="$(($(compositor_ticks) - c0))" -v t0="$t0" -v t1="$(date +%s.%N)" -v hz="$hz" \
    'BEGIN {printf "%s compositor=%.2f\n", out, c / hz / (t1 - t0) * 100}'
}

# GStreamer through its own portal session: the same stream, encoder settings and audio.
peer() {
  local log=$work/peer.log
  bench/portal_cast.py gst-launch-1.0 -v pipewiresrc fd={fd} path={node} do-timestamp=true \
    ! videoconvert ! video/x-raw,format=I420 \
    ! x264enc speed-preset=ultrafast tune=zerolatency bitrate=18000 key-int-max=120 bframes=0 threads=2 \
    ! fakesink name=video silent=false sync=false \
    pulsesrc device=vantrel_null.monitor ! audio/x-raw,rate=48000,channels=2 ! audioconvert \
    ! avenc_aac bitrate=192000 ! fakesink >"$log" 2>&1 &
  peer_pid=$!
  sleep 3
  local gst c0 c1 k0 k1 t0 t1 f0 f1
  gst=$(pgrep -P "$peer_pid" gst-launch-1.0 | head -1)
  # Each encoded frame that reaches the sink leaves one line in the verbose log.
  rendered() { grep -c 'video.*chain' "$log" || true; }
  c0=$(ticks "$gst"); k0=$(compositor_ticks); f0=$(rendered); t0=$(date +%s.%N)
  sleep "$seconds"
  c1=$(ticks "$gst"); k1=$(compositor_ticks); f1=$(rendered); t1=$(date +%s.%N)
  kill "$gst" 2>/dev/null; wait "$peer_pid" 2>/dev/null || true; peer_pid=""
  awk -v c="$((c1 - c0))" -v k="$((k1 - k0))" -v f="$((f1 - f0))" -v t0="$t0" -v t1="$t1" -v hz="$hz" \
    'BEGIN {printf "cpu=%.2f encoded=%.2f compositor=%.2f\n", c / hz / (t1 - t0) * 100, f / (t1 - t0), k / hz / (t1 - t0) * 100}'
}

echo "armed_cpu_wayland: sway headless 1920x1080, $runs runs of $seconds s, alternating; load $(cut -d' ' -f1-3 /proc/loadavg)"
: >"$work/engine.txt"; : >"$work/peer.txt"
for run in $(seq "$runs"); do
  if [ $((run % 2)) -eq 1 ]; then
    engine | tee -a "$work/engine.txt"; peer | sed 's/^/gstreamer /' | tee -a "$work/peer.txt"
  else
    peer | sed 's/^/gstreamer /' | tee -a "$work/peer.txt"; engine | tee -a "$work/engine.txt"
  fi
done
ours=$(field cpu <"$work/engine.txt" | median)
ours_fps=$(field encoded <"$work/engine.txt" | median)
ours_comp=$(field compositor <"$work/engine.txt" | median)
theirs=$(field cpu <"$work/peer.txt" | median)
theirs_fps=$(field encoded <"$work/peer.txt" | median)
theirs_comp=$(field compositor <"$work/peer.txt" | median)
ratio=$(awk -v a="$ours" -v b="$theirs" 'BEGIN {printf "%.2f", (b > 0) ? a / b : 99}')
fps_gap=$(awk -v a="$ours_fps" -v b="$theirs_fps" 'BEGIN {printf "%.1f", (b > 0) ? (a - b) / b * 100 : -100}')
printf 'moving screen: engine %.1f %% of a core encoding %.1f frames/s, gstreamer %.1f %% encoding %.1f frames/s, ratio %s, frames %s %%\n' \
  "$ours" "$ours_fps" "$theirs" "$theirs_fps" "$ratio" "$fps_gap"
printf 'compositor (sway + portal backend + pipewire): %.1f %% of a core beside the engine, %.1f %% beside gstreamer\n' \
  "$ours_comp" "$theirs_comp"

saved=$("$bin/bench_armed_cpu" --clip-length 30 --settle 33 --seconds 10 --save)
lost=$(echo "$saved" | field lost)
printf '30 s save mid-capture: took %s s, %s frames lost meanwhile (%s in as long just before)\n' \
  "$(echo "$saved" | field save_s)" "$lost" "$(echo "$saved" | field lost_before)"

pass=$(awk -v r="$ratio" -v g="$fps_gap" -v l="$lost" 'BEGIN {print (r <= 0.8 && g >= -1 && g <= 1 && l == 0) ? "PASS" : "FAIL"}')
printf 'armed_cpu_wayland: ratio %s (%.1f %% vs gstreamer %.1f %%), %.1f vs %.1f frames/s (%s %%), %s lost in a 30 s save, compositor %.1f %% (target ratio <= 0.8, frames within 1 %%, 0 lost) %s\n' \
  "$ratio" "$ours" "$theirs" "$ours_fps" "$theirs_fps" "$fps_gap" "$lost" "$ours_comp" "$pass"
[ "$pass" = PASS ]
