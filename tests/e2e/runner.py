#!/usr/bin/env python3
"""Runs one case of a .cases file: the real update program against a scripted
loopback server, in a sandbox of its own, with recording stand-ins for the
system commands. The format is described at the top of update.cases.

    runner.py <bin dir> <cases file> <case name>

Exit status: 0 passed, 1 failed (what differed is printed), 77 skipped.
"""
import hashlib, os, platform, random, re, resource, shlex, shutil, signal, socket, ssl, stat
import subprocess, sys, tempfile, threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import urlsplit

HERE = os.path.dirname(os.path.abspath(__file__))
SKIP = 77
PAGE = b"<html><head><title>Error</title></head>\n<body>Not here</body></html>\n"
COMMANDS = "hdiutil installer launchctl systemctl dpkg rpm apt-get dnf synopkg net arch".split()
ATTACH = "/dev/disk4          \tGUID_partition_scheme          \t\n/dev/disk4s1        \tApple_HFS                      \t/Volumes/Kx Agent\n"
LAUNCHD = "/Library/LaunchDaemons/com.kxagent.plist"


def unescape(text):
    return text.encode("latin-1", "backslashreplace").decode("unicode_escape").encode("latin-1")


class Answer:
    """One scripted response: BODY[,MODIFIER...] (see update.cases)."""

    def __init__(self, spec, case):
        body, *mods = spec.split(",") if not spec.startswith("=") else (spec, )
        self.status, self.headers, self.fault = 200, [], None
        if re.fullmatch(r"\d{3}", body):
            self.status, self.body = int(body), PAGE
        elif m := re.fullmatch(r"pkg([+-]\d+)?", body):
            n = len(case.package) + int(m.group(1) or 0)
            self.body = (case.package * 2)[:n]
        elif body == "other":
            self.body = bytes(b ^ 0x5A for b in case.package)
        elif body == "md5":
            self.body = f"{hashlib.md5(case.package).hexdigest()}  {case.name_on_server}\n".encode()
        elif body == "page":
            self.body = PAGE
        elif body == "big":
            self.body = b"7.3.0.0 " * (1 << 20)
        elif body.startswith("junk:"):
            self.body = b"x" * int(body[5:])
        elif body.startswith("="):
            self.body = unescape(body[1:])
        else:
            raise SystemExit(f"unknown answer: {spec}")
        for m in mods:
            key, _, value = m.partition("=")
            if key == "status":
                self.status = int(value)
            elif key == "redirect":
                self.status, self.body = 302, b""
                self.headers.append(("Location", case.subst(value)))
            elif key == "header":
                self.headers.append(tuple(value.split(":", 1)))
            else:
                self.fault = key  # short, reset, silent, nolength, endless, chunked


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, case, tls):
        super().__init__(("127.0.0.1", 0), Handler)
        self.case, self.requests, self.unexpected, self.lock = case, [], [], threading.Lock()
        self.stopping = threading.Event()
        if tls:
            key, cert = case.path("key.pem"), case.path("cert.pem")
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                            "-nodes", "-keyout", key, "-out", cert, "-subj", "/CN=127.0.0.1", "-days", "2"],
                           check=True, capture_output=True)
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(cert, key)
            self.socket = ctx.wrap_socket(self.socket, server_side=True)
        self.url = f"{'https' if tls else 'http'}://127.0.0.1:{self.server_address[1]}"

    def answer_for(self, method, path):
        with self.lock:
            self.requests.append(f"{method} {path}")
            turns = self.case.routes.get(urlsplit(path).path)
            if turns is None:
                self.unexpected.append(f"{method} {path}")
                return Answer("404", self.case)
            return turns.pop(0) if len(turns) > 1 else turns[0]


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_HEAD(self):
        self.respond(head=True)

    def do_GET(self):
        self.respond(head=False)

    def respond(self, head):
        a = self.server.answer_for(self.command, self.path)
        if a.fault == "silent":
            self.server.stopping.wait()
            return
        self.send_response(a.status)
        for k, v in a.headers:
            self.send_header(k, v)
        if a.fault in ("nolength", "endless"):
            self.send_header("Connection", "close")
            self.close_connection = True
        elif a.fault == "chunked":
            self.send_header("Transfer-Encoding", "chunked")
        else:
            self.send_header("Content-Length", str(len(a.body)))
        self.end_headers()
        if head:
            return
        try:
            if a.fault == "endless":
                while not self.server.stopping.is_set():
                    self.wfile.write(a.body or b"x" * 65536)
            elif a.fault == "chunked":
                for i in range(0, len(a.body), 1000):
                    piece = a.body[i:i + 1000]
                    self.wfile.write(b"%x\r\n%s\r\n" % (len(piece), piece))
                self.wfile.write(b"0\r\n\r\n")
            elif a.fault in ("short", "reset"):
                self.wfile.write(a.body[:len(a.body) // 2])
                self.wfile.flush()
                if a.fault == "reset":
                    self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
                self.close_connection = True
            else:
                self.wfile.write(a.body)
        except OSError:
            self.close_connection = True


class Case:
    def __init__(self, bindir, lines, name):
        self.bindir, self.lines, self.name = bindir, lines, name
        # On a memory file system where there is one: deleting files from a disk
        # mounted with discard costs more than the run itself.
        shm = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.dir = tempfile.mkdtemp(prefix="kx-case-", dir=shm)
        os.chmod(self.dir, 0o755)
        self.T, self.W, self.S = (self.path(d) for d in ("T", "W", "S"))
        for d in (self.T, self.W, self.S):
            os.mkdir(d, 0o755)
        self.failures, self.routes, self.decoys, self.env, self.runs, self.configs = [], {}, {}, {}, [], []
        self.flow, self.package, self.version = None, random.Random(7).randbytes(100000), "7.3.0.0\\n"
        self.opts = {}
        self.calls_log = self.path("calls.log")
        open(self.calls_log, "w").close()
        for c in COMMANDS:
            shutil.copy(os.path.join(HERE, "shim"), os.path.join(self.S, c))

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def subst(self, text):
        url = self.server.url
        for k, v in (("$T", self.T), ("$W", self.W), ("$D", self.D), ("$PID", self.path("pid")), ("$ARCH", "1" if self.D.endswith("amd64") else "2"), ("$URLTEXT", url),
                     ("$URLAUTH", url.replace("://", "://kx:secret@").encode().hex()), ("$URL", url.encode().hex())):
            text = text.replace(k, v)
        return text

    def fail(self, what):
        self.failures.append(what)

    # ---- the flows: where the server publishes and what a full update does
    def set_flow(self, flow):
        amd = platform.machine() in ("x86_64", "amd64")
        if not amd and platform.machine() not in ("aarch64", "arm64"):
            sys.exit(SKIP)
        self.flow, name = flow, ("setup.deb" if flow == "linux" else "setup.dmg")
        if flow == "linux":
            self.D = "/linux/amd64" if amd else "/linux/aarch64"
            self.calls_of = {"stop": ["systemctl stop kxagent"], "install": ["dpkg -i $T/setup.deb"],
                             "start": ["systemctl start kxagent"]}
            self.calls_of["update"] = self.calls_of["stop"] + self.calls_of["install"] + self.calls_of["start"]
        else:
            self.D = "/macosx/amd64" if amd else "/macosx/arm64"
            self.calls_of = {"attach": ["hdiutil attach $T/setup.dmg -nobrowse"], "stop": [f"launchctl unload {LAUNCHD}"],
                             "install": ["installer -target / -pkg '/Volumes/Kx Agent/set.pkg'"],
                             "detach": ["hdiutil detach /dev/disk4s1"], "start": [f"launchctl load {LAUNCHD}"]}
            self.calls_of["update"] = sum((self.calls_of[k] for k in "attach stop install detach start".split()), [])
            self.write(os.path.join(self.S, "hdiutil.out"), ATTACH)
        self.name_on_server = name
        self.requests_of = {"def": "GET /agent_setup_def.json", "version": "GET $D/version_long.txt",
                            "md5": f"GET $D/{name}.md5", "head": f"HEAD $D/{name}", "get": f"GET $D/{name}",
                            "headpkg": "HEAD $D/setup.pkg"}
        self.program = os.path.join(self.bindir, f"update-{'linux' if flow == 'linux' else 'macos'}")
        self.routes = {}
        self.route("/agent_setup_def.json 404")
        self.routes[self.subst("$D/version_long.txt")] = [Answer("=" + self.version, self)]
        self.route(f"$D/{name} pkg")
        self.route(f"$D/{name}.md5 md5")
        if flow == "mac":
            self.route("$D/setup.pkg 404")

    def route(self, rest):
        path, *answers = shlex.split(rest)
        self.routes[self.subst(path)] = [Answer(self.subst(a), self) for a in answers]

    def expand_requests(self, words):
        out = []
        for w in words:
            w, _, times = w.partition("*")
            one = self.requests_of.get(w) or w.replace(":", " ", 1)
            out += [self.subst(one)] * int(times or 1)
        return out

    def expand_calls(self, words):
        return [self.subst(c) for w in words for c in self.calls_of.get(w, [w])]

    @staticmethod
    def write(path, data, mode="w"):
        with open(path, mode) as f:
            f.write(data)

    # ---- planting what an attacker would, aimed at decoys in W
    def decoy(self, path, create=True):
        if create and not os.path.exists(path):
            self.write(path, "decoy\n")
        self.decoys[path] = open(path, "rb").read() if os.path.isfile(path) else None

    def plant(self, kind, where, arg=None):
        where = self.subst(where) if where.startswith("$") else os.path.join(self.T, where)
        decoy = self.subst(arg) if arg else None
        if kind in ("link", "hardlink"):
            self.decoy(decoy, create=kind == "hardlink")
        if kind == "link":
            os.symlink(decoy, where)
        elif kind == "hardlink":
            os.link(decoy, where)
        elif kind == "fifo":
            os.mkfifo(where)
        elif kind == "socket":
            s = socket.socket(socket.AF_UNIX)
            s.bind(where)
        elif kind == "dir":
            os.mkdir(where)
        elif kind == "file":
            os.makedirs(os.path.dirname(where), exist_ok=True)
            self.write(where, Answer(self.subst(arg), self).body, "wb")

    # ---- running the program
    def run(self, words):
        args = [self.subst(w) for w in words]
        env = {k: v for k, v in os.environ.items() if k != "KX_AGENT_INSTANCE"}
        env.update(TMPDIR=self.T, PATH=f"{self.S}:{os.environ['PATH']}", KX_SHIM_RECORD=self.calls_log,
                   KX_SHIM_DIR=self.S)
        env.update({k: self.subst(v) for k, v in self.env.items()})
        prefix, setup = [], []
        if self.opts.get("private", True) and os.geteuid() == 0:
            # /etc/opt hidden behind a tmpfs of the run's own: no real configuration is read or written.
            setup.append("mount -t tmpfs -o mode=0755 tmpfs /etc/opt")
            for instance, content in self.configs:
                d = "/etc/opt/kx/conf" + ("." + instance if instance else "")
                self.write(self.path("cfg"), content, "wb")
                setup.append(f"mkdir -p {d} && cp {self.path('cfg')} {d}/dbdir.cfg")
            if "disk" in self.opts:
                setup.append(f"mount -t tmpfs -o size={self.opts['disk']},mode=0755 tmpfs {self.T}")
        if self.opts.get("arch32"):
            prefix = ["setarch", "linux32"]
        if "user" in self.opts:
            prefix = ["setpriv", f"--reuid={self.opts['user']}", f"--regid={self.opts['user']}", "--clear-groups"]
            shutil.copy(self.program, self.path("update"))
            self.program = self.path("update")
        cmd = prefix + [self.program] + args
        if setup:
            cmd = ["unshare", "-m", "--propagation", "private", "sh", "-ec",
                   " && ".join(setup) + ' && echo $$ > "$0" && exec "$@"', self.path("pid")] + cmd
        else:
            cmd = ["sh", "-c", 'echo $$ > "$0" && exec "$@"', self.path("pid")] + cmd
        stdin_r, stdin_w = os.pipe()  # held open: a command that read it would wait for ever
        out = self.opts.get("stdout")
        umask = int(self.opts.get("umask", "022"), 8)

        def child():
            # A program that writes without end fills a file only up to the limit
            # (the sandbox may live in memory), and gets EFBIG rather than a signal.
            os.umask(umask)
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (int(self.opts.get("fsize", 64 << 20)),) * 2)

        stdout = subprocess.PIPE
        if out == "gone":
            r, stdout = os.pipe()
            os.close(r)
        p = subprocess.Popen(cmd, stdin=stdin_r, stdout=stdout, stderr=subprocess.PIPE, env=env, cwd=self.T,
                             preexec_fn=child)
        os.close(stdin_r)
        if out == "gone":
            os.close(stdout)
        try:
            o, e = p.communicate(timeout=float(self.opts.get("timeout", 60)))
            status = p.returncode if p.returncode >= 0 else f"signal {-p.returncode}"
        except subprocess.TimeoutExpired:
            os.killpg(p.pid, signal.SIGKILL)
            o, e = p.communicate()
            status = "timeout"
        os.close(stdin_w)
        self.runs.append((status, (o or b"").decode("latin-1"), e.decode("latin-1")))

    # ---- what the program left
    def log_path(self):
        return self.subst(self.opts.get("logfile", "$T/agent_upd.log"))

    def messages(self):
        try:
            text = open(self.log_path(), "rb").read().decode("latin-1")
        except OSError:
            return []
        out = []
        for line in text.split("\n")[:-1]:
            m = re.match(r"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] - [A-Z]{4}:[A-Z]{3} - \[ \([^:]*:\d+\)\] - (.*)", line)
            if m:
                out.append(m.group(1))
            elif out:
                out[-1] += "\n" + line
        return out

    def calls(self):
        return open(self.calls_log).read().splitlines()

    def check(self, key, words, raw):
        status, out, err = self.runs[-1] if self.runs else (None, "", "")
        if key == "exit":
            if str(status) != raw:
                self.fail(f"exit: expected {raw}, got {status}")
        elif key in ("log", "last", "nolog"):
            msgs, want = self.messages(), self.subst(raw)
            hit = (lambda m: m.startswith(want[:-1])) if want.endswith("*") else (lambda m: m == want)
            if key == "nolog":
                if any(want in m for m in msgs):
                    self.fail(f"logged although it must not be: {want}")
            elif key == "last":
                if not msgs or not hit(msgs[-1]):
                    self.fail(f"last message: expected {want!r}, got {msgs[-1] if msgs else None!r}")
            else:
                at = self.log_at
                while at < len(msgs) and not hit(msgs[at]):
                    at += 1
                if at == len(msgs):
                    self.fail(f"missing or out of order in the log: {want!r}")
                else:
                    self.log_at = at + 1
        elif key == "calls":
            want = [] if words == ["none"] else self.expand_calls(words)
            if self.calls() != want:
                self.fail("calls: expected\n  " + "\n  ".join(want) + "\ngot\n  " + "\n  ".join(self.calls()))
        elif key == "requests":
            want = self.expand_requests(words)
            if self.server.requests != want:
                self.fail("requests: expected\n  " + "\n  ".join(want) + "\ngot\n  " + "\n  ".join(self.server.requests))
        elif key == "maxline":
            longest = max((len(m) for m in self.messages()), default=0)
            if longest > int(raw):
                self.fail(f"a log message of {longest} bytes, more than {raw}")
        elif key in ("out", "err"):
            text = out if key == "out" else err
            if (self.subst(raw) not in text) if raw else text:
                self.fail(f"standard {key} lacks {self.subst(raw)!r}")
        elif key == "file":
            self.check_file(self.subst(words[0]) if words[0].startswith("$") else os.path.join(self.T, words[0]),
                            words[1:])
        else:
            raise SystemExit(f"unknown line: {key} {raw}")

    def check_file(self, path, what):
        st = os.lstat(path) if os.path.lexists(path) else None
        kind = what[0]
        content = (lambda: open(path, "rb").read())
        ok = {"absent": lambda: st is None, "exists": lambda: True, "link": lambda: stat.S_ISLNK(st.st_mode),
              "package": lambda: content() == self.package,
              "text": lambda: content() == unescape(" ".join(what[1:])),
              "mode": lambda: oct(stat.S_IMODE(st.st_mode)) == "0o" + what[-1].lstrip("0"),
              "size": lambda: str(st.st_size) == what[-1]}[kind]
        if not ((st is not None or kind == "absent") and ok()):
            self.fail(f"file {path}: expected {' '.join(what)}")

    def invariants(self):
        calls = self.calls()
        stops = [i for i, c in enumerate(calls) if c.split()[:2] in (["systemctl", "stop"], ["launchctl", "unload"])]
        for i in stops:
            if not any(c.split()[:2] in (["systemctl", "start"], ["launchctl", "load"]) for c in calls[i + 1:]):
                self.fail("the agent was stopped and never started again")
        for c in calls:
            if c.startswith("!"):
                self.fail(f"a command started unclean: {c}")
        for path, content in self.decoys.items():
            now = open(path, "rb").read() if os.path.isfile(path) else None
            if now != content:
                self.fail(f"decoy {path} was changed")
        if self.server.unexpected and not self.opts.get("lenient"):
            self.fail(f"unexpected requests: {self.server.unexpected}")


def parse(path, name):
    lines, taking = [], False
    for raw in open(path):
        line = raw.strip()
        if not line or line.startswith("#"):
            continue
        key, _, rest = line.partition(" ")
        if key == "case":
            if taking:
                break
            taking = rest == name
        elif taking:
            lines.append((key, rest))
    if not taking:
        raise SystemExit(f"no case {name} in {path}")
    return lines


SETUP = {"umask", "timeout", "fsize", "user", "logfile", "disk", "stdout"}


def main():
    bindir, cases, name = sys.argv[1:4]
    lines = parse(cases, name)
    if os.geteuid() != 0:
        print("skipped: the update run needs root")
        return SKIP
    case = Case(bindir, lines, name)
    case.server = None
    try:
        tls = any(k == "tls" for k, _ in lines)
        case.server = server = Server(case, tls)
        threading.Thread(target=server.serve_forever, args=(0.02,), daemon=True).start()
        case.D, case.name_on_server, case.calls_of, case.requests_of, case.log_at = "", "", {}, {}, 0
        for key, rest in lines:
            words = shlex.split(rest) if key not in ("log", "last", "nolog", "out", "err") else [rest]
            if key == "flow":
                case.set_flow(rest)
            elif key == "published":
                case.version = rest
                case.routes[case.subst("$D/version_long.txt")] = [Answer("=" + rest, case)]
            elif key == "package":
                case.package = random.Random(7).randbytes(int(rest))
                case.set_flow(case.flow)
            elif key == "serve":
                case.route(rest)
            elif key == "env":
                k, _, v = rest.partition("=")
                case.env[k] = v
            elif key == "shim":
                cmd, _, behaviour = rest.partition(" ")
                kind, _, arg = behaviour.partition(":")
                suffix = {"out": ".out", "sh": ".sh"}.get(kind, ".status")
                case.write(os.path.join(case.S, cmd + suffix), unescape(case.subst(arg if suffix != ".status" else behaviour)).decode("latin-1"))
            elif key == "plant":
                case.plant(*words)
            elif key == "config":
                case.configs.append((words[1] if len(words) > 1 else "", Answer(case.subst(words[0]), case).body))
            elif key == "decoy":
                case.decoy(case.subst(rest))
            elif key == "chown":
                os.chown(case.subst(words[1]), int(words[0]), int(words[0]))
            elif key == "chmod":
                os.chmod(case.subst(words[1]), int(words[0], 8))
            elif key in ("arch32", "lenient", "tls"):
                case.opts[key] = True
            elif key == "shared":
                case.opts["private"] = False
            elif key in SETUP:
                case.opts[key] = case.subst(rest)
            elif key == "run":
                case.run(words)
            else:
                case.check(key, words, rest)
        case.invariants()
    finally:
        if case.server:
            case.server.stopping.set()
            case.server.shutdown()
    if case.failures:
        status, out, err = case.runs[-1] if case.runs else ("-", "", "")
        print(f"FAILED {name} (exit {status})\n" + "\n".join("- " + f for f in case.failures))
        print("--- log ---\n" + "\n".join(case.messages()) + "\n--- calls ---\n" + "\n".join(case.calls()))
        print("--- requests ---\n" + "\n".join(case.server.requests) + f"\n--- stdout ---\n{out}\n--- stderr ---\n{err}")
        return 1
    shutil.rmtree(case.dir, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
