#!/usr/bin/env python3
"""The runs of bench/fleet and its report: the checks, then the updates, at
most --at-once runs going at any time, each reaped with wait4(2) for its
rusage, so that measuring a run costs no process of its own. Between the two
phases nginx's CPU time is read from /proc: nginx cannot say which request
used its CPU, so a phase of one kind of run is the only way to tell the two
kinds apart. Its requests and bytes come from the access log, by the path
prefix each kind uses (/check/ or /update/), exact whatever the timing.

Called by bench/fleet inside its mount namespace, with nginx serving the
tree under both prefixes; stops nginx at the end so that its log is
complete. Exit status 1 when a run failed.
"""
import argparse
import errno
import os
import resource
import shutil
import signal
import socket
import statistics
import struct
import sys
import time

CHECK, UPDATE = "check", "update"
CONFIG_ROOT = "/etc/opt/kx/conf"
CACHE_ROOT = "/var/cache/kx-updater"
LOG_NAME = "agent_upd.log"
# What a run's log says when the run did what its kind should.
DONE = {CHECK: b"Current version is up to date. Nothing to do", UPDATE: b"Agent Update done"}
# Signals the program must start with in their default handling: this
# process ignores some (SIGPIPE, SIGXFSZ by Python; SIGINT, SIGQUIT as a
# background job of the script), and exec keeps what is ignored.
DEFAULT_SIGNALS = (signal.SIGINT, signal.SIGQUIT, signal.SIGPIPE, signal.SIGXFSZ, signal.SIGTERM, signal.SIGHUP)


class ExitPeaks:
    """The peak resident memory of processes as they exit, from the kernel's
    per-task statistics (taskstats, over generic netlink).

    wait4's ru_maxrss cannot give it: exec folds the peak of the memory the
    process had before into it, and a child started by posix_spawn (or
    fork) had this interpreter's, larger than the program's own. taskstats
    reports the peak of the program's own memory, sent as its main thread
    exits, so it is queued before the process can be reaped."""

    GENL_ID_CTRL, CTRL_CMD_GETFAMILY, CTRL_ATTR_FAMILY_ID, CTRL_ATTR_FAMILY_NAME = 0x10, 3, 1, 2
    NLMSG_ERROR, NLM_F_REQUEST, NLM_F_ACK = 2, 1, 4
    CMD_GET, CMD_NEW, ATTR_REGISTER_CPUMASK = 1, 2, 3
    TYPE_PID, TYPE_STATS, TYPE_AGGR_PID = 1, 3, 4
    HIWATER_RSS = 200  # offset of hiwater_rss (KiB) in struct taskstats

    def __init__(self):
        self.peaks = {}  # pid -> KiB
        self.seq = 0
        self.sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 16)  # NETLINK_GENERIC
        # Every exit on the machine arrives here, other jobs' too.
        self.sock.setsockopt(socket.SOL_SOCKET, 33, 16 << 20)  # SO_RCVBUFFORCE
        self.sock.bind((0, 0))
        self.family = self.ask(self.GENL_ID_CTRL, self.CTRL_CMD_GETFAMILY,
                               self.attr(self.CTRL_ATTR_FAMILY_NAME, b"TASKSTATS\0"), self.CTRL_ATTR_FAMILY_ID)
        cpus = f"0-{os.cpu_count() - 1}\0".encode()
        self.ask(self.family, self.CMD_GET, self.attr(self.ATTR_REGISTER_CPUMASK, cpus), None)
        self.sock.setblocking(False)

    @staticmethod
    def attr(kind, data):
        return struct.pack("=HH", 4 + len(data), kind) + data + b"\0" * (-len(data) % 4)

    @staticmethod
    def attrs(data):
        while len(data) >= 4:
            size, kind = struct.unpack_from("=HH", data)
            if size < 4:
                return
            yield kind & 0x3FFF, data[4:size]
            data = data[(size + 3) & ~3 :]

    @staticmethod
    def messages(data):
        while len(data) >= 16:
            size, kind, _, seq = struct.unpack_from("=IHHI", data)
            if size < 16:
                return
            yield kind, seq, data[16:size]
            data = data[(size + 3) & ~3 :]

    def ask(self, family, cmd, attrs, want):
        """Sends a request; the u16 attribute want of the answer, or the
        acknowledgement when want is None. OSError when refused."""
        self.sock.settimeout(5)
        self.seq += 1
        body = struct.pack("=BBH", cmd, 1, 0) + attrs
        flags = self.NLM_F_REQUEST | self.NLM_F_ACK
        self.sock.send(struct.pack("=IHHII", 16 + len(body), family, flags, self.seq, 0) + body)
        while True:
            for kind, seq, body in self.messages(self.sock.recv(65536)):
                if seq != self.seq:
                    continue
                if kind == self.NLMSG_ERROR:
                    code = struct.unpack_from("=i", body)[0]
                    if code:
                        raise OSError(-code, os.strerror(-code))
                    if want is None:
                        return None
                elif kind == family and want is not None:
                    for k, v in self.attrs(body[4:]):
                        if k == want:
                            return struct.unpack_from("=H", v)[0]

    def drain(self, wanted):
        """Keeps the peaks of the pids in wanted that have exited so far."""
        while True:
            try:
                data = self.sock.recv(65536)
            except BlockingIOError:
                return
            except OSError as e:
                # Statistics lost to a full buffer: those runs go without.
                if e.errno != errno.ENOBUFS:
                    raise
                continue
            for kind, _, body in self.messages(data):
                if kind != self.family or body[0] != self.CMD_NEW:
                    continue
                for k, v in self.attrs(body[4:]):
                    if k != self.TYPE_AGGR_PID:
                        continue
                    pid = stats = None
                    for k2, v2 in self.attrs(v):
                        if k2 == self.TYPE_PID:
                            pid = struct.unpack_from("=I", v2)[0]
                        elif k2 == self.TYPE_STATS:
                            stats = v2
                    if pid in wanted and stats is not None and len(stats) >= self.HIWATER_RSS + 8:
                        self.peaks[pid] = struct.unpack_from("=Q", stats, self.HIWATER_RSS)[0]


