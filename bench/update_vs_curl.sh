#!/usr/bin/env bash
# A whole update run against `curl -s -o pkg URL && md5sum pkg`: the same
# package from the same loopback server (scripts/lib/paced_http.py, sending it
# with sendfile(2) from the page cache), in alternating rounds. The update run is the real program of the
# Linux flow: probe, version check, hash file, HEAD, download, MD5, and the
# service commands (stand-ins that only record, in a scratch directory). It
# reports wall and CPU time of each side and the update's peak resident
# memory. Aims: the update at most 0.70 of curl + md5sum (the hash runs while
# the file lands), below 16 MiB whatever the package size; and, with the
# server paced to 100 MB/s as a network link would be, at most 1.03 of the
# download alone (curl -s -o), i.e. the hash costs nothing.
#
# Run by hand as root (the program refuses to run otherwise) on an otherwise
# idle machine with room for three copies of the package; not part of CI. With
# TMPDIR on a memory file system (TMPDIR=/dev/shm) the disk's write-back
# stays out of the figures.
#
#   bench/update_vs_curl.sh [build-dir] [size-MiB] [rounds] [paced bytes/s]
#   defaults:               build       1024       5        100000000
# With KX_BENCH_SIGNED=1 the tree is laid out and signed by kx-publish and the
# update runs with the key pinned (in a private /etc/opt), so that it also
# fetches and verifies the release and computes the package's SHA-256.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
size_mib=${2:-1024}
rounds=${3:-5}
rate=${4:-100000000}
limit_kib=$((16 * 1024))

update=$build/bin/update-linux
[[ -x $update ]] || update=$build/bin/update
for tool in "$update" /usr/bin/time "$(command -v curl)" "$(command -v md5sum)" "$(command -v python3)"; do
  [[ -x $tool ]] || { echo "update_vs_curl: missing $tool (build first: cmake --build $build)" >&2; exit 1; }
