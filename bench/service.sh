#!/usr/bin/env bash
# service: vantrel-service against nginx, both over TLS on 127.0.0.1 with the same certificate,
# serving the same 60 MB clip: download throughput of /files/… (medians of alternating runs, as
# a ratio), 50 concurrent range downloads checked byte for byte, uploads of the 60 MB clip (their
# throughput against the download's, and how far the server's resident memory rises during
# one), and 50 concurrent uploads of a 5 MB clip, none of which may be lost.
#
#   bench/service.sh        (scripts/bench service builds first)
# SERVICE_BENCH_RUNS (5) shortens it for a trial.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=$PWD/build/bin/vantrel-service
runs=${SERVICE_BENCH_RUNS:-5}
work=$(mktemp -d /tmp/vantrel-bench-service-XXXXXX)
chmod 755 "$work"
. bench/lib/measure.sh

. bench/lib/service.sh
rss_kb() { awk '/^VmRSS/ {print $2}' "/proc/$1/status"; }
peak_kb() { awk '/^VmHWM/ {print $2}' "/proc/$1/status"; }
mkdir -p "$work/www"

# The service, its account and the clip uploaded once; nginx serves the same bytes. (The 50
# uploads at once below come from one address, above the per-address default of 32.)
port=$(free_port)
url="https://127.0.0.1:$port"
"$bin" serve --data "$work/data" --listen "127.0.0.1:$port" --public-url "$url" --quiet \
  --connections-per-address 100 \
  --tls-cert "$work/cert.pem" --tls-key "$work/key.pem" >"$work/service.out" 2>"$work/service.err" &
service_pid=$!
pids+=($service_pid)
for _ in $(seq 100); do fetch "$url/v1/ads" >/dev/null 2>&1 && break; sleep 0.1; done
echo "bench password" | "$bin" user add bench@example.org --name Bench --data "$work/data" 2>/dev/null
token=$("$bin" token issue bench@example.org --data "$work/data")
upload() { # FILE TOKEN REPLY -> prints the upload speed in bytes/s
  fetch -H "Authorization: Bearer $2" -F name=bench -F "file=@$1;type=video/mp4" \
    -o "$3" -w '%{speed_upload}\n' "$url/v1/clips"
}
upload "$work/big.mp4" "$token" "$work/first.json" >/dev/null
id=$(sed -n 's/.*"id":"\([a-z0-9]*\)".*/\1/p' "$work/first.json")
cp "$work/big.mp4" "$work/www/clip.mp4"
chmod 644 "$work/www/clip.mp4"

nginx_port=$(free_port)
mkdir -p "$work/nginx"
{
  [ "$(id -u)" -eq 0 ] && echo "user root;"
  cat <<CONF
worker_processes auto;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 512; }
http {
  access_log off;
  sendfile on;
  types { video/mp4 mp4; }
  client_body_temp_path $work/nginx/body;
  proxy_temp_path $work/nginx/proxy;
  fastcgi_temp_path $work/nginx/fastcgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  scgi_temp_path $work/nginx/scgi;
  server {
    listen 127.0.0.1:$nginx_port ssl;
    ssl_certificate $work/cert.pem;
    ssl_certificate_key $work/key.pem;
    root $work/www;
  }
}
CONF
} >"$work/nginx/nginx.conf"
nginx -c "$work/nginx/nginx.conf" -p "$work/nginx" &
pids+=($!)
for _ in $(seq 100); do fetch "https://127.0.0.1:$nginx_port/clip.mp4" -r 0-0 -o /dev/null 2>/dev/null && break; sleep 0.1; done

ours_url="$url/files/$id.mp4"
nginx_url="https://127.0.0.1:$nginx_port/clip.mp4"
[ "$(fetch "$ours_url" | md5sum)" = "$(fetch "$nginx_url" | md5sum)" ] || { echo "service: the two sides serve different bytes"; exit 1; }

echo "service: $(mb "$size") MB clip over TLS on 127.0.0.1, $runs runs alternating; load $(cut -d' ' -f1-3 /proc/loadavg)"
download() { fetch -o /dev/null -w '%{speed_download}\n' "$1"; }
: >"$work/ours.txt"; : >"$work/nginx.txt"
for run in $(seq "$runs"); do
  if [ $((run % 2)) -eq 1 ]; then
    download "$ours_url" >>"$work/ours.txt"; download "$nginx_url" >>"$work/nginx.txt"
  else
    download "$nginx_url" >>"$work/nginx.txt"; download "$ours_url" >>"$work/ours.txt"
  fi