def parse():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--program", required=True, help="the update program")
    p.add_argument("--work", required=True, help="the fleet's directory; runs/<i> is run i's TMPDIR")
    p.add_argument("--port", type=int, required=True, help="nginx's port on 127.0.0.1")
    p.add_argument("--nginx-pid", type=int, required=True)
    p.add_argument("--access-log", required=True)
    p.add_argument("--checks", type=int, required=True)
    p.add_argument("--updates", type=int, required=True)
    p.add_argument("--at-once", type=int, required=True)
    p.add_argument("--key", help="public key every agent pins (signed release)")
    p.add_argument("--published", required=True, help="the version the tree offers; a check runs at it")
    p.add_argument("--behind", required=True, help="the installed version of an update")
    p.add_argument("--timeout", type=float, default=120.0, help="seconds before a run is killed")
    return p.parse_args()


def hex_url(port, prefix):
    return f"http://127.0.0.1:{port}/{prefix}".encode().hex()


class Run:
    __slots__ = ("index", "kind", "dir", "start", "deadline", "wall", "cpu", "rss", "why")

    def __init__(self, index, kind, work):
        self.index, self.kind = index, kind
        self.dir = f"{work}/runs/{index}"
        self.start = self.deadline = self.wall = self.cpu = 0.0
        self.rss = None  # KiB
        self.why = None

    @property
    def instance(self):
        return f"fleet-{self.index}"


