#!/usr/bin/env bash
# service_scale: vantrel-service on PostgreSQL and S3 (a private PostgreSQL 15 and Ceph's RADOS
# Gateway, started as the tests start them) against the same service on SQLite and disk, all
# over TLS on 127.0.0.1:
#   - download and upload of a 60 MB clip (medians of alternating runs, as ratios);
#   - a mixed load (1 MB range downloads, clip pages, 5 MB uploads) from several clients at once,
#     through nginx passing connections on, to one process on the shared stores and then to two:
#     errors, and the two processes' throughput against the one's.
# Also prints where an upload's and a download's time goes on the shared stores.
#
#   bench/service_scale.sh        (scripts/bench service_scale builds first)
# SERVICE_BENCH_RUNS (5) and SCALE_BENCH_ROUNDS (3) shorten it for a trial.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=$PWD/build/bin/vantrel-service
runs=${SERVICE_BENCH_RUNS:-5}
rounds=${SCALE_BENCH_ROUNDS:-3}
work=$(mktemp -d /tmp/vantrel-bench-scale-XXXXXX)
chmod 755 "$work"
. bench/lib/measure.sh
cleanup_stores() {
  tests/fixtures/s3 stop "$work" >/dev/null 2>&1 || true
  tests/fixtures/postgres stop "$work" >/dev/null 2>&1 || true
  cleanup
}
trap cleanup_stores EXIT

ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }

# Ports in a block of 50 of their own (the S3 server takes 40).
base=$(( (RANDOM % 300) * 50 + 20000 ))
pg_port=$base s3_port=$((base + 5))
tests/fixtures/postgres start "$work" "$pg_port"
tests/fixtures/s3 start "$work" "$s3_port"
set -a; . "$work/s3/env"; set +a
psql -q -h 127.0.0.1 -p "$pg_port" -U vantrel -d postgres -c "CREATE DATABASE bench" >/dev/null
curl -s -o /dev/null --aws-sigv4 "aws:amz:$AWS_REGION:s3" --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
  -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" -X PUT "$S3_ENDPOINT/bench"
shared=(--database "postgresql://vantrel@127.0.0.1:$pg_port/bench" --files s3://bench/clips
  --s3-endpoint "$S3_ENDPOINT")

. bench/lib/service.sh

# serve NAME PORT OPTIONS...: a service process, waited for.
serve() {
  local name=$1 port=$2; shift 2
  "$bin" serve --data "$work/$name" --listen "127.0.0.1:$port" --public-url "https://127.0.0.1:$port" \
    --quiet --tls-cert "$work/cert.pem" --tls-key "$work/key.pem" --connections-per-address 1000 \
    "$@" >"$work/$name.out" 2>"$work/$name.err" &
  pids+=($!)
  eval "${name}_pid=$!"
  for _ in $(seq 200); do fetch "https://127.0.0.1:$port/v1/ads" >/dev/null 2>&1 && return; sleep 0.1; done
  echo "service_scale: $name did not start"; cat "$work/$name.err"; exit 1
}
disk_port=$(free_port) one_port=$(free_port) two_port=$(free_port)
serve disk "$disk_port"
serve one "$one_port" "${shared[@]}"
echo "bench password" | "$bin" user add bench@example.org --name Bench --data "$work/disk" 2>/dev/null
echo "bench password" | "$bin" user add bench@example.org --name Bench "${shared[@]}" 2>/dev/null
disk_token=$("$bin" token issue bench@example.org --data "$work/disk")
shared_token=$("$bin" token issue bench@example.org "${shared[@]}")

upload() { # URL TOKEN FILE REPLY -> the upload speed in bytes/s
  fetch -H "Authorization: Bearer $2" -F name=bench -F "file=@$3;type=video/mp4" -o "$4" \
    -w '%{speed_upload}\n' "$1/v1/clips"
}
id_of() { sed -n 's/.*"id":"\([a-z0-9]*\)".*/\1/p' "$1"; }
upload "https://127.0.0.1:$disk_port" "$disk_token" "$work/big.mp4" "$work/disk.json" >/dev/null
upload "https://127.0.0.1:$one_port" "$shared_token" "$work/big.mp4" "$work/one.json" >/dev/null
disk_url="https://127.0.0.1:$disk_port/files/$(id_of "$work/disk.json").mp4"
shared_url="https://127.0.0.1:$one_port/files/$(id_of "$work/one.json").mp4"
[ "$(fetch "$disk_url" | md5sum)" = "$(fetch "$shared_url" | md5sum)" ] ||
  { echo "service_scale: the two stores serve different bytes"; exit 1; }

