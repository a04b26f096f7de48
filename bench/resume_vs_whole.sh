#!/usr/bin/env bash
# A signed update that continues a partial download against one that fetches
# the package whole: the same release (kx-publish layout --sign) served by
# nginx on 127.0.0.1, the real Linux-flow program with the key pinned, in
# alternating rounds. Before each resumed round the first half of the package
# is put in the package cache as the partial file a cut run leaves, with the
# validator nginx gives the package. Reports each side's wall and CPU time,
# peak memory and the bytes its record says it fetched. Aims: the resumed run
# fetches exactly the missing half, and costs no more than the whole one (the
# kept half is read back and hashed once, instead of arriving).
#
# Run by hand as root on an otherwise idle machine, not by CI. Everything
# runs in a mount namespace of its own whose /etc/opt and /var/cache are empty
# tmpfs; with TMPDIR=/dev/shm the package and the download stay in memory
# too (three copies of the package, and one more in the cache).
#
#   bench/resume_vs_whole.sh [build-dir] [size-MiB] [rounds]
#   defaults:                build       1024       5
set -euo pipefail
build=$(realpath -m "${1:-build}")
size_mib=${2:-1024}
rounds=${3:-5}
cd "$(dirname "$0")/.."

update=$build/bin/update-linux
[[ -x $update ]] || update=$build/bin/update
for tool in "$update" "$build/bin/kx-publish" /usr/sbin/nginx /usr/bin/time "$(command -v jq)"; do
  [[ -x $tool ]] || { echo "resume_vs_whole: missing ${tool:-jq} (build first: cmake --build $build)" >&2; exit 1; }
done
[[ $(id -u) -eq 0 ]] || { echo "resume_vs_whole: run as root (the update program needs it)" >&2; exit 1; }
if [[ -z ${KX_RESUME_INSIDE:-} ]]; then
  export KX_RESUME_INSIDE=1
  # shellcheck disable=SC2016 # expanded by the inner shell
  exec unshare -m --propagation private sh -ec \
    'for d in /etc/opt /var/cache; do mount -t tmpfs -o mode=0755 tmpfs $d; done && exec "$@"' - "$0" "$build" "$size_mib" "$rounds"
fi
# shellcheck source=scripts/lib/sandbox.sh
. scripts/lib/sandbox.sh
arch_dir=$(kx_arch_dir) || { echo "resume_vs_whole: no package layout for $(uname -m)" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/kx_resume_bench.XXXXXX")
chmod 755 "$work"  # nginx runs as nobody and reads the tree below it
cleanup() {
  kx_stop_nginx
  rm -rf "$work"
}
trap cleanup EXIT

echo "preparing a ${size_mib} MiB package in $work"
size=$((size_mib << 20))
half=$((size / 2))
head -c "$size" /dev/urandom >"$work/setup.deb"
"$build/bin/kx-publish" keygen "$work/key" >/dev/null
"$build/bin/kx-publish" layout "$work/server" --version 7.3.0.0 --sign "$work/key" \
  "linux/$([[ $arch_dir == amd64 ]] && echo amd64 || echo arm64)=$work/setup.deb" >/dev/null
rm "$work/setup.deb"
mkdir -p /etc/opt/kx/conf.resume "$work/bin" "$work/tmp"
cp "$work/key.pub" /etc/opt/kx/conf.resume/update-keys
# shellcheck disable=SC2016 # the stand-in expands them
printf '#!/bin/sh\necho "${0##*/} $*" >>"$KX_SHIM_RECORD"\n' >"$work/recorder"
kx_install_shims "$work/recorder" "$work/bin" systemctl dpkg apt-get rpm dnf
kx_start_nginx "$work/server" "$work/nginx" || { echo "resume_vs_whole: nginx did not start" >&2; exit 1; }
hex_url=$(kx_hex "http://127.0.0.1:$KX_NGINX_PORT")
pkg=$work/server/linux/$arch_dir/setup.deb
cat "$pkg" >/dev/null  # in the page cache for nginx, as for every round
# What nginx names the file with, and what the release names it with.
read -r mtime bytes < <(stat -c '%Y %s' "$pkg")
etag=$(printf '"%x-%x"' "$mtime" "$bytes")
sha=$(sha256sum "$pkg" | cut -c1-64)
cache=/var/cache/kx-updater.resume

# One update; "resumed" first leaves half the package as a cut run would.
# Prints "<wall s> <cpu s> <peak KiB> <bytes fetched>".
run_update() {
  rm -rf "$cache" "$work/tmp"/*
  : >"$work/calls.log"
  if [[ $1 == resumed ]]; then
    mkdir -m 700 "$cache"
    head -c "$half" "$pkg" >"$cache/partial-download"
    jq -n --arg s "$sha" --arg v "$etag" --argjson n "$size" '{sha256: $s, size: $n, validator: $v}' >"$cache/partial-download.json"
  fi
  env TMPDIR="$work/tmp" KX_AGENT_INSTANCE=resume PATH="$work/bin:$PATH" KX_SHIM_RECORD="$work/calls.log" \
    /usr/bin/time -f "%e %U %S %M" -o "$work/time" "$update" "$hex_url" 7.2.0.1 >/dev/null
  grep -q "Agent Update done" "$work/tmp/agent_upd.log" || { echo "$1: no update done" >&2; exit 1; }
  [[ $1 == whole ]] || grep -q "Download resumed at byte $half$" "$work/tmp/agent_upd.log" ||
    { echo "resumed: did not resume at byte $half" >&2; exit 1; }
  awk -v b="$(jq .bytes_fetched "$work/tmp/last-run.json")" '{printf "%s %.2f %s %s\n", $1, $2 + $3, $4, b}' "$work/time"
}

declare -a whole_t whole_c resumed_t resumed_c
whole_rss=0 resumed_rss=0
for ((i = 1; i <= rounds; i++)); do
  read -r t c m whole_bytes < <(run_update whole)
  whole_t+=("$t") whole_c+=("$c")
  ((m > whole_rss)) && whole_rss=$m
  read -r t c m resumed_bytes < <(run_update resumed)
  resumed_t+=("$t") resumed_c+=("$c")
  ((m > resumed_rss)) && resumed_rss=$m
  echo "round $i: whole ${whole_t[-1]} s (cpu ${whole_c[-1]}), resumed ${resumed_t[-1]} s (cpu ${resumed_c[-1]})"
done

echo
printf '%-10s %10s %12s %10s %14s\n' "" "median s" "median cpu s" "peak KiB" "bytes fetched"
printf '%-10s %10s %12s %10s %14s\n' whole "$(kx_median "${whole_t[@]}")" "$(kx_median "${whole_c[@]}")" "$whole_rss" "$whole_bytes"
printf '%-10s %10s %12s %10s %14s\n' resumed "$(kx_median "${resumed_t[@]}")" "$(kx_median "${resumed_c[@]}")" "$resumed_rss" "$resumed_bytes"
ratio() { awk -v r="$1" -v w="$2" 'BEGIN { printf "%.3f", r / w }'; }
echo "resumed / whole, wall: $(ratio "$(kx_median "${resumed_t[@]}")" "$(kx_median "${whole_t[@]}")")," \
  "cpu: $(ratio "$(kx_median "${resumed_c[@]}")" "$(kx_median "${whole_c[@]}")") (aim: at most 1)"
if [[ $resumed_bytes != $((size - half)) ]]; then
  echo "resumed fetched $resumed_bytes bytes, not $((size - half))" >&2
  exit 1
fi
echo "resumed fetched the missing $((size - half)) bytes only: ok"
