# shellcheck shell=bash
# Shell helpers shared by the scripts that run the real program against a
# loopback kx_test_server: the demo, the benchmarks and the valgrind test.
# Source it; nothing runs on its own.

# Directory of the legacy Linux layout for this machine's processor
# ("amd64", "aarch64"); nothing, and status 1, for any other processor.
kx_arch_dir() {
  case $(uname -m) in
    x86_64 | amd64) echo amd64 ;;
    aarch64 | arm64) echo aarch64 ;;
    *) return 1 ;;
  esac
}

# The program takes the server address as hex text, two digits per byte.
kx_hex() {
  printf %s "$1" | od -An -tx1 -v | tr -d ' \n'
}

# Copies the recording stand-in under each command name into a directory
# that callers put first in PATH.
#   kx_install_shims <shim script> <directory> <command>...
kx_install_shims() {
  local shim=$1 dir=$2 cmd
  shift 2
  for cmd in "$@"; do
    cp "$shim" "$dir/$cmd"
    chmod 755 "$dir/$cmd"
  done
}

# Starts a server program that prints its port as its first line, and waits
# for that line (as long as the start takes, at most 20 s). Sets
# KX_SERVER_PID and KX_SERVER_PORT; status 1 when it did not start.
#   kx_start_server <program> <args>...
kx_start_server() {
  coproc KX_SERVER_IO { exec "$@"; }
  KX_SERVER_PID=$KX_SERVER_IO_PID
  KX_SERVER_PORT=
  read -r -t 20 KX_SERVER_PORT <&"${KX_SERVER_IO[0]}" || return 1
  [[ $KX_SERVER_PORT =~ ^[0-9]+$ ]]
}

# Stops the server started by kx_start_server, if any; safe to call twice.
kx_stop_server() {
  if [[ -n ${KX_SERVER_PID:-} ]]; then
    kill "$KX_SERVER_PID" 2>/dev/null || true
    wait "$KX_SERVER_PID" 2>/dev/null || true
    KX_SERVER_PID=
  fi
}