done
[[ $(id -u) -eq 0 ]] || { echo "update_vs_curl: run as root (the update program needs it)" >&2; exit 1; }
# shellcheck source=scripts/lib/sandbox.sh
. "$(dirname "$0")/../scripts/lib/sandbox.sh"
arch_dir=$(kx_arch_dir) || { echo "update_vs_curl: no package layout for $(uname -m)" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/kx_update_bench.XXXXXX")
cleanup() {
  kx_stop_server
  rm -rf "$work"
}
trap cleanup EXIT

pkg_dir=$work/root/linux/$arch_dir
mkdir -p "$pkg_dir" "$work/bin" "$work/tmp" "$work/curl"
echo "preparing a ${size_mib} MiB package in $work"
# Random bytes, so that nothing between server and client can shortcut them.
head -c $((size_mib << 20)) /dev/urandom >"$pkg_dir/setup.deb"
(cd "$pkg_dir" && md5sum setup.deb >setup.deb.md5)
printf '7.3.0.0\n' >"$pkg_dir/version_long.txt"
pin=()
if [[ ${KX_BENCH_SIGNED:-} == 1 ]]; then
  mv "$pkg_dir/setup.deb" "$work/setup.deb"
  rm -rf "$work/root"
  "$build/bin/kx-publish" keygen "$work/key" >/dev/null
  "$build/bin/kx-publish" layout "$work/root" --version 7.3.0.0 --sign "$work/key" "linux/$([[ $arch_dir == amd64 ]] && echo amd64 || echo arm64)=$work/setup.deb" >/dev/null
  rm "$work/setup.deb"
  conf=/etc/opt/kx/conf.bench-$$
  # shellcheck disable=SC2016 # expanded by the inner shell
  pin=(unshare -m sh -ec 'mount -t tmpfs -o mode=0755 tmpfs /etc/opt && mkdir -p "$1" && cp "$2" "$1/update-keys" && shift 2 && exec "$@"' pin "$conf" "$work/key.pub")
fi
# Stand-ins that only record, as cheap as a command can be: the tests' own
# (tests/e2e/shim) also inspect how they were started, which costs more than
# a real systemctl would.
printf '#!/bin/sh\necho "${0##*/} $*" >>"$KX_SHIM_RECORD"\n' >"$work/recorder"
kx_install_shims "$work/recorder" "$work/bin" systemctl dpkg apt-get rpm dnf

kx_start_server "$work/root" "" 0 ||
  { echo "update_vs_curl: server did not start" >&2; exit 1; }
url=http://127.0.0.1:$KX_SERVER_PORT
hex_url=$(kx_hex "$url")

# One whole update; prints "<wall s> <cpu s> <peak KiB>".
run_update() {
  # Each run starts afresh: no lock from the previous one, no old download.
  rm -f "$work/tmp/upgrade_ovk.lock" "$work/tmp/setup.deb" "$work/tmp/agent_upd.log"
  : >"$work/calls.log"
  env TMPDIR="$work/tmp" KX_AGENT_INSTANCE="bench-$$" PATH="$work/bin:$PATH" KX_SHIM_RECORD="$work/calls.log" KX_SHIM_DIR="$work/bin" \
    /usr/bin/time -f "%e %U %S %M" -o "$work/time" "${pin[@]}" "$update" "$hex_url" 7.2.0.1 >/dev/null
  grep -q "Agent Update done" "$work/tmp/agent_upd.log" || { echo "update: no update done" >&2; exit 1; }
  ((${#pin[@]} == 0)) || grep -q "Release 1 signed by key" "$work/tmp/agent_upd.log" || { echo "update: not signed" >&2; exit 1; }
  grep -q "^dpkg -i $work/tmp/setup.deb$" "$work/calls.log" || { echo "update: nothing installed" >&2; exit 1; }
  awk '{printf "%s %.2f %s\n", $1, $2 + $3, $4}' "$work/time"
}

# The reference: download, then hash (or, given "nohash", the download
# alone). %M is the larger of the two processes.
run_curl() {
  rm -f "$work/curl/pkg"
  # shellcheck disable=SC2016 # expanded by the inner shell
  /usr/bin/time -f "%e %U %S %M" -o "$work/time" \
    sh -c 'curl -s -o "$1/pkg" "$2" && { [ "$3" = nohash ] || md5sum "$1/pkg" >"$1/sum"; }' sh "$work/curl" \
    "$url/linux/$arch_dir/setup.deb" "${1:-}"
  [[ ${1:-} == nohash ]] || [[ $(cut -d' ' -f1 "$work/curl/sum") == $(head -1 "$pkg_dir/setup.deb.md5" | cut -d' ' -f1) ]] ||
    { echo "curl: hash differs" >&2; exit 1; }
  awk '{printf "%s %.2f %s\n", $1, $2 + $3, $4}' "$work/time"
}

# Warm the page cache for the served file once.
cat "$pkg_dir/setup.deb" >/dev/null

declare -a up_times curl_times up_cpus curl_cpus
up_rss=0 curl_rss=0
for ((i = 1; i <= rounds; i++)); do
  read -r t c m < <(run_update); up_times+=("$t"); up_cpus+=("$c"); ((m > up_rss)) && up_rss=$m
  read -r t c m < <(run_curl); curl_times+=("$t"); curl_cpus+=("$c"); ((m > curl_rss)) && curl_rss=$m
  echo "round $i: update ${up_times[-1]} s (cpu ${up_cpus[-1]}), curl+md5sum ${curl_times[-1]} s (cpu ${curl_cpus[-1]})"
done

up_med=$(kx_median "${up_times[@]}")
curl_med=$(kx_median "${curl_times[@]}")
up_cpu=$(kx_median "${up_cpus[@]}")
curl_cpu=$(kx_median "${curl_cpus[@]}")

# The same against a server paced like a network link: the download alone.
kx_stop_server
kx_start_server "$work/root" "" "$rate" || { echo "update_vs_curl: paced server did not start" >&2; exit 1; }
url=http://127.0.0.1:$KX_SERVER_PORT
hex_url=$(kx_hex "$url")
declare -a paced_up paced_curl
for ((i = 1; i <= rounds; i++)); do
  read -r t c m < <(run_update); paced_up+=("$t"); ((m > up_rss)) && up_rss=$m
  read -r t c m < <(run_curl nohash); paced_curl+=("$t")
  echo "paced round $i: update ${paced_up[-1]} s, curl -o ${paced_curl[-1]} s"
done
paced_up_med=$(kx_median "${paced_up[@]}")
paced_curl_med=$(kx_median "${paced_curl[@]}")

echo
printf '%-24s %10s %12s %10s\n' "" "median s" "median cpu s" "peak KiB"
printf '%-24s %10s %12s %10s\n' update "$up_med" "$up_cpu" "$up_rss"
printf '%-24s %10s %12s %10s\n' curl+md5sum "$curl_med" "$curl_cpu" "$curl_rss"
printf '%-24s %10s\n' "update, paced" "$paced_up_med"
printf '%-24s %10s\n' "curl -o, paced" "$paced_curl_med"
verdict() { awk -v r="$1" -v aim="$2" 'BEGIN { exit !(r <= aim) }' && echo "ok" || echo "ABOVE THE AIM"; }
ratio=$(awk -v u="$up_med" -v c="$curl_med" 'BEGIN { printf "%.3f", u / c }')
paced=$(awk -v u="$paced_up_med" -v c="$paced_curl_med" 'BEGIN { printf "%.3f", u / c }')
echo "update / curl+md5sum:             $ratio (aim 0.70: $(verdict "$ratio" 0.70))"
echo "update / curl -o, at $rate B/s: $paced (aim 1.03: $(verdict "$paced" 1.03))"
echo "update peak memory:               ${up_rss} KiB (aim ${limit_kib} KiB: $(verdict "$up_rss" "$limit_kib"))"
