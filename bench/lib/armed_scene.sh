# The scene the armed benchmarks capture, sourced by them: a private X server at 1920x1080 and a
# private audio server with a null sink, a tone playing into it for the whole run (neither side's
# cost), and motion() to (re)start the moving picture (motion --still for a still one). Expects
# $bin; sets DISPLAY, PULSE_SERVER, $display, $work and helpers; everything it starts is stopped
# on exit.

work=$(mktemp -d /tmp/vantrel-armed-XXXXXX)
. bench/lib/measure.sh

# A private X server at 1920x1080 (it picks a free display number itself) and audio server.
exec 3>"$work/display"
Xvfb -displayfd 3 -screen 0 1920x1080x24 -nolisten tcp -noreset >"$work/xvfb.log" 2>&1 &
pids+=($!)
exec 3>&-
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
display=":$(head -1 "$work/display")"
export DISPLAY=$display

HOME=$work XDG_RUNTIME_DIR=$work pulseaudio -n --daemonize=no --exit-idle-time=-1 \
  --disallow-exit --use-pid-file=no \
  --load="module-native-protocol-unix socket=$work/pulse.sock auth-anonymous=1" \
  --load="module-null-sink sink_name=test_null" >"$work/pulse.log" 2>&1 &
pids+=($!)
export PULSE_SERVER=unix:$work/pulse.sock
for _ in $(seq 100); do pactl set-default-sink test_null 2>/dev/null && break; sleep 0.1; done

# The tone plays for the whole benchmark; it is neither side's cost.
ffmpeg -nostdin -v error -re -f lavfi -i "sine=f=1000:r=48000" -ac 2 -f pulse default &
pids+=($!)

motion() {
  [ -n "${motion_pid:-}" ] && kill "$motion_pid" 2>/dev/null && wait "$motion_pid" 2>/dev/null || true
  "$bin/vantrel_motion" "$@" >/dev/null &
  motion_pid=$!
  pids+=($motion_pid)
  sleep 1
}

