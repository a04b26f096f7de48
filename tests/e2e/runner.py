#!/usr/bin/env python3
# runner.py <bin dir> <cases file> <case name>: one case of a .cases file (format at the top of update.cases).
# Exit status: 0 passed, 1 failed (what differed is printed), 77 skipped.
import copy, hashlib, json, os, platform, random, re, resource, shlex, shutil, signal, socket, ssl, stat
import subprocess, sys, tempfile, threading, time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import unquote, urlsplit

HERE = os.path.dirname(os.path.abspath(__file__))
PAGE = b"<html><head><title>Error</title></head>\n<body>Not here</body></html>\n"
COMMANDS = "hdiutil installer launchctl systemctl dpkg rpm apt-get dnf synopkg net arch".split()
ATTACH = "/dev/disk4          \tGUID_partition_scheme          \t\n/dev/disk4s1        \tApple_HFS                      \t/Volumes/Kx Agent\n"
PLIST = "/Library/LaunchDaemons/com.kxagent.plist"
MACCONF = "/Library/Application Support/KX"
MACCACHE = "/Library/Caches/KX"
# A laid-out tree as a publisher serves it, static files only; each request a line of access.log.
NGINX_CONF = """pid nginx.pid; worker_processes 1; events {{}} http {{ types {{ application/json json; }} default_type text/plain;
  log_format kx '$request_method $request_uri $status $http_range $http_user_agent'; access_log access.log kx; client_body_temp_path body;
  proxy_temp_path proxy; fastcgi_temp_path fastcgi; uwsgi_temp_path uwsgi; scgi_temp_path scgi; server {{ listen 127.0.0.1:{port};
  root "{root}"; location / {{ try_files $uri =404; }} }} }}"""
# Seconds: what all the waits of one case may take together, and what any one stop may take (a process that outlasts it is
# killed). A case needs a few; the budget and the stops after it stay below ctest's TIMEOUT (120), so that a stuck case is
# told here, with what it waited for.
BUDGET, STOP = 80, 5
FROZEN = 1767225600000  # what the wall clock reads under "frozen": 2026-01-01 00:00:00 UTC
LOG_LINE = re.compile(r"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] - [A-Z]{4}:[A-Z]{3} - \[ \([^:]*:\d+\)\] - (.*)")
XCB = ("libxrender1 libxcb1 libxcb-render0 libxcb-render-util0 libxcb-shape0 libxcb-randr0 libxcb-xfixes0 libxcb-xkb1 libxcb-sync1 "
       "libxcb-shm0 libxcb-icccm4 libxcb-keysyms1 libxcb-image0 libxcb-util1 libxcb-cursor0 libxkbcommon0 libxkbcommon-x11-0 "
       "libfontconfig1 libfreetype6 libxext6 libx11-xcb1 libsm6 libice6")
# What each flow publishes, runs and asks for: "upto" is everything before the
# decision to download, "update" a whole run with one download.
REQUESTS = {"def": "GET:/agent_setup_def.json", "version": "GET:$D/version_long.txt", "md5": "GET:$D/$PKG.md5",
            "head": "HEAD:$D/$PKG", "get": "GET:$D/$PKG", "headpkg": "HEAD:$D/setup.pkg", "release": "relj relsig",
            "relj": "GET:/release.json", "relsig": "GET:/release.json.minisig"}
FLOWS = {
    "linux": dict(D="/linux/amd64", pkg="setup.deb", versions=["$D"], requests=dict(REQUESTS, upto="def version",
                  update="upto md5 head get"), calls=dict(stop="systemctl stop kxagent", install="dpkg -i $T/setup.deb",
                  start="systemctl start kxagent", update="stop install start", x11="dpkg -S libX11", xcb="apt-get install -y " + XCB)),
    "mac": dict(D="/macosx/amd64", pkg="setup.dmg", versions=["$D", "/macosx"], requests=dict(REQUESTS, upto="def version headpkg head",
                update="upto md5 get"), calls=dict(attach="hdiutil attach $T/setup.dmg -nobrowse", stop=f"launchctl unload {PLIST}",
                install="installer -target / -pkg '/Volumes/Kx Agent/set.pkg'", detach="hdiutil detach /dev/disk4s1",
                start=f"launchctl load {PLIST}", update="attach stop install detach start")),
}


def ended(p, timeout):  # within the timeout
    try:
        p.wait(timeout)
        return True
    except subprocess.TimeoutExpired:
        return False


# p's pid names its group for as long as p is not reaped, so killpg reaches nothing else; a process that leads no group goes alone.
def kill_group(p):
    try:
        os.killpg(p.pid, signal.SIGKILL)
    except ProcessLookupError:
        p.kill()


