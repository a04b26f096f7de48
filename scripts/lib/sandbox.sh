# shellcheck shell=bash
# Shell helpers shared by the scripts that run the real program against a
# loopback static-file server: the demo and the benchmarks. Source it;
# nothing runs on its own.

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

# Serves a directory on 127.0.0.1 with Python's static-file server (HEAD with
# the size, 404 for what is missing, one line per request on its standard
# error), and waits for it to listen (as long as the start takes, at most
# 20 s). Sets KX_SERVER_PID and KX_SERVER_PORT; status 1 when it did not start.
# With a rate, file bodies go out at that many bytes a second.
#   kx_start_server <directory> [<request log>] [<bytes per second>]
kx_start_server() {
  local line paced
  paced=$(dirname "${BASH_SOURCE[0]}")/paced_http.py
  if [[ -n ${3:-} ]]; then
    coproc KX_SERVER_IO { exec python3 -u "$paced" "$1" "$3" 2>"${2:-/dev/null}"; }
  else
    coproc KX_SERVER_IO { exec python3 -u -m http.server --bind 127.0.0.1 --directory "$1" 0 2>"${2:-/dev/null}"; }
  fi
  KX_SERVER_PID=$KX_SERVER_IO_PID
  KX_SERVER_PORT=
  read -r -t 20 line <&"${KX_SERVER_IO[0]}" || return 1
  [[ $line =~ port\ ([0-9]+) ]] && KX_SERVER_PORT=${BASH_REMATCH[1]}
  [[ -n $KX_SERVER_PORT ]]
}

# Stops the server started by kx_start_server, if any; safe to call twice.
kx_stop_server() {
  if [[ -n ${KX_SERVER_PID:-} ]]; then
    kill "$KX_SERVER_PID" 2>/dev/null || true
    wait "$KX_SERVER_PID" 2>/dev/null || true
    KX_SERVER_PID=
  fi
}
