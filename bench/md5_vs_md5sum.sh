#!/usr/bin/env bash
# Hashes one 256 MiB file with KXHashMD5::computeFileHexHash (bench_base --md5)
# and with md5sum, in the same run and with the file in the page cache, and
# prints both throughputs and their ratio. Each side runs five times, taking
# turns; the best time of each counts.
#
#   bench/md5_vs_md5sum.sh [build dir]      (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
bin="$build/bin/bench_base"
[[ -x $bin ]] || { echo "no $bin: build first" >&2; exit 1; }

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kxmd5.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
file="$tmp/package.bin"
size=$((256 * 1024 * 1024))
head -c "$size" /dev/urandom >"$file"
cat "$file" >/dev/null

# Runs the command and prints its wall time in nanoseconds; its output goes to $tmp/out.
elapsed_ns() {
  local start end
  start=$(date +%s%N)
  "$@" >"$tmp/out"
  end=$(date +%s%N)
  echo $((end - start))
}

best_ours=0 best_ref=0
for _ in 1 2 3 4 5; do
  t=$(elapsed_ns "$bin" --md5 "$file")
  ours=$(tr 'A-F' 'a-f' <"$tmp/out")
  ((best_ours == 0 || t < best_ours)) && best_ours=$t
  t=$(elapsed_ns md5sum "$file")
  ref=$(cut -d' ' -f1 <"$tmp/out")
  ((best_ref == 0 || t < best_ref)) && best_ref=$t
done

if [[ $ours != "$ref" ]]; then
  echo "digests differ: computeFileHexHash $ours, md5sum $ref" >&2
  exit 1
fi

awk -v size="$size" -v ours="$best_ours" -v ref="$best_ref" 'BEGIN {
  mib = size / 1048576
  printf "file:               %d MiB, md5 %s\n", mib, "'"$ref"'"
  printf "computeFileHexHash: %8.1f MiB/s (%.3f s)\n", mib / (ours / 1e9), ours / 1e9
  printf "md5sum:             %8.1f MiB/s (%.3f s)\n", mib / (ref / 1e9), ref / 1e9
  ratio = ref / ours
  printf "ratio:              %.2f of md5sum (aim 1.05) %s\n", ratio, (ratio >= 1.05 ? "ok" : "BELOW THE AIM")
}'
