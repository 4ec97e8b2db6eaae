#!/usr/bin/env bash
# upload: a 60 MB and a 600 MB clip uploaded to vantrel-service over TLS on 127.0.0.1 by the
# program's own client (bench_upload) and by curl -F, side by side: alternating runs, medians,
# the time as a ratio, and how far the program's resident memory rises during an upload.
# Targets: time ratio at most 1.1; resident memory up by less than 32 MB.
#
#   bench/upload.sh        (scripts/bench upload builds first)
# UPLOAD_BENCH_RUNS (5) shortens it for a trial.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=$PWD/build/bin/vantrel-service
driver=$PWD/build/bin/bench_upload
runs=${UPLOAD_BENCH_RUNS:-5}
work=$(mktemp -d /tmp/vantrel-bench-upload-XXXXXX)
service_pid=
cleanup() {
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null && wait "$service_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "$work/key.pem" \
  -out "$work/cert.pem" -days 1 -subj /CN=localhost \
  -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" 2>/dev/null

# Real MP4s (the service checks what it is sent): 60 MB of noisy 720p, and ten of it end to end.
ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=1280x720:rate=30,noise=alls=30:allf=t" \
  -f lavfi -i sine=f=440 -t 60 -fs 60000000 -c:v libx264 -preset ultrafast -qp 16 \
  -pix_fmt yuv420p -c:a aac -shortest "$work/clip60.mp4"
for _ in $(seq 10); do echo "file '$work/clip60.mp4'"; done >"$work/list.txt"
ffmpeg -nostdin -v error -y -f concat -safe 0 -i "$work/list.txt" -c copy "$work/clip600.mp4"

port=$(free_port)
url="https://127.0.0.1:$port"
"$bin" serve --data "$work/data" --listen "127.0.0.1:$port" --public-url "$url" --quiet \
  --tls-cert "$work/cert.pem" --tls-key "$work/key.pem" >"$work/service.out" 2>&1 &
service_pid=$!
for _ in $(seq 100); do curl -sf --cacert "$work/cert.pem" "$url/v1/ads" >/dev/null 2>&1 && break; sleep 0.1; done
echo "bench password" | "$bin" user add bench@example.org --name Bench --data "$work/data" >/dev/null
token=$("$bin" token issue bench@example.org --data "$work/data")

program_upload() { # FILE -> "seconds rss_growth_mb"
  VANTREL_SERVICE_URL=$url VANTREL_SERVICE_CA=$work/cert.pem VANTREL_BENCH_TOKEN=$token \
    "$driver" "$1" | sed -n 's/^seconds=\([0-9.]*\) rss_growth_mb=\([-0-9.]*\).*/\1 \2/p'
}
curl_upload() { # FILE -> seconds
  curl -sS --fail -o /dev/null -w '%{time_total}\n' --cacert "$work/cert.pem" \
    -H "Authorization: Bearer $token" -F "name=$(basename "$1" .mp4)" \
    -F "file=@$1;type=video/mp4" "$url/v1/clips"
}
# The service keeps every upload; the clips stored so far go, so 600 MB runs do not fill the disk.
forget_uploads() { find "$work/data" -type f -size +1M -name '*.mp4' -delete 2>/dev/null || true; }

pass=1
summary=""
worst_rss=0
for size in 60 600; do
  file=$work/clip$size.mp4
  bytes=$(stat -c %s "$file")
  : >"$work/program.txt"; : >"$work/curl.txt"; : >"$work/rss.txt"
  for run in $(seq "$runs"); do
    # Alternate which side goes first.
    for side in $( ((run % 2)) && echo "program curl" || echo "curl program"); do
      if [ "$side" = program ]; then
        read -r seconds rss < <(program_upload "$file")
        echo "$seconds" >>"$work/program.txt"; echo "$rss" >>"$work/rss.txt"
      else
        curl_upload "$file" >>"$work/curl.txt"
      fi
      forget_uploads
    done
  done
  program=$(median <"$work/program.txt")
  peer=$(median <"$work/curl.txt")
  rss=$(sort -g "$work/rss.txt" | tail -1)
  ratio=$(awk -v a="$program" -v b="$peer" 'BEGIN {printf "%.3f", a / b}')
  echo "clip $(awk -v b="$bytes" 'BEGIN {printf "%.1f", b / 1e6}') MB, $runs runs each:" \
    "program $program s (median; runs $(paste -sd' ' "$work/program.txt")), curl -F $peer s" \
    "(runs $(paste -sd' ' "$work/curl.txt")), ratio $ratio;" \
    "program RSS growth max $rss MB (runs $(paste -sd' ' "$work/rss.txt"))"
  awk -v r="$ratio" 'BEGIN {exit !(r <= 1.1)}' || pass=0
  awk -v m="$rss" 'BEGIN {exit !(m < 32)}' || pass=0
  worst_rss=$(printf '%s\n%s\n' "$worst_rss" "$rss" | sort -g | tail -1)
  summary+="${size} MB ratio $ratio, "
done
echo "load: $(uptime)"
echo "upload: ${summary}RSS growth max $worst_rss MB (target ratio <= 1.1, RSS growth < 32 MB)" \
  "$( ((pass)) && echo PASS || echo FAIL)"
exit $((1 - pass))
