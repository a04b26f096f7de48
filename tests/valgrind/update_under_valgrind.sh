#!/usr/bin/env bash
# One whole update by the Linux program under valgrind's memcheck: from the
# version check through download and verification to the restarted agent,
# against the loopback test server, with recording stand-ins for the system
# commands. Fails on any memcheck error or definite leak, or when the update
# is not complete.
#   update_under_valgrind.sh <update-linux> <kx_test_server> <shim>
# Exits 77 (skipped) when valgrind is missing or the user is not root.
set -euo pipefail

update=$1 server=$2 shim=$3
# shellcheck source=scripts/lib/sandbox.sh
. "$(dirname "$0")/../../scripts/lib/sandbox.sh"

skip() {
  echo "SKIPPED: $*"
  exit 77
}
command -v valgrind >/dev/null || skip "valgrind is not installed"
[[ $(id -u) -eq 0 ]] || skip "the update run needs root"
archdir=$(kx_arch_dir) || skip "no legacy server layout for $(uname -m)"
# The program picks the package kind by the presence of dpkg.
if [[ -e /usr/bin/dpkg ]]; then
  package=setup.deb install="dpkg -i"
else
  package=setup.rpm install="rpm -U"
fi

work=$(mktemp -d)
cleanup() {
  kx_stop_server
  rm -rf "$work"
}
trap cleanup EXIT

# The server tree: the legacy layout, a newer version and a package with its sum.
tree=$work/server/linux/$archdir
mkdir -p "$tree" "$work/bin" "$work/tmp"
printf '7.3.0.0\n' >"$tree/version_long.txt"
head -c 300000 /dev/urandom >"$tree/$package"
printf '%s  %s\n' "$(md5sum "$tree/$package" | cut -d' ' -f1)" "$package" >"$tree/$package.md5"

kx_install_shims "$shim" "$work/bin" systemctl dpkg rpm apt-get dnf

if ! kx_start_server "$server" --root "$work/server" 2>"$work/server.err"; then
  cat "$work/server.err" >&2
  echo "FAIL: the test server did not start" >&2
  exit 1
fi

url="http://127.0.0.1:$KX_SERVER_PORT"
hex=$(kx_hex "$url")

status=0
env PATH="$work/bin:$PATH" TMPDIR="$work/tmp" KX_AGENT_INSTANCE="kx_valgrind_$$_$RANDOM" \
  KX_SHIM_RECORD="$work/record" \
  valgrind --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
  --log-file="$work/valgrind.log" "$update" -D "$hex" 7.2.0.1 >"$work/update.out" 2>&1 || status=$?

show() {
  echo "--- program output" && cat "$work/update.out"
  echo "--- valgrind" && cat "$work/valgrind.log"
  echo "--- commands" && cat "$work/record" 2>/dev/null || true
}
if [[ $status -ne 0 ]]; then
  show
  echo "FAIL: exit status $status (99: memcheck found errors or a definite leak)"
  exit 1
fi

expected="systemctl stop kxagent
$install $work/tmp/$package
systemctl start kxagent"
# apt-get or dnf may come between stop and install when the display
# libraries are due; the update itself is these three, in this order.
calls=$(grep -v '^apt-get \|^dnf ' "$work/record" 2>/dev/null || true)
if [[ $calls != "$expected" ]] || ! cmp -s "$tree/$package" "$work/tmp/$package" ||
  ! grep -q 'Agent Update done' "$work/update.out"; then
  show
  echo "FAIL: the update is not complete"
  exit 1
fi
sed -n "/HEAP SUMMARY/,\$p" "$work/valgrind.log"
echo "--- commands" && cat "$work/record"
echo "PASS"