done
ours=$(median <"$work/ours.txt")
theirs=$(median <"$work/nginx.txt")
ratio=$(awk -v a="$ours" -v b="$theirs" 'BEGIN {printf "%.2f", a / b}')
printf 'download: vantrel-service %s MB/s, nginx %s MB/s (medians of %s), ratio %s\n' \
  "$(mb "$ours")" "$(mb "$theirs")" "$runs" "$ratio"

# 50 range downloads at once, each compared with the same bytes of the local file.
mkdir -p "$work/ranges"
start=$(date +%s.%N)
for i in $(seq 50); do
  first=$(( (RANDOM * 32768 + RANDOM) % (size - 2000000) ))
  last=$((first + 1000000 + RANDOM))
  (
    fetch -r "$first-$last" -o "$work/ranges/$i" -w '%{http_code}' "$ours_url" >"$work/ranges/$i.status"
    expected=$(tail -c +$((first + 1)) "$work/big.mp4" | head -c $((last - first + 1)) | md5sum)
    [ "$(cat "$work/ranges/$i.status")" = 206 ] && [ "$(md5sum <"$work/ranges/$i")" = "$expected" ] ||
      echo "$i" >"$work/ranges/$i.error"
  ) &
done
wait_jobs() { for job in $(jobs -p); do case " ${pids[*]} " in *" $job "*) ;; *) wait "$job" || true ;; esac; done; }
wait_jobs
range_errors=$(find "$work/ranges" -name '*.error' | wc -l)
printf '50 concurrent range downloads of about 1 MB: %s errors, %.2f s\n' "$range_errors" \
  "$(echo "$(date +%s.%N) - $start" | bc -l)"

# Uploads of the 60 MB clip; the peak resident memory is reset before each.
: >"$work/upload.txt"; : >"$work/rss.txt"
for run in $(seq "$runs"); do
  before=$(rss_kb "$service_pid")
  echo 5 >"/proc/$service_pid/clear_refs" 2>/dev/null || true
  upload "$work/big.mp4" "$token" "$work/up$run.json" >>"$work/upload.txt"
  echo $(( $(peak_kb "$service_pid") - before )) >>"$work/rss.txt"
done
up=$(median <"$work/upload.txt")
up_ratio=$(awk -v a="$up" -v b="$ours" 'BEGIN {printf "%.2f", a / b}')
rss_growth=$(sort -g "$work/rss.txt" | tail -1 | awk '{printf "%.1f", $1 / 1024}')
printf 'upload of the 60 MB clip: %s MB/s (median of %s), %sx the download; resident memory rose by at most %s MB during one\n' \
  "$(mb "$up")" "$runs" "$up_ratio" "$rss_growth"

# 50 uploads of a 5 MB clip at once, each with a token of its own; every one must come back.
mkdir -p "$work/many"
for i in $(seq 50); do "$bin" token issue bench@example.org --data "$work/data" >"$work/many/$i.token"; done
start=$(date +%s.%N)
for i in $(seq 50); do
  upload "$work/small.mp4" "$(cat "$work/many/$i.token")" "$work/many/$i.json" >/dev/null &
done
wait_jobs
elapsed=$(echo "$(date +%s.%N) - $start" | bc -l)
small_md5=$(md5sum <"$work/small.mp4")
lost=0
ids=()
for i in $(seq 50); do
  one=$(sed -n 's/.*"id":"\([a-z0-9]*\)".*/\1/p' "$work/many/$i.json" 2>/dev/null || true)
  if [ -z "$one" ] || [ "$(fetch "$url/files/$one.mp4" | md5sum)" != "$small_md5" ]; then
    lost=$((lost + 1))
  else
    ids+=("$one")
  fi
done
distinct=$(printf '%s\n' "${ids[@]}" | sort -u | wc -l)
lost=$((lost + ${#ids[@]} - distinct))
printf '50 concurrent uploads of a 5 MB clip: %s lost, %.2f s for all\n' "$lost" "$elapsed"

pass=$(awk -v r="$ratio" -v e="$range_errors" -v u="$up_ratio" -v m="$rss_growth" -v l="$lost" \
  'BEGIN {print (r >= 0.8 && e == 0 && u >= 0.8 && m < 32 && l == 0) ? "PASS" : "FAIL"}')
printf 'service: download %sx nginx, %s range errors, upload %sx the download, +%s MB resident, %s of 50 uploads lost (target >= 0.8x, 0 errors, >= 0.8x, < 32 MB, 0 lost) %s\n' \
  "$ratio" "$range_errors" "$up_ratio" "$rss_growth" "$lost" "$pass"
[ "$pass" = PASS ]