class Fleet:
    def __init__(self, args):
        self.args = args
        self.key = open(args.key, "rb").read() if args.key else None
        self.running = {}  # pid -> Run
        try:
            self.peaks = ExitPeaks()
            self.no_peaks = None
        except OSError as e:
            self.peaks = None
            self.no_peaks = f"taskstats: {e.strerror}"
        env = dict(os.environ)
        for name in ("KX_FLEET_INSIDE", "KX_BUILD_DIR"):
            env.pop(name, None)
        env["PATH"] = f"{args.work}/bin:{env.get('PATH', '/usr/bin:/bin')}"
        self.env = env

    # The sandbox of a run: its TMPDIR and, on a signed fleet, its own
    # configuration directory with the pinned key. Made before the clock
    # starts: a machine of the fleet has them already.
    def prepare(self, run):
        os.mkdir(run.dir, 0o755)
        if self.key is not None:
            conf = f"{CONFIG_ROOT}.{run.instance}"
            os.mkdir(conf, 0o755)
            with open(f"{conf}/update-keys", "wb") as f:
                f.write(self.key)

    def spawn(self, run, url, version):
        env = dict(self.env)
        env["TMPDIR"] = run.dir
        env["KX_AGENT_INSTANCE"] = run.instance
        env["KX_SHIM_RECORD"] = f"{run.dir}/calls"
        program = self.args.program
        run.start = time.monotonic()
        run.deadline = run.start + self.args.timeout
        # Its own process group, so that a run killed on its deadline takes
        # the shell and stand-in it may be waiting for along.
        pid = os.posix_spawn(
            program,
            [program, url, version],
            env,
            file_actions=[
                (os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
                (os.POSIX_SPAWN_OPEN, 1, f"{run.dir}/out", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600),
                (os.POSIX_SPAWN_DUP2, 1, 2),
            ],
            setpgroup=0,
            setsigmask=(),
            setsigdef=DEFAULT_SIGNALS,
        )
        self.running[pid] = run

    # Whether the run did what its kind should; the reason when not.
    def judge(self, run, status):
        if run.why:
            return run.why
        code = os.waitstatus_to_exitcode(status)
        if code != 0:
            return f"exit {code}" if code > 0 else f"killed by signal {-code}"
        try:
            with open(f"{run.dir}/{LOG_NAME}", "rb") as f:
                log = f.read()
        except OSError:
            return "no log"
        if DONE[run.kind] not in log:
            return f'no "{DONE[run.kind].decode()}" in the log'
        try:
            with open(f"{run.dir}/calls", "rb") as f:
                calls = f.read().decode(errors="replace")
        except FileNotFoundError:
            calls = ""
        expected = f"dpkg -i {run.dir}/setup.deb\n" if run.kind == UPDATE else ""
        if calls != expected:
            return f"stand-ins called: {calls.strip() or 'none'}"
        return None

    # A run that succeeded leaves nothing behind, so that the fleet's memory
    # stays that of the runs going, whatever N and the package size.
    def forget(self, run):
        shutil.rmtree(run.dir, ignore_errors=True)
        shutil.rmtree(f"{CONFIG_ROOT}.{run.instance}", ignore_errors=True)
        shutil.rmtree(f"{CACHE_ROOT}.{run.instance}", ignore_errors=True)

    def reap(self, done, failed):
        """Reaps every run that has ended; how many."""
        reaped = 0
        while self.running:
            pid, status, usage = os.wait4(-1, os.WNOHANG)
            if pid == 0:
                break
            run = self.running.pop(pid)
            run.wall = time.monotonic() - run.start
            # Its stand-ins included: they are part of what a run costs.
            run.cpu = usage.ru_utime + usage.ru_stime
            if self.peaks is not None:
                self.peaks.drain(self.running.keys() | {pid})
                run.rss = self.peaks.peaks.pop(pid, None)
            run.why = self.judge(run, status)
            done.append(run)
            if run.why is None:
                self.forget(run)
            else:
                failed.append(run)
            reaped += 1
        return reaped

    def kill_late(self):
        now = time.monotonic()
        for pid, run in self.running.items():
            if run.deadline <= now and run.why is None:
                run.why = f"killed after {self.args.timeout:g} s"
                kill_group(pid)

    def phase(self, kind, indices, failed):
        """Runs one kind of run; the runs and the wall time."""
        args = self.args
        runs = [Run(i, kind, args.work) for i in indices]
        for run in runs:
            self.prepare(run)
        url = hex_url(args.port, kind)
        version = args.published if kind == CHECK else args.behind
        done = []
        waiting = iter(runs)
        more = True
        start = time.monotonic()
        while True:
            while more and len(self.running) < args.at_once:
                run = next(waiting, None)
                if run is None:
                    more = False
                else:
                    self.spawn(run, url, version)
            if not self.running:
                break
            if self.reap(done, failed):
                continue
            # SIGCHLD is blocked, so it waits here until a run ends or the
            # earliest deadline passes.
            timeout = min(r.deadline for r in self.running.values()) - time.monotonic()
            if timeout <= 0 or signal.sigtimedwait([signal.SIGCHLD], timeout) is None:
                self.kill_late()
        return done, time.monotonic() - start

    def stop(self):
        """Kills and reaps whatever is still going, within a few seconds."""
        for pid in self.running:
            kill_group(pid)
        end = time.monotonic() + 5
        while self.running and time.monotonic() < end:
            try:
                pid, _ = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                break
            if pid:
                self.running.pop(pid, None)
            else:
                time.sleep(0.01)


def kill_group(pid):
    try:
        os.killpg(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def nginx_cpu(master):
    """CPU seconds nginx's master and workers (one thread each) have used
    so far: to the nanosecond from schedstat, else in clock ticks."""
    seconds = 0.0
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                # After the name: state, ppid, ..., utime (12th), stime.
                fields = f.read().rsplit(")", 1)[1].split()
            if int(entry) != master and int(fields[1]) != master:
                continue
            try:
                with open(f"/proc/{entry}/schedstat") as f:
                    seconds += int(f.read().split()[0]) / 1e9
            except FileNotFoundError:
                seconds += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        except OSError:
            continue
    return seconds


def stop_nginx(master):
    """Ends nginx and waits, at most five seconds, until its workers are
    gone: only then does its access log hold every request."""
    try:
        os.kill(master, signal.SIGTERM)
    except ProcessLookupError:
        return
    end = time.monotonic() + 5
    while time.monotonic() < end:
        try:
            with open(f"/proc/{master}/stat") as f:
                if f.read().rsplit(")", 1)[1].split()[0] == "Z":
                    return
        except OSError:
            return
        time.sleep(0.02)


class Served:
    """What nginx's access log says it served one kind of run."""

    def __init__(self):
        self.requests = self.sent = 0
        self.statuses = {}
        self.connections = set()


def access_figures(path):
    """Served, by the path prefix of each kind."""
    served = {CHECK: Served(), UPDATE: Served()}
    with open(path, errors="replace") as f:
        for line in f:
            # method URI status bytes "user agent" connection
            fields = line.split()
            parts = fields[1].split("/", 2) if len(fields) >= 6 else []
            s = served.get(parts[1]) if len(parts) == 3 else None
            if s is None:
                continue
            s.requests += 1
            s.sent += int(fields[3])
            s.statuses[fields[2]] = s.statuses.get(fields[2], 0) + 1
            s.connections.add(fields[-1])
    return served


def ms(seconds, digits=1):
    return f"{seconds * 1000:.{digits}f} ms"


def report(kind, runs, failed, wall, cpu, served, no_peaks):
    n = len(runs)
    bad = sum(1 for r in failed if r.kind == kind)
    print(f"{kind}s: {n} runs, {bad} failed, {wall:.2f} s, {n / wall:.1f} runs/s")
    walls = sorted(r.wall for r in runs)
    cpus = sorted(r.cpu for r in runs)
    rss = sorted(r.rss for r in runs if r.rss is not None)
    if rss:
        peak = f"peak RSS {statistics.median(rss) / 1024:.1f} MiB median, {rss[-1] / 1024:.1f} MiB most"
        if len(rss) < n:
            peak += f" (of {len(rss)} runs)"
    else:
        peak = f"peak RSS unknown ({no_peaks or 'no exit statistics arrived'})"
    print(
        f"  a run:  wall {ms(statistics.median(walls))} median, {ms(walls[-1])} slowest;"
        f" CPU {ms(statistics.median(cpus))} median, {ms(cpus[-1])} most; {peak}"
    )
    by_status = ", ".join(f"{s}: {c}" for s, c in sorted(served.statuses.items()))
    print(
        f"  nginx:  {ms(cpu / n, 3)} CPU, {served.requests / n:.2f} requests ({by_status} in all)"
        f" on {len(served.connections) / n:.2f} connections, {served.sent / n:.0f} bytes per {kind}"
        f" ({cpu:.2f} s of CPU in all)"
    )


def main():
    args = parse()
    # Ended by the script (a signal to it, a TERM to this): the runs go too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGINT, lambda *_: sys.exit(130))
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGCHLD])
    fleet = Fleet(args)
    failed = []
    phases = []
    try:
        first = 1
        for kind, count in ((CHECK, args.checks), (UPDATE, args.updates)):
            if count == 0:
                continue
            before = nginx_cpu(args.nginx_pid)
            runs, wall = fleet.phase(kind, range(first, first + count), failed)
            phases.append((kind, runs, wall, nginx_cpu(args.nginx_pid) - before))
            first += count
    finally:
        fleet.stop()
    stop_nginx(args.nginx_pid)

    access = access_figures(args.access_log)
    for kind, runs, wall, cpu in phases:
        report(kind, runs, failed, wall, cpu, access[kind], fleet.no_peaks)
    total = sum(len(p[1]) for p in phases)
    wall = sum(p[2] for p in phases)
    print(f"fleet: {total} runs, {len(failed)} failed, {wall:.2f} s, {total / wall:.1f} runs/s")
    # What measuring cost: this process's own CPU time, sandboxes included.
    own = resource.getrusage(resource.RUSAGE_SELF)
    print(f"  this driver: {ms((own.ru_utime + own.ru_stime) / max(total, 1))} CPU per run")
    for run in failed[:5]:
        print(f"run {run.index} ({run.kind}) failed: {run.why}; last lines of its log:")
        try:
            with open(f"{run.dir}/{LOG_NAME}", errors="replace") as f:
                lines = f.readlines()[-3:]
        except OSError:
            lines = ["(no log)\n"]
        sys.stdout.writelines("    " + line for line in lines)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
