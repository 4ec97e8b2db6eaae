# Helpers the scripted benchmarks share, sourced by them after they set $work (their scratch
# folder): `pids` holds what they start, and on exit those are stopped and $work removed (a
# script may define its own cleanup after sourcing this); ticks, median and field read figures.

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# utime + stime of a process, in clock ticks (the name field may hold blanks).
ticks() { sed 's/.*) //' "/proc/$1/stat" | awk '{print $12 + $13}'; }
median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
# The value of NAME in a line of NAME=value pairs.
field() { tr ' ' '\n' | sed -n "s/^$1=//p"; }
hz=$(getconf CLK_TCK)
