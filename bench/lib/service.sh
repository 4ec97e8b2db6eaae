# Helpers the service's benchmarks share, sourced after $work is set: a certificate for
# 127.0.0.1 in $work, curl trusting it, free ports, and the clips they send.

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
mb() { awk -v b="$1" 'BEGIN {printf "%.1f", b / 1e6}'; }

openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout "$work/key.pem" \
  -out "$work/cert.pem" -days 1 -subj /CN=localhost \
  -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" 2>/dev/null
chmod 644 "$work/key.pem"
fetch() { curl -s --cacert "$work/cert.pem" "$@"; }

# A clip heavy with detail, cut at 60 MB ($work/big.mp4), and a 5 MB one ($work/small.mp4).
# (-fs stops a little past its size: the last packets still go in.)
make_clip() {
  ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=1280x720:rate=30,noise=alls=30:allf=t" \
    -f lavfi -i sine=f=440 -t 60 -fs "$2" -c:v libx264 -preset ultrafast -qp 16 -pix_fmt yuv420p \
    -c:a aac -shortest "$1"
}
make_clip "$work/big.mp4" 56000000
make_clip "$work/small.mp4" 4700000
size=$(stat -c %s "$work/big.mp4")
