#!/bin/bash
# check.sh BUILD CMAKE CXX: installs BUILD into a fresh prefix inside it, then
# builds and runs tests/consumer against that prefix alone.
set -euo pipefail
dir=$1/consumer
rm -rf "$dir"
"$2" --install "$1" --prefix "$dir/usr" >/dev/null
"$2" -S "$(dirname "$0")" -B "$dir/build" -DCMAKE_PREFIX_PATH="$dir/usr" -DCMAKE_CXX_COMPILER="$3" >/dev/null
"$2" --build "$dir/build" >/dev/null
out=$("$dir/build/consumer")
printf '%s\n' "$out"
grep -q 'ROOT:ERR \[ main.cpp:[0-9]* \] - consumer of kx::base 1$' <<<"$out"
grep -qix 900150983cd24fb0d6963f7d28e17f72 <<<"$out"