echo "service_scale: $(mb "$size") MB clip over TLS on 127.0.0.1, $runs runs alternating; load $(cut -d' ' -f1-3 /proc/loadavg)"
download() { fetch -o /dev/null -w '%{speed_download}\n' "$1"; }
rgw_pid=$(cat "$work/s3/run/rgw.pid") osd_pid=$(cat "$work/s3/run/osd.pid")
# cpu SIDE KIND COMMAND...: runs the command and adds the CPU it cost the service, the gateway
# and the OSD (clock ticks) to $work/cpu-SIDE-KIND.txt.
cpu() {
  local side=$1 kind=$2 service=$disk_pid; shift 2
  [ "$side" = shared ] && service=$one_pid
  local s0 r0 o0
  s0=$(ticks "$service") r0=$(ticks "$rgw_pid") o0=$(ticks "$osd_pid")
  "$@"
  echo "$(( $(ticks "$service") - s0 )) $(( $(ticks "$rgw_pid") - r0 )) $(( $(ticks "$osd_pid") - o0 ))" \
    >>"$work/cpu-$side-$kind.txt"
}
for side in disk shared; do : >"$work/down-$side.txt"; : >"$work/up-$side.txt"; done
for run in $(seq "$runs"); do
  order="disk shared"; [ $((run % 2)) -eq 0 ] && order="shared disk"
  for side in $order; do
    if [ "$side" = disk ]; then
      cpu disk down eval 'download "$disk_url" >>"$work/down-disk.txt"'
      cpu disk up eval 'upload "https://127.0.0.1:$disk_port" "$disk_token" "$work/big.mp4" /dev/null >>"$work/up-disk.txt"'
    else
      cpu shared down eval 'download "$shared_url" >>"$work/down-shared.txt"'
      cpu shared up eval 'upload "https://127.0.0.1:$one_port" "$shared_token" "$work/big.mp4" /dev/null >>"$work/up-shared.txt"'
    fi
  done
done
for kind in down up; do
  for side in disk shared; do eval "${kind}_$side=$(median <"$work/$kind-$side.txt")"; done
done
down_ratio=$(ratio "$down_shared" "$down_disk")
up_ratio=$(ratio "$up_shared" "$up_disk")
printf 'download: SQLite + disk %s MB/s, PostgreSQL + S3 %s MB/s, ratio %s\n' \
  "$(mb "$down_disk")" "$(mb "$down_shared")" "$down_ratio"
printf 'upload:   SQLite + disk %s MB/s, PostgreSQL + S3 %s MB/s, ratio %s\n' \
  "$(mb "$up_disk")" "$(mb "$up_shared")" "$up_ratio"

# Where the time goes: the CPU one transfer of the clip costs each process (medians, ms).
for kind in down up; do
  for side in disk shared; do
    ms() { cut -d' ' -f"$1" "$work/cpu-$side-$kind.txt" | median | awk -v hz="$hz" '{printf "%d", $1 * 1000 / hz}'; }
    service=$(ms 1) gateway=$(ms 2) osd=$(ms 3)
    if [ "$side" = disk ]; then
      printf '  CPU of one %sload on SQLite + disk: the service %s ms\n' "$kind" "$service"
    else
      printf '  CPU of one %sload on PostgreSQL + S3: the service %s ms, the gateway %s ms, the OSD %s ms\n' \
        "$kind" "$service" "$gateway" "$osd"
    fi
  done
done

# Where the time goes on the shared stores: the gateway alone (curl signing as the service
# does, from the same file), against the service's own figures.
s3put=$(curl -s -o /dev/null -w '%{speed_upload}' --aws-sigv4 "aws:amz:$AWS_REGION:s3" \
  --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" \
  -T "$work/big.mp4" "$S3_ENDPOINT/bench/probe.mp4")
s3get=$(curl -s -o /dev/null -w '%{speed_download}' --aws-sigv4 "aws:amz:$AWS_REGION:s3" \
  --user "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" \
  "$S3_ENDPOINT/bench/probe.mp4")
printf 'the S3 gateway alone (one PUT, one GET of the clip with curl): %s MB/s in, %s MB/s out\n' \
  "$(mb "$s3put")" "$(mb "$s3get")"

# The mixed load: W clients at once, each on a connection of its own through nginx, each making
# R requests: six 1 MB range downloads, three clip pages and one 5 MB upload in every ten.
serve two "$two_port" "${shared[@]}"
clients=6 requests=30
id=$(id_of "$work/one.json")
for w in $(seq "$clients"); do
  config=$work/load-$w.conf
  : >"$config"
  for r in $(seq "$requests"); do
    case $((r % 10)) in
    0) printf 'url = "https://127.0.0.1:PORT/v1/clips"\nheader = "Authorization: Bearer %s"\nform = "name=load"\nform = "file=@%s;type=video/mp4"\n' \
         "$shared_token" "$work/small.mp4" >>"$config" ;;
    1|4|7) printf 'url = "https://127.0.0.1:PORT/c/%s"\n' "$id" >>"$config" ;;
    *) first=$(( (RANDOM * 32768 + RANDOM) % (size - 2000000) ))
       printf 'url = "https://127.0.0.1:PORT/files/%s.mp4"\nrange = "%s-%s"\n' "$id" "$first" "$((first + 999999))" >>"$config" ;;
    esac
    # (Options hold for one URL each: every block names the certificate again.)
    printf 'cacert = "%s"\noutput = "/dev/null"\nwrite-out = "%%{http_code}\\n"\n' "$work/cert.pem" >>"$config"
    [ "$r" -lt "$requests" ] && echo next >>"$config"
  done
