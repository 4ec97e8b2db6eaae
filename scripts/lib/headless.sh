# Sourced by scripts/run, scripts/soak and bench/save_latency.sh: a private X server and audio
# server with a moving picture and a tone, and a Vantrel of our own to drive with the clip key.
# Everything started here is stopped by headless_stop (installed as an EXIT trap).

headless_pids=()
headless_dir=""

headless_stop() {
  local i
  # Newest first, so nothing outlives the servers it talks to.
  for ((i = ${#headless_pids[@]} - 1; i >= 0; i--)); do kill "${headless_pids[i]}" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ -n "$headless_dir" ] && rm -rf "$headless_dir"
}

# headless_start BIN_DIR: exports DISPLAY and PULSE_SERVER, starts the picture and the tone.
headless_start() {
  local bin=$1 display=90
  headless_dir=$(mktemp -d /tmp/vantrel-headless-XXXXXX)
  trap headless_stop EXIT
  if [ -z "${XDG_RUNTIME_DIR:-}" ]; then
    export XDG_RUNTIME_DIR="$headless_dir/run"
    mkdir -m 700 "$XDG_RUNTIME_DIR"
  fi
  while [ -e "/tmp/.X11-unix/X$display" ] || [ -e "/tmp/.X$display-lock" ]; do display=$((display + 1)); done
  export DISPLAY=:$display
  Xvfb "$DISPLAY" -screen 0 1920x1080x24 -nolisten tcp -noreset >"$headless_dir/xvfb.log" 2>&1 &
  headless_pids+=($!)
  for _ in $(seq 100); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done

  export PULSE_SERVER="unix:$headless_dir/pulse.sock"
  HOME="$headless_dir" XDG_RUNTIME_DIR="$headless_dir" pulseaudio -n --daemonize=no \
    --exit-idle-time=-1 --disallow-exit --use-pid-file=no \
    --load="module-native-protocol-unix socket=$headless_dir/pulse.sock auth-anonymous=1" \
    --load="module-null-sink sink_name=vantrel_demo" >"$headless_dir/pulse.log" 2>&1 &
  headless_pids+=($!)
  for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
  pactl set-default-sink vantrel_demo
  pactl set-default-source vantrel_demo.monitor

  "$bin/vantrel_motion" >/dev/null 2>&1 &
  headless_pids+=($!)
  ffmpeg -v error -f lavfi -i "sine=f=440:r=48000:d=30" -ac 2 "$headless_dir/tone.wav"
  (while true; do paplay "$headless_dir/tone.wav" 2>/dev/null || exit 0; done) &
  headless_pids+=($!)
}

# headless_vantrel BIN_DIR [ARGS]: starts Vantrel in the background (no windows), sets
# vantrel_pid, vantrel_log, vantrel_recordings and log_mark (lines of the log before it).
headless_vantrel() {
  local bin=$1; shift
  vantrel_log=$("$bin/vantrel" --paths | sed -n 's/^log: *//p')
  vantrel_recordings=$("$bin/vantrel" --paths | sed -n 's/^recordings: *//p')
  mkdir -p "$(dirname "$vantrel_log")" "$vantrel_recordings"
  touch "$vantrel_log"
  log_mark=$(wc -l <"$vantrel_log")
  QT_QPA_PLATFORM=${QT_QPA_PLATFORM:-offscreen} "$bin/vantrel" "$@" >"$headless_dir/vantrel.out" 2>&1 &
  vantrel_pid=$!
  headless_pids+=($vantrel_pid)
}

# The log since Vantrel started.
vantrel_log_since() { tail -n +"$((log_mark + 1))" "$vantrel_log"; }

# headless_wait_armed SECONDS: waits for the capture to start.
headless_wait_armed() {
  local tries=$(($1 * 10))
  for _ in $(seq "$tries"); do
    vantrel_log_since | grep -q "startCapture ok" && return 0
    kill -0 "$vantrel_pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "Vantrel did not arm. Its log:" >&2
  vantrel_log_since | tail -n 20 >&2
  cat "$headless_dir/vantrel.out" >&2
  return 1
}
