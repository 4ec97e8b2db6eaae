#!/usr/bin/env bash
# scripts/run --wayland: Vantrel in a private headless Wayland session (the test fixture's sway,
# PipeWire, desktop portal, scrolling terminal and tone). Vantrel opens its window on sway through
# Qt's Wayland plugin, arms through the portal (whose chooser stands for the user), and once the
# replay holds 10 s the clip key is pressed through the desktop's global shortcut. Prints the
# clip's path and a summary and a screenshot of the session, then stops everything it started.
#   scripts/lib/wayland-demo.sh BIN_DIR
set -euo pipefail
cd "$(dirname "$0")/../.."
bin=$1
fixture=tests/fixtures/wayland
work=$(mktemp -d /tmp/vantrel-wayland-demo-XXXXXX)
session=$work/session
vantrel_pid=""
cleanup() {
  [ -n "$vantrel_pid" ] && kill "$vantrel_pid" 2>/dev/null && wait "$vantrel_pid" 2>/dev/null || true
  "$fixture" stop "$session" >/dev/null 2>&1 || true
  rm -rf "$work/session"
}
trap cleanup EXIT

echo "Starting a private headless Wayland session (sway, PipeWire, the desktop portal)."
"$fixture" start "$session" "$(cd "$bin/.." && pwd)/xdg-desktop-portal-wlr" 2>"$work/fixture.log" ||
  { cat "$work/fixture.log" >&2; exit 1; }
eval "$("$fixture" env "$session")"
unset DISPLAY
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_STATE_HOME=$work/home/.local/state
mkdir -p "$XDG_CONFIG_HOME/quillfen"
printf '[General]\nclipLengthSeconds=15\n' >"$XDG_CONFIG_HOME/quillfen/Vantrel.conf"
log=$XDG_STATE_HOME/Vantrel/Vantrel.log
recordings=$("$bin/vantrel" --paths | sed -n 's/^recordings: *//p')

"$bin/vantrel" >"$work/vantrel.out" 2>&1 &
vantrel_pid=$!
for _ in $(seq 300); do grep -q "startCapture ok" "$log" 2>/dev/null && break; sleep 0.1; done
grep -q "startCapture ok" "$log" 2>/dev/null || { echo "Vantrel did not arm:"; tail -n 20 "$log" "$work/vantrel.out"; exit 1; }
grep -E "capture backend|screencast portal|global shortcut|hotkey paths|no system tray" "$work/vantrel.out" "$log" | sed 's/^[^:]*://' | sort -u
echo "Armed. Letting the replay fill for 10 seconds..."
sleep 10.5
grim "$work/screen.png" 2>/dev/null && echo "Screenshot of the session: $work/screen.png"
echo "Pressing the clip key through the desktop's global shortcut."
busctl --user call org.freedesktop.impl.portal.desktop.vantreltest /org/freedesktop/portal/desktop \
  org.vantrel.TestShortcuts Press s save-clip >/dev/null
clip=""
for _ in $(seq 200); do
  clip=$(find "$recordings" -maxdepth 1 -name 'Clip *.mp4' 2>/dev/null | head -n 1)
  [ -n "$clip" ] && break
  sleep 0.1
done
[ -n "$clip" ] || { echo "No clip appeared. The log says:"; tail -n 20 "$log"; exit 1; }
sleep 0.5
echo "Clip saved: $clip"
echo "  $(ffprobe -v error -show_entries format=size,duration \
  -show_entries stream=codec_name,width,height,sample_rate,channels -of compact=p=0 "$clip" | paste -sd ' ')"
echo "(the clip and the screenshot stay in $work)"
