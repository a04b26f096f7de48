#!/usr/bin/env bash
# Peak resident memory of an update run with nothing to do against that of
# `curl -s -o /dev/null` fetching the version file once: the same tree, laid
# out and signed by kx-publish, from the same nginx on 127.0.0.1 (as nobody,
# from a configuration of its own), in alternating rounds. The run is the real
# program of the Linux flow, told that the installed version is the published
# one, twice a round: once on a machine without a pinned key (probe, version
# file) and once on one that pins the release key (the release and its
# signature too). Each run has its own TMPDIR and agent instance; the whole
# benchmark runs in a mount namespace of its own with empty tmpfs over
# /etc/opt and /var/cache, so the machine's configuration and cache are
# neither read nor written. Peak memory is ru_maxrss of each process, as
# /usr/bin/time reports it (KiB); the medians are printed with their ratio
# to curl's. Aim: a run with nothing to do at most curl's own peak.
#
# Builds nothing. Run by hand as root (the program refuses to run otherwise);
# not part of CI.
#
#   bench/rss_vs_curl.sh [build-dir] [rounds]
#   defaults:            build       7
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$repo/build}")
rounds=${2:-7}
cd "$repo"

[[ $rounds =~ ^[1-9][0-9]*$ ]] || { echo "usage: bench/rss_vs_curl.sh [build-dir] [rounds]" >&2; exit 2; }
update=$build/bin/update-linux
[[ -x $update ]] || update=$build/bin/update
publish=$build/bin/kx-publish
for tool in "$update" "$publish" /usr/sbin/nginx /usr/bin/time "$(command -v curl)" "$(command -v setpriv)" "$(command -v unshare)"; do
  [[ -x $tool ]] || { echo "rss_vs_curl: missing ${tool:-a tool} (build first: cmake --build $build)" >&2; exit 1; }
done
[[ $(id -u) -eq 0 ]] || { echo "rss_vs_curl: run as root (the update program needs it)" >&2; exit 1; }
# shellcheck source=scripts/lib/sandbox.sh
. "$repo/scripts/lib/sandbox.sh"
arch_dir=$(kx_arch_dir) || { echo "rss_vs_curl: no package layout for $(uname -m)" >&2; exit 1; }
platform=linux/$([[ $arch_dir == amd64 ]] && echo amd64 || echo arm64)

# Everything below in a mount namespace of its own: /etc/opt (configuration,
# pinned keys, serial) and /var/cache (a signed install's package) are empty
# memory file systems that go with it.
if [[ -z ${KX_RSS_INSIDE:-} ]]; then
  [[ -d /etc/opt && -d /var/cache ]] || { echo "rss_vs_curl: needs /etc/opt and /var/cache to hide" >&2; exit 1; }
  # shellcheck disable=SC2016 # expanded by the inner shell
  KX_RSS_INSIDE=1 unshare -m --propagation private sh -ec \
    'mount -t tmpfs -o mode=0755 tmpfs /etc/opt && mount -t tmpfs -o mode=0755 tmpfs /var/cache && exec "$@"' \
    - "$repo/bench/rss_vs_curl.sh" "$build" "$rounds"
  exit
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/kx-rss.XXXXXX")
# nginx runs as nobody and reads the tree below it.
chmod 755 "$work"
# shellcheck disable=SC2317 # called by the trap
cleanup() {
  kx_stop_nginx
  rm -rf "$work"
}
trap cleanup EXIT

# A small package: a run with nothing to do never fetches it.
head -c 65536 /dev/urandom >"$work/setup.deb"
mkdir -m 700 "$work/keys"
"$publish" keygen "$work/keys/release" >/dev/null
"$publish" layout "$work/server" --version 7.3.0.0 --sign "$work/keys/release" "$platform=$work/setup.deb" >/dev/null
kx_start_nginx "$work/server" "$work/nginx" ||
  { echo "rss_vs_curl: nginx did not start:" >&2; cat "$work/nginx/error.log" >&2; exit 1; }
url=http://127.0.0.1:$KX_NGINX_PORT
hex_url=$(kx_hex "$url")

# Two machines: one without keys, one that pins the release key.
instance=rss-$$
install -d -m 0755 "/etc/opt/kx/conf.$instance-signed"
install -m 0644 -o root -g root "$work/keys/release.pub" "/etc/opt/kx/conf.$instance-signed/update-keys"
mkdir -p "$work/unsigned" "$work/signed"

# One update run with nothing to do on machine <kind>; prints its peak KiB.
run_update() {
  local kind=$1 dir=$work/$1 name=$instance status=0
  [[ $kind == unsigned ]] || name=$instance-signed
  # Each run starts afresh: no lock from the previous one, a log of its own.
  rm -f "$dir/upgrade_ovk.lock" "$dir/agent_upd.log" "$dir/last-run.json"
  env TMPDIR="$dir" KX_AGENT_INSTANCE="$name" \
    /usr/bin/time -f %M -o "$work/time" "$update" "$hex_url" 7.3.0.0 </dev/null >/dev/null 2>&1 || status=$?
  if ((status != 0)) || ! grep -q "Nothing to do" "$dir/agent_upd.log"; then
    echo "rss_vs_curl: the $kind run did not end up to date (exit $status):" >&2
    tail -n 5 "$dir/agent_upd.log" >&2
    exit 1
  fi
  [[ $kind == unsigned ]] || grep -q "Release .* signed by key" "$dir/agent_upd.log" ||
    { echo "rss_vs_curl: the signed run did not verify the release" >&2; exit 1; }
  cat "$work/time"
}

# The reference: one GET of the version file.
run_curl() {
  /usr/bin/time -f %M -o "$work/time" curl -s -o /dev/null "$url/linux/$arch_dir/version_long.txt" ||
    { echo "rss_vs_curl: curl failed" >&2; exit 1; }
  cat "$work/time"
}

# Warm the page cache for the program, curl and the tree once.
run_update unsigned >/dev/null
run_update signed >/dev/null
run_curl >/dev/null

declare -a unsigned_kib signed_kib curl_kib
for ((i = 1; i <= rounds; i++)); do
  unsigned_kib+=("$(run_update unsigned)")
  signed_kib+=("$(run_update signed)")
  curl_kib+=("$(run_curl)")
  echo "round $i: update ${unsigned_kib[-1]} KiB, signed ${signed_kib[-1]} KiB, curl ${curl_kib[-1]} KiB"
done

up=$(kx_median "${unsigned_kib[@]}")
signed=$(kx_median "${signed_kib[@]}")
curl=$(kx_median "${curl_kib[@]}")
echo
printf '%-28s %16s %12s\n' "" "median peak KiB" "/ curl"
row() { awk -v n="$1" -v k="$2" -v c="$curl" 'BEGIN { printf "%-28s %16s %12.3f\n", n, k, k / c }'; }
row "update, nothing to do" "$up"
row "update, signed, nothing to do" "$signed"
row "curl -s -o /dev/null" "$curl"
verdict() { awk -v k="$1" -v c="$curl" 'BEGIN { exit !(k <= c) }' && echo "ok" || echo "ABOVE THE AIM"; }
echo "nothing to do / curl: unsigned $(verdict "$up"), signed $(verdict "$signed") (aim: at most curl's peak)"
