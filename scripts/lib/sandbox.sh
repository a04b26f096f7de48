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

# The median of the numbers given (the mean of the middle two for an even
# count): what the benchmarks report of their rounds.
kx_median() {
  printf '%s\n' "$@" | sort -n | awk '{v[NR]=$1} END {print (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2)}'
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

# Serves a directory as static files with nginx on 127.0.0.1, as a publisher
# would, but unprivileged: the master runs as nobody/nogroup (the directory
# must be readable by them), from a configuration of its own in <state dir>
# (made and given to nobody), which also holds its pid file, logs and
# temporary directories; nothing of the machine's nginx set-up is read. It
# stops with the calling shell. One line a request in <state dir>/access.log:
# method, URI, status, bytes sent, "user agent", the connection's serial
# number. Sets KX_NGINX_PID and
# KX_NGINX_PORT; status 1 when it did not start (why is in error.log there).
#   kx_start_nginx <directory> <state dir> [<connections per worker>]
kx_start_nginx() {
  local root=$1 dir=$2 conns=${3:-256} _
  mkdir -p "$dir"
  chown nobody:nogroup "$dir"
  for _ in 1 2 3 4 5 6 7 8; do
    # Below the ephemeral range, where outgoing connections take theirs.
    KX_NGINX_PORT=$((20000 + RANDOM % 12000))
    cat >"$dir/nginx.conf" <<EOF
daemon off;
pid nginx.pid;
worker_processes auto;
worker_rlimit_nofile $((2 * conns + 64));
events { worker_connections $conns; }
http {
  types { application/json json; text/plain txt md5; }
  default_type application/octet-stream;
  sendfile on;
  log_format kx '\$request_method \$request_uri \$status \$bytes_sent "\$http_user_agent" \$connection';
  access_log access.log kx;
  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi; uwsgi_temp_path uwsgi; scgi_temp_path scgi;
  server {
    listen 127.0.0.1:$KX_NGINX_PORT backlog=4096;
    root "$root";
    location / { try_files \$uri =404; }
  }
}
EOF
    rm -f "$dir/nginx.pid"
    setpriv --reuid=nobody --regid=nogroup --clear-groups --pdeathsig=TERM \
      nginx -p "$dir/" -c nginx.conf -e error.log </dev/null &
    KX_NGINX_PID=$!
    # nginx writes its pid file once its socket listens.
    while [[ ! -s $dir/nginx.pid ]] && kill -0 "$KX_NGINX_PID" 2>/dev/null; do sleep 0.02; done
    kill -0 "$KX_NGINX_PID" 2>/dev/null && return 0
    wait "$KX_NGINX_PID" 2>/dev/null || true
    KX_NGINX_PID=
    grep -q 'Address already in use' "$dir/error.log" || return 1
  done
  return 1
}

# Stops the nginx of kx_start_nginx and waits for it, so that its access log
# is complete; safe to call twice.
# A TERM that lands while the master is still starting only sets a flag it
# reads on the next signal: TERM again, for at most five seconds, then KILL.
kx_stop_nginx() {
  if [[ -n ${KX_NGINX_PID:-} ]]; then
    local i
    for ((i = 0; i < 100; i++)); do
      # Gone, or a zombie waiting for us: done.
      [[ $(awk '{print $3}' "/proc/$KX_NGINX_PID/stat" 2>/dev/null) =~ ^[^Z]$ ]] || break
      ((i % 5 == 0)) && kill "$KX_NGINX_PID" 2>/dev/null
      sleep 0.05
    done
    kill -KILL "$KX_NGINX_PID" 2>/dev/null || true
    wait "$KX_NGINX_PID" 2>/dev/null || true
    KX_NGINX_PID=
  fi
}

# Runs a command in a mount namespace of its own whose /etc/opt is an empty
# tmpfs (mode 0755): the agent's configuration the program reads and writes
# there is the command's alone, and the machine's /etc stays as it was.
#   kx_private_etc_opt <command> [<argument>...]
kx_private_etc_opt() {
  [[ -d /etc/opt ]] || { echo "no /etc/opt to hide behind a tmpfs" >&2; return 1; }
  # shellcheck disable=SC2016 # expanded by the inner shell
  unshare -m --propagation private sh -ec 'mount -t tmpfs -o mode=0755 tmpfs /etc/opt && exec "$@"' - "$@"
}
