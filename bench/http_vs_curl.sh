#!/usr/bin/env bash
# HttpClient::download (through kx_fetch) against `curl -s -o`, fetching the
# same file from the same loopback server (python3 -m http.server, which
# streams it from disk), in alternating rounds. Reports wall time and peak resident
# memory of each; a small file is fetched too, to show whether memory grows
# with the size. Run by hand on an otherwise idle machine; not part of CI.
#
#   bench/http_vs_curl.sh [build-dir] [size-MiB] [rounds]
#   defaults:              build      1024       5
set -euo pipefail

build=${1:-build}
size_mib=${2:-1024}
rounds=${3:-5}
small_mib=16
bin=$build/bin

for tool in "$bin/kx_fetch" /usr/bin/time "$(command -v curl)" "$(command -v python3)"; do
  [[ -x $tool ]] || { echo "http_vs_curl: missing $tool (build first: cmake --build $build)" >&2; exit 1; }
done

# shellcheck source=scripts/lib/sandbox.sh
. "$(dirname "$0")/../scripts/lib/sandbox.sh"

work=$(mktemp -d "${TMPDIR:-/tmp}/kx_http_bench.XXXXXX")
cleanup() {
  kx_stop_server
  rm -rf "$work"
}
trap cleanup EXIT

mkdir "$work/root"
echo "preparing ${size_mib} MiB and ${small_mib} MiB files in $work"
# Random bytes, so that nothing between server and client can shortcut them.
head -c $((size_mib << 20)) /dev/urandom >"$work/root/big.bin"
head -c $((small_mib << 20)) /dev/urandom >"$work/root/small.bin"

kx_start_server "$work/root" || { echo "http_vs_curl: server did not start" >&2; exit 1; }
url=http://127.0.0.1:$KX_SERVER_PORT

# run <tool> <file>: one fetch into $work/out; prints "<wall s> <cpu s> <peak KiB>".
run() {
  local tool=$1 file=$2
  rm -f "$work/out"
  case $tool in
    kx_fetch) /usr/bin/time -f "%e %U %S %M" -o "$work/time" "$bin/kx_fetch" "$url/$file" "$work/out" >/dev/null ;;
    curl) /usr/bin/time -f "%e %U %S %M" -o "$work/time" curl -s -o "$work/out" "$url/$file" ;;
  esac
  [[ $(stat -c %s "$work/out") == $(stat -c %s "$work/root/$file") ]] || { echo "$tool: short download" >&2; exit 1; }
  awk '{printf "%s %.2f %s\n", $1, $2 + $3, $4}' "$work/time"
}

# Warm the page cache and check the contents once.
run kx_fetch big.bin >/dev/null
cmp -s "$work/out" "$work/root/big.bin" || { echo "kx_fetch: content differs" >&2; exit 1; }

# Wall time is what the aim is about; CPU time (user + system) is reported
# beside it because it is far less disturbed by whatever else the machine does.
declare -a kx_times curl_times kx_cpus curl_cpus
kx_rss=0 curl_rss=0
for ((i = 1; i <= rounds; i++)); do
  read -r t c m < <(run kx_fetch big.bin); kx_times+=("$t"); kx_cpus+=("$c"); ((m > kx_rss)) && kx_rss=$m
  read -r t c m < <(run curl big.bin); curl_times+=("$t"); curl_cpus+=("$c"); ((m > curl_rss)) && curl_rss=$m
  echo "round $i: kx_fetch ${kx_times[-1]} s (cpu ${kx_cpus[-1]}), curl ${curl_times[-1]} s (cpu ${curl_cpus[-1]})"
done
read -r _ _ kx_small_rss < <(run kx_fetch small.bin)
read -r _ _ curl_small_rss < <(run curl small.bin)

kx_med=$(kx_median "${kx_times[@]}")
curl_med=$(kx_median "${curl_times[@]}")
kx_cpu=$(kx_median "${kx_cpus[@]}")
curl_cpu=$(kx_median "${curl_cpus[@]}")
echo
printf '%-9s %10s %10s %16s %16s\n' "" "median s" "median cpu" "peak KiB ${size_mib}M" "peak KiB ${small_mib}M"
printf '%-9s %10s %10s %16s %16s\n' kx_fetch "$kx_med" "$kx_cpu" "$kx_rss" "$kx_small_rss"
printf '%-9s %10s %10s %16s %16s\n' curl "$curl_med" "$curl_cpu" "$curl_rss" "$curl_small_rss"
awk -v k="$kx_med" -v c="$curl_med" -v kc="$kx_cpu" -v cc="$curl_cpu" 'BEGIN {
  printf "kx_fetch / curl: time %.3f (%+.1f%%), cpu %.3f (%+.1f%%)\n", k / c, (k / c - 1) * 100, kc / cc, (kc / cc - 1) * 100
}'