# Words at blanks; shell quoting only where the text has quotes, so that an unquoted \n stays as written.
def split(text):
    return shlex.split(text) if re.search("['\"]", text) else text.split()


def unescape(text):
    return text.encode("latin-1", "backslashreplace").decode("unicode_escape").encode("latin-1")


# The BODY of an answer or of a planted file (see update.cases).
def body_of(text, case):
    if m := re.fullmatch(r"pkg([+-]\d+)?", text):
        return (case.package * 2)[:len(case.package) + int(m.group(1) or 0)]
    if m := re.fullmatch(r"(junk|lines):(\d+)", text):
        unit, n = (b"x" if m.group(1) == "junk" else b"o" * 99 + b"\n"), int(m.group(2))
        body = (unit * (n // len(unit) + 1))[:n]
        return body if unit == b"x" else body[:-1] + b"\n"  # whole lines, none of them a log line
    if text.startswith("@"):
        return Path(text[1:]).read_bytes()
    if m := re.fullmatch(r"def:([^,]*),([^,]*)", text):  # a definition file whose one entry fits this machine
        os_code = 2 if case.flow["name"] == "mac" else 3
        return (f'[{{"name": "n", "path": "{m[1]}", "setup": "{m[2]}", "version": "version_long.txt", "hash": "{m[2]}.md5", '
                f'"os": {os_code}, "arch": 1, "enable": true}}]').encode()
    return unescape(text[1:]) if text.startswith("=") else {
        "other": lambda: bytes(b ^ 0x5A for b in case.package), "page": lambda: PAGE, "big": lambda: b"7.3.0.0 " * (1 << 20),
        "md5": lambda: f"{hashlib.md5(case.package).hexdigest()}  {case.flow['pkg']}\n".encode()}[text]()


class Answer:
    def __init__(self, answer, case):
        body, *mods = answer.split(",") if not answer.startswith(("=", "def:")) else (answer, )
        body, mods = ("page", [body] + mods) if body.startswith("redirect=") else (body, mods)
        self.status, body = (int(body), "page") if re.fullmatch(r"\d{3}", body) else (200, body)
        self.body, self.location, self.fault, self.etag, self.ranges = body_of(body, case), None, None, None, "honoured"
        for m in mods:
            if m.startswith("redirect="):
                self.status, self.body, self.location = 302, b"", m[9:]
            elif m.startswith("etag="):  # names the body, which then comes in ranges as nginx sends them
                self.etag = f'"{m[5:]}"'
            elif m in ("norange", "badrange"):  # a range answered with the whole body, or with one from its start
                self.ranges = m
            else:
                self.fault = m


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, case, tls):
        super().__init__(("127.0.0.1", 0), Handler)
        self.case = case
        if tls:
            key, cert = case.path("key.pem"), case.path("cert.pem")
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                            key, "-out", cert, "-subj", "/CN=127.0.0.1", "-days", "2"], check=True, capture_output=True, timeout=30)
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(cert, key)
            self.socket = ctx.wrap_socket(self.socket, server_side=True)
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self.server_address[1]}"
        threading.Thread(target=self.serve_forever, args=(0.02, ), daemon=True).start()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    log_message = lambda *args: None
    do_HEAD = lambda self: self.respond(head=True)
    do_GET = lambda self: self.respond(head=False)

    def respond(self, head):
        case = self.server.case
        if self.headers.get("User-Agent") != "Updater/1.0.0":
            case.failures.append(f"{self.command} {self.path} came as {self.headers.get('User-Agent')!r}")
        wanted = self.headers.get("Range")
        a = case.answer_for(self.command, self.path, wanted)
        if a.fault == "silent":
            return case.stopping.wait()
        m = re.fullmatch(r"bytes=(\d+)-", wanted or "")
        start = int(m[1]) if m and a.etag and a.ranges != "norange" and self.headers.get("If-Range", a.etag) == a.etag else None
        if start is not None and start < len(a.body) and a.status == 200:
            whole, a = a.body, copy.copy(a)  # the answer is shared by later turns
            start = 0 if a.ranges == "badrange" else start
            a.status, a.body = 206, whole[start:]
        self.send_response(a.status)
        if a.status == 206:
            self.send_header("Content-Range", f"bytes {start}-{len(whole) - 1}/{len(whole)}")
        if a.etag:
            self.send_header("ETag", a.etag)
        if a.location:
            self.send_header("Location", a.location)
        self.close_connection = a.fault in ("nolength", "endless", "short", "reset")
        if a.fault not in ("nolength", "endless"):
            length = a.fault[7:] if (a.fault or "").startswith("length=") else len(a.body)
            self.send_header(*(("Transfer-Encoding", "chunked") if a.fault == "chunked" else ("Content-Length", length)))
        self.end_headers()
        try:
            while a.fault == "endless" and not head and not case.stopping.is_set():
                self.wfile.write(a.body)
            body = a.body[:len(a.body) // 2] if a.fault in ("short", "reset") else a.body
            if a.fault == "chunked":
                body = b"".join(b"%x\r\n%s\r\n" % (len(body[i:i + 999]), body[i:i + 999]) for i in range(0, len(body), 999)) + b"0\r\n\r\n"
            if (a.fault or "").startswith("rate=") and not head:  # paced, as a slow link would send it
                per = int(a.fault[5:])
                for i in range(0, len(body), max(1, per // 20)):
                    if case.stopping.is_set():
                        break
                    self.wfile.write(body[i:i + max(1, per // 20)])
                    self.wfile.flush()
                    time.sleep(max(1, per // 20) / per)
                body = b""
            self.wfile.write(b"" if head else body)
            if a.fault == "reset":
                self.wfile.flush()
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        except OSError:
            self.close_connection = True


class Case:
    def __init__(self, bindir, lines):
        self.deadline = time.monotonic() + BUDGET
        # On a memory file system where there is one: deleting files from a disk
        # mounted with discard costs more than the run itself.
        self.dir = tempfile.mkdtemp(prefix="kx-case-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None)
        os.chmod(self.dir, 0o755)
        self.T, self.W, self.S, self.E = (self.path(d) for d in ("T", "W", "S", "etc"))
        [os.mkdir(d, 0o755) for d in (self.T, self.W, self.S, self.E)]
        [shutil.copy(os.path.join(HERE, "shim"), os.path.join(self.S, c)) for c in COMMANDS]
        self.bindir, self.failures, self.routes, self.decoys, self.env, self.configs = bindir, [], {}, {}, {}, []
        self.requests, self.unexpected, self.lock, self.stopping = [], [], threading.Lock(), threading.Event()
        self.tree, self.nginx, self.gone, self.listener = None, None, set(), socket.create_server(("127.0.0.1", 0))
        self.opts, self.batch, self.log_at, self.package = {}, [], 0, random.Random(7).randbytes(100000)
        self.calls_log = self.path("calls.log")
        Path(self.calls_log).touch()
        self.servers = [Server(self, ("tls", "") in lines)] + ([Server(self, False)] if "$MIRROR" in str(lines) else [])
        self.refused = socket.socket()  # bound, never listening: every connection is refused
        self.refused.bind(("127.0.0.1", 0))

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def where(self, name):
        return self.subst(name) if name.startswith("$") else os.path.join(self.T, name)

    def subst(self, text):
        url = f"http://127.0.0.1:{self.listener.getsockname()[1]}" if self.tree else self.servers[0].url
        md5 = hashlib.md5(self.package).hexdigest()
        refused = f"http://127.0.0.1:{self.refused.getsockname()[1]}"
        for k, v in (("$T", self.T), ("$W", self.W), ("$D", self.flow["D"]), ("$PKG", self.flow["pkg"]), ("$PID", self.path("pid")),
                     ("$NOW", str(FROZEN)), ("$UPDATE", self.program), ("$URLTEXT", url), ("$URLAUTH", url.replace("://", "://kx:secret@").encode().hex()),
                     ("$URLUP", url.encode().hex().upper()), ("$URLMAX", (url + "/" + "a" * (4094 - len(url))).encode().hex()),
                     ("$URL", url.encode().hex()), ("$C", self.dir),
                     ("$OMD5", hashlib.md5(body_of("other", self)).hexdigest()), ("$MIRROR", self.servers[-1].url), ("$REFUSEDTEXT", refused),
                     ("$REFUSED", refused.encode().hex()), ("$UMD5", md5.upper()), ("$MD5", md5)):
            text = text.replace(k, v)
        return re.sub(r"\{([^{}*]+)\*(\d+)\}", lambda m: m.group(1) * int(m.group(2)), text)

    def set_flow(self, name):
        self.flow, self.routes = dict(FLOWS[name], name=name), {}
        self.program = os.path.join(self.bindir, f"update-{'linux' if name == 'linux' else 'macos'}")
        for path, answer in (("def", "404"), ("version", "=" + self.opts.get("published", "7.3.0.0\\n")), ("pkg", "pkg"),
                             ("md5", "md5")) + ((("$D/setup.pkg", "404"), ) if name == "mac" else ()):
            self.route(path, answer)
        if name == "mac":
            Path(self.S, "hdiutil.out").write_text(ATTACH)

    def route(self, path, *answers):
        paths = [self.subst(p) for p in {"def": ["/agent_setup_def.json"], "version": [d + "/version_long.txt" for d in self.flow[
            "versions"]], "pkg": ["$D/$PKG"], "md5": ["$D/$PKG.md5"]}.get(path, [path])]
        a = Answer(self.subst(answers[0]), self)
        if self.tree and len(answers) == 1 and not path.endswith("*") and a.fault is a.location is None and a.status in (200, 404):
            for p in paths:  # nginx serves the tree: the answer becomes the file, a 404 its absence
                f, _ = Path(self.tree, p.lstrip("/")), a.status == 404 and self.gone.add(p)
                f.unlink(missing_ok=True) if a.status == 404 else (f.parent.mkdir(parents=True, exist_ok=True), f.write_bytes(a.body))
            return
        if self.tree:  # an answer nginx cannot give: the fault server serves the tree as it is now, for the rest of the case
            tree, self.tree = self.tree, self.stop_nginx()
            [self.route("/" + os.path.relpath(os.path.join(d, f), tree), "@" + os.path.join(d, f)) for d, _, fs in os.walk(tree) for f in fs]
        for p in paths:
            self.routes[p] = [Answer(self.subst(a), self) for a in answers]

    # nginx as nobody, configured in the case's directory, on a socket the runner holds (handed over as nginx hands its own to a
    # new binary): ready at once, one address across restarts; a stop is what completes its access log.
    def serve_tree(self, root):
        self.stop_nginx()
        d, self.tree, fd = self.path("nginx"), root, self.listener.fileno()
        os.makedirs(d, exist_ok=True), shutil.chown(d, "nobody", "nogroup")
        Path(d, "nginx.conf").write_text(NGINX_CONF.format(port=self.listener.getsockname()[1], root=root))
        self.nginx = subprocess.Popen(["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--pdeathsig=TERM", "nginx", "-p",
                                       d + "/", "-c", "nginx.conf", "-e", "error.log"], env={"NGINX": f"{fd};", "PATH": "/usr/sbin:/usr/bin"},
                                      pass_fds=(fd, ), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                      start_new_session=True)

    # A TERM that comes while the master is still starting (a case that asks nothing stops it milliseconds after the start) only
    # sets a flag, which the master reads when the next signal wakes it from sigsuspend: TERM again until it is gone.
    def stop_nginx(self):
        if p := self.nginx:
            self.nginx = None
            p.poll() is None or self.failures.append("nginx ended: " + Path(self.path("nginx", "error.log")).read_text()[-2000:])
            for _ in range(STOP * 4):
                p.terminate()
                if ended(p, 0.25):
                    break
            else:
                self.failures.append(f"nginx did not stop within {STOP} s of SIGTERM")
                kill_group(p)  # its worker too, which a master that ends of itself has ended first
                ended(p, STOP) or self.failures.append(f"nginx still there {STOP} s after SIGKILL")
        log = Path(self.path("nginx", "access.log"))
        for method, uri, status, wanted, agent in (line.split(" ", 4) for line in (log.read_text("latin-1").splitlines() if log.exists() else [])):
            self.requests.append(f"{method} {uri}" + (f" range={wanted[6:]}" if wanted != "-" else ""))
            agent == "Updater/1.0.0" or self.failures.append(f"{method} {uri} came as {agent!r}")
            status != "404" or unquote(urlsplit(uri).path) in self.gone or self.unexpected.append(f"{method} {uri}")
        log.unlink(missing_ok=True)

    def answer_for(self, method, path, wanted=None):
        with self.lock:
            self.requests.append(f"{method} {path}" + (f" range={wanted[6:]}" if wanted else ""))
            p = unquote(urlsplit(path).path)
            turns = self.routes.get(p) or next((v for k, v in self.routes.items() if k.endswith("*") and p.startswith(k[:-1])), None)
            if turns is None:
                self.unexpected.append(f"{method} {path}")
                return Answer("404", self)
            return turns.pop(0) if len(turns) > 1 else turns[0]

    def expand(self, words, table, sep=""):
        out = []
        for w in words:
            w, _, times = w.partition("*")
            one = table.get(w, w)
            macro = one != w and all(x in table for x in one.split())
            out += (self.expand(one.split(), table, sep) if macro else [self.subst(one.replace(sep, " ", 1) if sep else one)]) * int(times or 1)
        return out

    # What an attacker would do, aimed at decoys in $W: a decoy must stay as it was.
    def plant(self, kind, where, arg=None):
        where, arg = self.where(where), arg and self.subst(arg)
        if kind in ("link", "hardlink", "decoy"):
            if kind == "hardlink" and not os.path.exists(arg):
                Path(arg).write_text("decoy\n")
            self.decoys[arg] = open(arg, "rb").read() if os.path.isfile(arg) else None
        if kind in ("link", "hardlink"):
            (os.symlink if kind == "link" else os.link)(arg, where)
        elif kind in ("fifo", "socket", "dir"):
            os.mkfifo(where) if kind == "fifo" else os.makedirs(where) if kind == "dir" else socket.socket(socket.AF_UNIX).bind(where)
        elif kind == "file":
            os.makedirs(os.path.dirname(where), exist_ok=True)
            Path(where).write_bytes(body_of(arg, self))

    def run(self, args):
        o = self.opts
        env = {k: v for k, v in os.environ.items() if k != "KX_AGENT_INSTANCE"}
        env.update(TMPDIR=self.T, PATH=f"{self.S}:{os.environ['PATH']}", KX_SHIM_RECORD=self.calls_log, KX_SHIM_DIR=self.S)
        if "frozen" in o:
            env.update(LD_PRELOAD=os.environ["KX_FROZEN_CLOCK"], KX_FROZEN_MS=str(FROZEN), TZ="UTC",
                       ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0")
        if "strace" in o:  # LeakSanitizer cannot run under ptrace; the rest of the sanitizers can
            env.update(ASAN_OPTIONS=env.get("ASAN_OPTIONS", "") + ":detect_leaks=0")
        env.update({k: self.subst(v) for k, v in self.env.items()})
        # /etc/opt hidden behind a directory of the case's own, which keeps what
        # one run writes there for the next: no real configuration is read or written.
        # /var/cache likewise: a signed install keeps its package there when no database directory is configured.
        os.makedirs(self.path("var-cache"), exist_ok=True)
        setup = [f"mount --bind {self.E} /etc/opt", f"mount --bind {self.path('var-cache')} /var/cache"]
        for i, (instance, content) in enumerate(self.configs):
            Path(self.path(f"cfg{i}")).write_bytes(content)
            d = "/etc/opt/kx/conf" + ("." + instance if instance else "")
            setup.append(f"mkdir -p {shlex.quote(d)} && cp {self.path(f'cfg{i}')} {shlex.quote(d)}/dbdir.cfg")
        if "disk" in o:
            setup.append(f"mount -t tmpfs -o size={o['disk']},mode=0755 tmpfs {self.T}")
        prefix = {"arch32": ["setarch", "linux32"], "valgrind": ["valgrind", "-q", "--error-exitcode=99", "--leak-check=full",
                  "--errors-for-leak-kinds=definite"], "user": ["setpriv", f"--reuid={o.get('user')}", f"--regid={o.get('user')}",
                  "--clear-groups"], "strace": ["strace", "-f", "-qq", "-e", "signal=none", "-o", self.path("strace.log"),
                  "-e", "trace=fsync,fdatasync,rename,renameat,renameat2"]}
        prefix = next((v for k, v in prefix.items() if k in o), [])
        # Copied where another user can reach it, whatever the mode of the checkout's directories.
        program = shutil.copy(self.program, self.path("update")) if "user" in o else self.program
        cmd = ['sh', '-c', 'echo $$ > "$0" && exec "$@"', self.path("pid"), *prefix, program, *[self.subst(a) for a in args]]
        root = []
        if self.flow["name"] == "mac":  # macOS's configuration root, on a / of the run's own that has it
            r, root = self.path("root"), ["chroot", self.path("root")]
            os.makedirs(self.path("etc/kx"), exist_ok=True)
            os.makedirs(self.path("mac-cache"), exist_ok=True)  # kept from one run of the case to the next, as the cache is
            setup.append(f"mkdir -p {r} && mount -t tmpfs -o mode=0755 tmpfs {r} && for e in /*; do if [ -L $e ]; then cp -P $e {r}; "
                         f"elif [ -d $e ]; then mkdir {r}$e && mount --rbind $e {r}$e; fi; done && mkdir -p '{r}{MACCONF}' && "
                         f"mount --bind {self.path('etc/kx')} '{r}{MACCONF}' && mkdir -p {r}{MACCACHE} && "
                         f"mount --bind {self.path('mac-cache')} {r}{MACCACHE}")
        cmd = ["unshare", "-m", "--propagation", "private", "sh", "-ec", " && ".join(setup) + ' && exec "$@"', "-", *root, *cmd]
        umask, fsize = int(o.get("umask", "022"), 8), int(o.get("fsize", 64 << 20))

        def child():
            # A program that writes without end fills a file only up to the limit
            # (the sandbox may live in memory), and gets EFBIG rather than a signal.
            # A group of its own from the start, mounts included (the program makes
            # one itself only once it runs): a kill reaches all that the run started.
            os.setpgid(0, 0)
            os.umask(umask)
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (fsize, fsize))

        stdin_r, stdin_w = os.pipe()  # held open: a command that read it would wait for ever
        gone_r, gone_w = os.pipe()  # a reader that went away, for "stdout gone"
        os.close(gone_r)
        procs = [subprocess.Popen(cmd, stdin=stdin_r, stdout=gone_w if o.get("stdout") == "gone" else subprocess.PIPE,
                                  stderr=subprocess.PIPE, env=env, cwd=self.T, preexec_fn=child) for _ in range(int(o.get("parallel", 1)))]
        [os.close(fd) for fd in (stdin_r, gone_w)]
        self.batch = [self.wait(p, float(o.get("timeout", 60)), "the program") for p in procs]
        os.close(stdin_w)

    # kx-publish in the case's directory; each <platform>=<name> gets a package
    # file of that name, and a tree that "layout" wrote is then all the server has.
    def publish(self, args):
        os.makedirs(self.path("src"), exist_ok=True)
        for i, a in enumerate(args):
            if m := re.fullmatch(r"(\w+/\w+)=([^/]+)", a):
                args[i] = f"{m[1]}={Path(self.path('src'), m[2])}"
                Path(args[i].split("=", 1)[1]).write_bytes(self.package)
        p = subprocess.Popen([os.path.join(self.bindir, "kx-publish"), *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             cwd=self.dir, env=dict(os.environ, TMPDIR=self.T), start_new_session=True)
        self.batch = [self.wait(p, 60, "kx-publish")]
        if args[0] == "layout" and self.batch[0][0] == "0":
            self.routes, self.opts["lenient"] = {}, True
            self.serve_tree(self.path(args[1]))

    # Its status and output; past the timeout (or the case's budget), or when its output stays open after it ended, "timeout" and
    # all of its group killed.
    def wait(self, p, timeout, what):
        bound = max(0, min(timeout, self.deadline - time.monotonic()))
        try:
            out, err = p.communicate(timeout=bound)
            status = p.returncode if p.returncode >= 0 else f"signal {-p.returncode}"
        except subprocess.TimeoutExpired:
            if os.waitid(os.P_PID, p.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT):  # not reaping it keeps its group's id its own
                self.failures.append(f"{what} ended but its output stayed open for {bound:.0f} s: something it started holds it")
            elif bound < timeout:
                self.failures.append(f"{what} was still running when the case had used up its {BUDGET} s")
            kill_group(p)
            status = "timeout"
            try:
                out, err = p.communicate(timeout=STOP)
            except subprocess.TimeoutExpired:  # held by a process outside the group, or one that does not die
                self.failures.append(f"{what}: {'output still open' if p.poll() is not None else 'still there'} {STOP} s after SIGKILL")
                [f.close() for f in (p.stdout, p.stderr) if f]
                out, err = b"", b""
        return str(status), (out or b"").decode("latin-1"), (err or b"").decode("latin-1")

    def messages(self):
        log = Path(self.where(self.opts.get("logfile", "agent_upd.log")))
        lines = log.read_bytes().decode("latin-1").split("\n") if log.is_file() else []
        return [m.group(1) for m in map(LOG_LINE.fullmatch, lines) if m]

    def calls(self):
        return Path(self.calls_log).read_text().splitlines()

    def matches(self, pattern):
        want = self.subst(pattern)
        return (lambda m: m.startswith(want[:-1])) if want.endswith("*") else (lambda m: m.rstrip() == want)

    def compare(self, what, want, got):
        if want != got:
            self.failures.append(f"{what}: expected\n  " + "\n  ".join(map(str, want)) + "\ngot\n  " + "\n  ".join(map(str, got)))

    def check(self, key, rest):
        _, out, err = self.batch[-1] if self.batch else ("-", "", "")
        words, msgs = split(rest) if key in ("calls", "requests", "file") else [], self.messages()
        if key == "exit":
            self.compare("exit", [rest] * len(self.batch), [s for s, _, _ in self.batch])
        elif key == "outcome":
            code, calls, lock, message = (rest.split(None, 3) + [""])[:4]
            self.check("exit", code)
            if calls != "-":
                self.check("calls", calls)
            if lock != "-":
                self.check("file", "upgrade_ovk.lock " + ("exists" if lock == "lock" else "absent"))
            decisive = msgs[-2] if len(msgs) > 1 and msgs[-1] == "Remove lock file" else (msgs or [""])[-1]
            if message and not self.matches(message)(decisive):
                self.compare("decisive message", [self.subst(message)], [decisive])
        elif key == "log":
            hit, at = self.matches(rest), self.log_at
            while at < len(msgs) and not hit(msgs[at]):
                at += 1
            if at == len(msgs):
                self.failures.append(f"missing or out of order in the log: {self.subst(rest)!r}")
            self.log_at = at + 1
        elif key == "last" and not (msgs and self.matches(rest)(msgs[-1])):
            self.compare("last message", [self.subst(rest)], msgs[-1:])
        elif key == "nolog" and any(self.subst(rest) in m for m in msgs):
            self.failures.append(f"logged although it must not be: {self.subst(rest)}")
        elif key == "count":
            n, _, what = rest.partition(" ")
            self.compare(f"messages {what}", [int(n)], [sum(map(self.matches(what), msgs))])
        elif key in ("out", "err"):
            text, want = (out if key == "out" else err), self.subst(unescape(rest).decode("latin-1"))
            if not (text == want[1:] if want.startswith("=") else want in text if want else text == ""):
                self.compare(f"standard {key}", [want], [text[:2000]])
        elif key == "record":  # last-run.json beside the log: KEY=VALUE ..., VALUE as JSON text or a plain word
            path = os.path.join(os.path.dirname(self.where(self.opts.get("logfile", "agent_upd.log"))), "last-run.json")
            got = json.loads(Path(path).read_text()) if os.path.isfile(path) else {}
            for k, _, v in (w.partition("=") for w in split(self.subst(rest))):
                if json.dumps(got.get(k)) != v and str(got.get(k)) != v:
                    self.failures.append(f"record {k}: expected {v}, got {json.dumps(got.get(k))}")
        elif key == "row":
            platform, _, verdict = self.subst(rest).partition(": ")
            rows = [r.rstrip() for r in out.splitlines() if r.startswith(platform + " ")]
            if not any(r.endswith(verdict) for r in rows):
                self.compare(f"row of {platform}", [verdict], rows)
        elif key == "trace":  # the run's system calls under "strace": one matching each pattern, in this order
            log = Path(self.path("strace.log"))
            calls, at = log.read_text().splitlines() if log.exists() else ["(no trace: a case needs strace before its run)"], 0
            for pattern in split(rest):
                at = next((i + 1 for i in range(at, len(calls)) if re.search(self.subst(pattern), calls[i])), None)
                if at is None:
                    self.failures.append(f"trace: no {pattern!r} where expected in\n  " + "\n  ".join(calls))
                    break
        elif key in ("calls", "requests"):
            key == "requests" and self.tree and self.serve_tree(self.tree)
            table, sep = (self.flow["calls"], "") if key == "calls" else (self.flow["requests"], ":")
            self.compare(key, [] if words == ["none"] else self.expand(words, table, sep), self.calls() if key == "calls" else self.requests)
        elif key == "file":
            path, kind, arg = self.where(words[0]), words[1], " ".join(words[2:])
            st = os.lstat(path) if os.path.lexists(path) else None
            content = lambda: open(path, "rb").read() if stat.S_ISREG(st.st_mode) else None  # a FIFO's open would wait for a writer
            ok = {"absent": lambda: st is None, "exists": lambda: True, "link": lambda: stat.S_ISLNK(st.st_mode),
                  "dir": lambda: stat.S_ISDIR(st.st_mode), "package": lambda: content() == self.package,
                  "text": lambda: content() == unescape(self.subst(arg)), "mode": lambda: stat.S_IMODE(st.st_mode) == int(arg, 8),
                  "size": lambda: st.st_size == int(arg), "below": lambda: st.st_size < int(arg),
                  "owner": lambda: st.st_uid == int(arg)}[kind]
            if not ((st is not None or kind == "absent") and ok()):
                self.failures.append(f"file {path}: expected {kind} {arg}")
        elif key not in ("last", "nolog"):
            raise SystemExit(f"unknown line: {key} {rest}")

    # Also after an error of the runner itself: nothing stays behind, and no stop waits without a bound.
    def close(self):
        self.stopping.set()
        self.stop_nginx()
        # A client stuck in its TLS handshake would hold the serving thread: the handshake is part of its accept().
        stops = [threading.Thread(target=s.shutdown, daemon=True) for s in self.servers]
        [t.start() for t in stops]
        [t.join(STOP) for t in stops]
        any(t.is_alive() for t in stops) and self.failures.append(f"the test server did not stop within {STOP} s")
        self.servers = []

    def invariants(self):
        self.stop_nginx()
        calls = self.calls()
        for i, c in enumerate(calls):
            if c.split()[:2] in (["systemctl", "stop"], ["launchctl", "unload"]) and not any(
                    d.split()[:2] in (["systemctl", "start"], ["launchctl", "load"]) for d in calls[i + 1:]):
                self.failures.append("the agent was stopped and never started again")
            if c.startswith("!"):
                self.failures.append(f"a command started unclean: {c}")
        for path, content in self.decoys.items():
            if (open(path, "rb").read() if os.path.isfile(path) else None) != content:
                self.failures.append(f"decoy {path} was changed")
        if self.unexpected and "lenient" not in self.opts:
            self.failures.append(f"unexpected requests: {self.unexpected}")


# The (key, rest) statements of the file's preamble and of the case; " ; " separates statements on a line.
def statements(path, name):
    out, found, taking = [], False, True
    for line in map(str.strip, open(path)):
        if line.startswith("case "):
            line, _, rest = line.partition(" ; ")
            taking = line[5:].strip() == name
            found, line = found or taking, rest
        if line and not line.startswith("#") and taking:
            out += [(s + " ").split(" ", 1) for s in re.split(r"\s+;\s+", line)]
    if not found:
        raise SystemExit(f"no case {name} in {path}")
    return [(k, r.strip()) for k, r in out]


# One set-up statement; False for a statement that is not one.
def setup(case, key, rest):
    words = split(rest) if key in ("serve", "lock", "config", "chown", "chmod", "run", "argv", "publish", "plant", "pin") else []
    if key == "flow":
        case.set_flow(rest)
    elif key == "package":
        case.package = random.Random(7).randbytes(int(rest))
        case.set_flow(case.flow["name"])
    elif key == "serve":
        case.route(*words)
    elif key == "sh":  # in the case's directory; one that fails is an error of the case
        p = subprocess.Popen(["bash", "-ec", case.subst(rest)], cwd=case.dir, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, start_new_session=True)
        status, _, err = case.wait(p, 60, "sh")
        status == "0" or sys.exit("\n".join([f"sh {rest}: exit {status}", *case.failures, err]))
    elif key == "pin":  # a file of the case's directory as the agent's pinned keys
        os.makedirs(case.path("etc/kx/conf"), exist_ok=True)
        os.chmod(shutil.copy(case.path(words[0]), case.path("etc/kx/conf/update-keys")), int((words[1:] or ["644"])[0], 8))
    elif key == "env":
        case.env.update([rest.split("=", 1)])
    elif key == "shim":
        cmd, kind, arg = re.match(r"(\S+) (?:(out|sh):)?(.*)", rest).groups()
        Path(case.S, cmd + "." + (kind or "status")).write_bytes(unescape(case.subst(arg)))
    elif key in ("plant", "decoy"):
        case.plant(words[0], words[1], " ".join(words[2:]) or None) if key == "plant" else case.plant("decoy", "", rest)
    elif key == "lock":
        base = FROZEN if "frozen" in case.opts else int(time.time() * 1000)
        text = case.subst((words[1:] or ["{}\\n"])[0]).replace("{}", str(base - int(words[0])))
        Path(case.where("upgrade_ovk.lock")).write_bytes(unescape(text))
    elif key == "config":
        case.configs.append((words[1] if len(words) > 1 else "", body_of(case.subst(words[0]), case)))
    elif key in ("chown", "chmod"):
        (os.lchown if key == "chown" else os.chmod)(case.where(words[1]), *((int(words[0]), ) * 2 if key == "chown" else (int(words[0], 8), )))
    elif key in ("arch32", "lenient", "tls", "frozen", "valgrind", "strace"):
        case.opts[key] = True
    elif key in ("umask", "timeout", "fsize", "user", "logfile", "disk", "stdout", "parallel", "published"):
        case.opts[key] = case.subst(rest)
        if key == "published":
            case.route("version", "=" + rest)
    elif key == "publish":
        case.publish([case.subst(w) for w in words])
    elif key in ("run", "argv"):
        opts = [w for w in words if w.startswith("-")]
        case.run(words if key == "argv" else opts + ["$URL"] + ([w for w in words if w not in opts] or ["7.2.0.1"]))
    else:
        return False
    return True


def main():
    bindir, cases, name = sys.argv[1:4]
    lines = statements(cases, name)
    no_valgrind = ("valgrind", "") in lines and (os.environ.get("KX_SANITIZE") or not shutil.which("valgrind"))
    if os.geteuid() != 0 or platform.machine() not in ("x86_64", "amd64") or no_valgrind:
        print("skipped: needs root, an amd64 machine (the layouts served) and for valgrind a build without sanitizers")
        return 77
    case = Case(bindir, lines)
    try:
        case.set_flow("linux")
        for key, rest in lines + [("", "")]:  # a case that runs nothing itself runs "run" before its first check
            if time.monotonic() > case.deadline:
                case.failures.append(f"the case used up its {BUDGET} s before: {key or 'the invariants'} {rest}")
                break
            if not setup(case, key, rest):
                case.batch or case.run(["$URL", "7.2.0.1"])
                case.check(key, rest) if key else case.invariants()
        case.close()
        if case.failures:
            status, out, err = case.batch[-1] if case.batch else ("-", "", "")
            print(f"FAILED {name} (exit {status})", *("- " + f for f in case.failures), "--- log ---", *case.messages(),
                  "--- calls ---", *case.calls(), "--- requests ---", *case.requests, "--- stdout ---", out[:5000],
                  "--- stderr ---", err[:5000], sep="\n")
        return 1 if case.failures else 0
    finally:
        case.close()
        os.environ.get("KX_KEEP") or shutil.rmtree(case.dir, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