done
balancer() { # PORT UPSTREAM_PORTS...
  local port=$1; shift
  mkdir -p "$work/nginx-$port"
  {
    echo "load_module /usr/lib/nginx/modules/ngx_stream_module.so;"
    [ "$(id -u)" -eq 0 ] && echo "user root;"
    echo "worker_processes 1; daemon off; pid $work/nginx-$port/pid; error_log $work/nginx-$port/error.log;"
    echo "events { worker_connections 1024; }"
    echo "stream { upstream u { $(for p in "$@"; do echo "server 127.0.0.1:$p;"; done) }"
    echo "  server { listen 127.0.0.1:$port; proxy_pass u; } }"
  } >"$work/nginx-$port/nginx.conf"
  nginx -c "$work/nginx-$port/nginx.conf" -p "$work/nginx-$port" &
  pids+=($!)
  for _ in $(seq 100); do fetch "https://127.0.0.1:$port/v1/ads" >/dev/null 2>&1 && return; sleep 0.1; done
}
single_port=$(free_port) pair_port=$(free_port)
balancer "$single_port" "$one_port"
balancer "$pair_port" "$one_port" "$two_port"
mixed() { # PORT -> "requests-per-second errors"
  local port=$1 start end
  start=$(date +%s.%N)
  for w in $(seq "$clients"); do
    sed "s/PORT/$port/" "$work/load-$w.conf" >"$work/run-$w.conf"
    fetch -K "$work/run-$w.conf" >"$work/status-$w.txt" 2>/dev/null &
  done
  wait_jobs
  end=$(date +%s.%N)
  cat "$work"/status-*.txt | awk -v t="$(echo "$end - $start" | bc -l)" \
    '{n++; if ($1 != 200 && $1 != 206) e++} END {printf "%.1f %d %d\n", n / t, e + 0, n}'
}
wait_jobs() { for job in $(jobs -p); do case " ${pids[*]} " in *" $job "*) ;; *) wait "$job" || true ;; esac; done; }
: >"$work/mixed-one.txt"; : >"$work/mixed-two.txt"; errors=0
for round in $(seq "$rounds"); do
  order="one two"; [ $((round % 2)) -eq 0 ] && order="two one"
  for side in $order; do
    port=$single_port; [ "$side" = two ] && port=$pair_port
    read -r rate errs count < <(mixed "$port")
    echo "$rate" >>"$work/mixed-$side.txt"
    errors=$((errors + errs))
  done
done
mixed_one=$(median <"$work/mixed-one.txt")
mixed_two=$(median <"$work/mixed-two.txt")
mixed_ratio=$(ratio "$mixed_two" "$mixed_one")
printf 'mixed load, %s clients x %s requests: one process %s requests/s, two %s requests/s (medians of %s), ratio %s, %s errors in all\n' \
  "$clients" "$requests" "$mixed_one" "$mixed_two" "$rounds" "$mixed_ratio" "$errors"

pass=$(awk -v d="$down_ratio" -v u="$up_ratio" -v m="$mixed_ratio" -v e="$errors" \
  'BEGIN {print (d >= 0.6 && u >= 0.6 && m >= 1.0 && e == 0) ? "PASS" : "FAIL"}')
printf 'service_scale: download %sx, upload %sx the same service on SQLite + disk, two processes %sx one, %s errors (target >= 0.6x, >= 0.6x, >= 1.0x, 0 errors; load %s) %s\n' \
  "$down_ratio" "$up_ratio" "$mixed_ratio" "$errors" "$(cut -d' ' -f1-3 /proc/loadavg)" "$pass"
[ "$pass" = PASS ]
