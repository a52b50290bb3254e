#!/usr/bin/env python3
"""Reliability scenarios for drover against drover-sink on 127.0.0.1, with loss accounting.

Each scenario starts its own sink(s), agent and generator, stops by itself within a bounded
time, and yields rows of: lines, lost, duplicated, reordered, corrupted, delivery delay and the
agent's peak RSS. --short runs the variants that CI can afford (tens of seconds each).

  run.py --drover PATH --sink PATH [--short] [--work-dir DIR] [--keep] SCENARIO... | all
"""

import argparse
import concurrent.futures
import json
import os
import random
import re
import resource
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import checker  # noqa: E402
import generator  # noqa: E402

HOST = "127.0.0.1"
GENERATOR = os.path.join(HERE, "generator.py")


class Failure(Exception):
    pass


def wait_for(condition, limit, step=0.05):
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(step)
    return condition()


def read(path, offset=0):
    try:
        with open(path, "rb") as f:
            f.seek(offset)
            return f.read()
    except FileNotFoundError:
        return b""


def write(path, data, mode=0o644):
    # The mode matters to logrotate and to the instance runner: neither runs words that others
    # may change.
    with open(path, "wb" if isinstance(data, bytes) else "w") as out:
        out.write(data)
    os.chmod(path, mode)


def stop(process, sig=signal.SIGKILL):
    """Sends `sig` to `process` if it still runs and reaps it; SIGKILL after 20 s."""
    if process.poll() is None:
        process.send_signal(sig)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def proc_usage(pid):
    """CPU seconds so far and the VmRSS and VmHWM (kB) of a running process, or None."""
    try:
        with open("/proc/%d/status" % pid) as status:
            text = status.read()
        with open("/proc/%d/stat" % pid) as stat:
            # utime and stime follow the command name, whose parentheses may hold blanks.
            fields = stat.read().rsplit(")", 1)[1].split()
        usage = {"cpu": (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")}
        for key in ("VmRSS", "VmHWM"):
            usage[key] = int(re.search(key + r":\s+(\d+)", text).group(1))
        return usage
    except (OSError, IndexError, ValueError, AttributeError):
        return None


class Context:
    """What every scenario needs: the binaries, its directory, the size of the run."""

    def __init__(self, args, name):
        self.drover, self.sink_binary = args.drover, args.sink
        self.short, self.instance_runner = args.short, args.instance_runner
        self.dir = os.path.join(args.work_dir, name)
        shutil.rmtree(self.dir, ignore_errors=True)
        os.makedirs(self.dir)
        self.processes = []

    def path(self, name):
        return os.path.join(self.dir, name)

    def spawn(self, argv, name, cwd=None, stdout=None, **kwargs):
        # Each child dies with the harness, so that a harness ended at its time-out leaves no
        # agent or endpoint running behind it.
        process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--"] + argv,
                                   stdout=stdout or open(self.path(name + ".out"), "wb"),
                                   stderr=open(self.path(name + ".err"), "wb"),
                                   cwd=cwd or self.dir, **kwargs)
        self.processes.append(process)
        return process

    def cleanup(self):
        # Only what this scenario started, by its own handle.
        for process in self.processes:
            stop(process)


class Sink:
    """drover-sink runs on one port; each (re)start writes its own output file."""

    def __init__(self, ctx, flags=(), name="sink", **spawn):
        self.ctx, self.flags, self.name, self.spawn = ctx, list(flags), name, spawn
        self.port = 0
        self.runs = []  # (process, output path, stderr path)
        # Its own directory: a sink makes its certificate in the working directory, and sinks
        # started side by side would race for the file.
        self.cwd = ctx.path(name + ".d")
        os.makedirs(self.cwd, exist_ok=True)
        self.start()

    def start(self):
        run = "%s.%d" % (self.name, len(self.runs))
        output, err = self.ctx.path(run + ".json"), self.ctx.path(run + ".err")
        argv = [self.ctx.sink_binary, "--listen", "%s:%d" % (HOST, self.port), "--print-port",
                "--received-time"] + self.flags
        if "stdout" not in self.spawn:  # else the events go where the caller says
            argv += ["--out", output]
        process = self.ctx.spawn(argv, run, cwd=self.cwd, **self.spawn)
        self.runs.append((process, output, err))
        # The port line follows the "Listening on" line once the server stands.
        port = lambda: re.search(rb"(?m)^(\d+)$", read(err))  # noqa: E731
        if not wait_for(lambda: port() or process.poll() is not None, 20) or \
                process.returncode is not None:
            raise Failure("sink did not start (status %s): %r" % (process.poll(), read(err)[-300:]))
        self.port = self.port or int(port().group(1))

    @property
    def process(self):
        return self.runs[-1][0]

    @property
    def outputs(self):
        return [output for _, output, _ in self.runs]

    def target(self):
        return "%s:%d" % (HOST, self.port)

    def stop(self):
        stop(self.process, signal.SIGINT)


class LineCount:
    """Counts the lines of growing files, reading each byte once."""

    def __init__(self):
        self.offsets, self.total = {}, 0

    def __call__(self, paths):
        for path in paths:
            data = read(path, self.offsets.get(path, 0))
            self.offsets[path] = self.offsets.get(path, 0) + len(data)
            self.total += data.count(b"\n")
        return self.total


class Agent:
    """drover forward, with its exit status, CPU time and peak RSS."""

    def __init__(self, ctx, words, name="agent", stdin=None, argv=None, env=None):
        self.out, self.err = ctx.path(name + ".out"), ctx.path(name + ".err")
        # `argv` starts the agent some other way, e.g. through the service's instance runner.
        self.process = ctx.spawn(argv or [ctx.drover, "forward"] + words, name, stdin=stdin,
                                 env=env)
        self.pid = self.process.pid
        self.peak_kb, self.cpu_seconds = 0, 0.0
        threading.Thread(target=self._watch_peak, daemon=True).start()

    def _watch_peak(self):
        # The peak RSS of the kernel's account at the reaping would hold the harness's own as
        # well, which the child had until its exec. VmHWM only rises: the last reading counts.
        while self.process.returncode is None:
            usage = proc_usage(self.pid)
            self.peak_kb = usage["VmHWM"] if usage else self.peak_kb
            time.sleep(0.05)

    def wait_exit(self, limit):
        """The exit status, or None while the agent still runs after `limit` seconds. It is
        reaped here, for the CPU time of the kernel's account."""
        deadline = time.monotonic() + limit
        while self.process.returncode is None:
            pid, status, usage = os.wait4(self.pid, os.WNOHANG)
            if pid:
                self.cpu_seconds = usage.ru_utime + usage.ru_stime
                self.process.returncode = os.waitstatus_to_exitcode(status)
            elif time.monotonic() >= deadline:
                return None
            else:
                time.sleep(0.05)
        return self.process.returncode

    def alive(self):
        return self.wait_exit(0) is None

    def wait_running(self):
        # The first counters line comes on the loop's first pass.
        if not wait_for(lambda: b"eventsForwarded" in self.log() or not self.alive(), 20):
            raise Failure("agent did not start")
        if not self.alive():
            raise Failure("agent ended at start: %r" % self.log()[-400:])

    def interrupt(self):
        """SIGINT ends the agent at once; returns its status."""
        for sig in (signal.SIGINT, signal.SIGKILL):
            if self.alive():
                os.kill(self.pid, sig)
            status = self.wait_exit(20)
            if status is not None:
                return status

    def log(self):
        return read(self.out)

    def count(self, text):
        return self.log().count(text.encode())

    def last_counter(self, key):
        """From the last counters line, which the agent logs every 10 s."""
        values = re.findall(rb'"%s":"(\d+)"' % key.encode(), self.log())
        return int(values[-1]) if values else 0


class Generator:
    def __init__(self, ctx, out, lines, rate, src=1, name="gen", extra=(), stdout=None):
        self.report_path = ctx.path(name + ".report.json")
        self.status_path = ctx.path(name + ".status")
        argv = [sys.executable, GENERATOR, "--out", out, "--src", str(src), "--lines",
                str(lines), "--rate", str(rate), "--status", self.status_path,
                "--report", self.report_path] + list(extra)
        self.process = ctx.spawn(argv, name, stdout=stdout)

    def written(self):
        text = read(self.status_path).strip()
        return int(text) if text else 0

    def running(self):
        return self.process.poll() is None

    def wait(self, limit):
        if self.process.wait(limit) != 0:
            raise Failure("generator failed with status %d" % self.process.returncode)
        with open(self.report_path) as report:
            return json.load(report)


def wait_delivered(sink, expected, limit, settle=1.5):
    """Waits until `expected` lines have arrived and nothing more came for `settle` seconds."""
    counter = LineCount()
    deadline = time.monotonic() + limit
    last, since = -1, time.monotonic()
    while time.monotonic() < deadline:
        count = counter(sink.outputs)
        if count != last:
            last, since = count, time.monotonic()
        elif count >= expected and time.monotonic() - since >= settle:
            return count
        time.sleep(0.1)
    return last


COLUMNS = ("lines", "lost", "duplicated", "reordered", "corrupted", "p50_ms", "p99_ms",
           "peak_rss_kb")


def Row(scenario, ok, notes, **figures):
    """One result; a figure not given stays None and is left out of its line."""
    return dict(dict.fromkeys(COLUMNS), scenario=scenario, ok=ok, notes=notes, **figures)


def make_row(name, report, agent, ok=True, notes=""):
    total = checker.totals(report)
    clean = total["lost"] == 0 and total["corrupted"] == 0
    return Row(name, bool(ok and clean), notes, peak_rss_kb=agent and agent.peak_kb, **total)


def fatal_row(label, agent, gen, sink, limit, named, how):
    """A fault whose named way out is an abort: the agent must end so within `limit` seconds,
    with `named(stderr)` true; `how` says so in the notes."""
    status = agent.wait_exit(limit)
    stop(gen.process)
    sink.stop()
    err = read(agent.err)
    ok = status == -signal.SIGABRT and named(err)
    return Row(label, ok, "fatal by design: status %s, %s" % (
        status, how if ok else "NOT as named: %r" % err[-200:]), lines=gen.written(),
        peak_rss_kb=agent.peak_kb)


def tail_job(ctx, filename, token, sink_flags=(), suffix="", wait=True):
    """An empty file, a sink with `sink_flags` and a `tail` agent of it, waited for unless told
    otherwise. `suffix` keeps apart the logs of several jobs of one scenario."""
    source = ctx.path(filename)
    write(source, b"")
    sink = Sink(ctx, sink_flags, name="sink" + suffix)
    agent = Agent(ctx, ["tail", source, token, "to", sink.target()], name="agent" + suffix)
    if wait:
        agent.wait_running()
    return source, sink, agent


def end_tail_job(sink, agent, token, lines, limit, delivered=None):
    """Waits until `delivered` lines (all `lines` by default) have arrived, stops the agent with
    SIGINT and then the sink, and checks the output against `lines` lines of `token`. Returns
    whether the agent was still alive, its exit status and the checker's report."""
    wait_delivered(sink, lines if delivered is None else delivered, limit)
    alive = agent.alive()
    status = agent.interrupt()
    sink.stop()
    return alive, status, checker.check(sink.outputs, {1: (token, lines)})


# --- 2. Endpoint killed and restarted ----------------------------------------------------------

def endpoint_killed(ctx):
    lines = 150_000 if ctx.short else 1_000_000
    rate = 5_000 if ctx.short else 6_000
    wanted_kills = 3 if ctx.short else 20
    rng = random.Random(int(os.environ.get("RELIABILITY_SEED", "7")))
    fifo = ctx.path("input.fifo")
    os.mkfifo(fifo)
    sink = Sink(ctx)
    agent = Agent(ctx, ["stream", fifo, "tok-3", "to", sink.target()])
    agent.wait_running()
    gen = Generator(ctx, fifo, lines, rate)
    kills = 0
    # Kills stop before the end of the input: a peer lost after the last event was sent takes
    # the unacknowledged tail with it (the run ends on an empty queue), which is by design.
    while gen.running() and gen.written() < lines * 0.95:
        # Each run of the sink is killed only once the agent has come back to it.
        current = sink.outputs[-1]
        if not wait_for(lambda: os.path.exists(current) and os.path.getsize(current) > 0
                        or not gen.running(), 30):
            raise Failure("the agent did not come back to sink run %d" % len(sink.runs))
        time.sleep(rng.uniform(0.3, 3.0))
        if not gen.running() or gen.written() >= lines * 0.95:
            break
        sink.process.kill()
        sink.process.wait()
        kills += 1
        time.sleep(rng.uniform(0.2, 1.8))
        sink.start()
    gen.wait(600)
    status = agent.wait_exit(120)
    wait_delivered(sink, lines, 30)
    sink.stop()
    if status is None:
        agent.interrupt()
    report = checker.check(sink.outputs, {1: ("tok-3", lines)})
    windows = report["redelivery_windows"]
    ok = status == 0 and kills >= wanted_kills
    notes = ("%d kills; agent exit %s; re-sent per killed connection: max %s, mean %.0f events; "
             "reconnects %d; bufferFull %d; agent CPU %.0f s" % (
                 kills, status, max(windows) if windows else 0,
                 sum(windows) / len(windows) if windows else 0, agent.count("Reconnecting to "),
                 agent.last_counter("bufferFull"), agent.cpu_seconds))
    return [make_row("2 endpoint SIGKILL+restart", report, agent, ok, notes)]


# --- 4d. logrotate with the shipped example --------------------------------------------------

LOGROTATE_EXAMPLE = os.path.join(HERE, "..", "..", "dist", "logrotate.conf")


def logrotate_rotation(ctx):
    """Debian's logrotate, forced at the allowed pace, with the example the package ships."""
    rate = 2_000
    first, every, count = (5, 40, 2) if ctx.short else (5, 60, 5)
    # Writing goes on a little past the last move; its file is read from the reopen on, at most a
    # read slice (1 MiB) at once, and the rest would wait for a write that no longer comes: so
    # under 1 MiB goes there.
    seconds = first + every * (count - 1) + 3
    lines = rate * seconds
    source, sink, agent = tail_job(ctx, "app.log", "tok-11")
    gen = Generator(ctx, source, lines, rate, extra=["--reopen-on-hup"])
    config = _adapt_logrotate_example(ctx, source, gen.process.pid)
    state = ctx.path("logrotate.state")
    rotated = 0
    for index in range(count):
        # Timed by the writer's progress: a loaded machine may start it late.
        if not wait_for(lambda: gen.written() >= rate * (first + index * every), every * 2):
            raise Failure("the writer is stuck at %d lines" % gen.written())
        done = subprocess.run(["logrotate", "-f", "-s", state, config], capture_output=True)
        if done.returncode != 0 or done.stderr:
            raise Failure("logrotate failed (%d): %r" % (done.returncode, done.stderr[-300:]))
        rotated += 1
    summary = gen.wait(seconds + 60)
    # The last move's new file comes in at the reopen, 30 to 35 s after that move.
    alive, status, report = end_tail_job(sink, agent, "tok-11", lines, 60)
    total = checker.totals(report)
    reopened = agent.count("Reopening log file.")
    kept = sorted(name for name in os.listdir(ctx.dir) if name.startswith("app.log."))
    # delaycompress: the newest moved file stays as it is, the one before it is compressed.
    expected_files = ["app.log.1"] + ["app.log.%d.gz" % n for n in range(2, count + 1)]
    ok = (alive and status == 0 and reopened == rotated and summary["reopened"] == rotated
          and total["duplicated"] == 0 and kept == expected_files)
    return [make_row("4d logrotate x%d every %d s" % (rotated, every), report, agent, ok,
                     "logrotate -f %d times; writer reopened %d, agent reopened %d times; "
                     "files %s; SIGINT status %s" % (rotated, summary["reopened"], reopened,
                                                     " ".join(kept), status))]


def _adapt_logrotate_example(ctx, path, writer_pid):
    """The shipped example, pointed at `path`, with the writer told to reopen by SIGHUP."""
    with open(LOGROTATE_EXAMPLE) as example:
        text = example.read()
    for old, new in (("/var/log/app.log {", path + " {"),
                     # No owner: the test need not run as root.
                     ("create 0640 root adm", "create 0640"),
                     ("        true\n", "        kill -HUP %d\n" % writer_pid)):
        if old not in text:
            raise Failure("the logrotate example no longer has %r" % old)
        text = text.replace(old, new)
    write(ctx.path("logrotate.conf"), text)
    return ctx.path("logrotate.conf")


# --- 6. Byte transparency ----------------------------------------------------------------------

def special_lines():
    rng = random.Random(11)
    lines = [b"plain ascii\n", b"carriage return\r\n", b"\r\n", b"\n", b"\n",
             b"nul\x00in\x00the\x00middle\n", b"\x00\n",
             b"invalid utf-8 \xff\xfe \xc3\x28 \x80 \xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80\n",
             b"valid utf-8 \xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\n",
             b'json "quotes" and \\backslashes\\ \\u0041\n',
             bytes(range(1, 10)) + bytes(range(11, 256)) + b"\n", b"\t tab and \x1b escape \x7f del\n"]
    # Around the reader's buffer of 65526 bytes: a line that fits, the first that is cut, and
    # lines of 65528 bytes and far beyond.
    lines += [bytes(rng.choice(b"abcdefghij\x00\xff\r") for _ in range(length - 1)) + b"\n"
              for length in (65525, 65526, 65527, 65528, 65529, 131072, 200_000)]
    # Then random bytes, each line of which must come out of the sink as JSON that gives them back.
    return lines + [b"after the long ones\n"] + [
        bytes(rng.randrange(256) for _ in range(rng.randrange(300))).replace(b"\n", b"") + b"\n"
        for _ in range(2000)]


def byte_transparency(ctx):
    lines = special_lines()
    plain = b"".join(lines)
    # A file that ends in an unterminated line longer than the reader's buffer less 512 bytes:
    # its last event is cut with whatever byte the buffer held, not a newline.
    seam = b"y" * 65300
    write(ctx.path("special.bin"), plain)
    write(ctx.path("seam.bin"), seam)
    short_lines = [line for line in lines if len(line) < 4096]
    fifo = ctx.path("special.fifo")
    os.mkfifo(fifo)
    sink = Sink(ctx)
    agent = Agent(ctx, ["stream", ctx.path("special.bin"), "file", "stream",
                        ctx.path("seam.bin"), "seam", "stream", fifo, "pipe", "to",
                        sink.target()])
    agent.wait_running()
    with open(fifo, "wb", buffering=0) as pipe:  # a write for each line
        for line in short_lines:
            pipe.write(line)
    status = agent.wait_exit(60)
    expected = {"file": checker.frame_regular_file(plain), "seam": checker.frame_regular_file(seam),
                "pipe": short_lines}
    wait_delivered(sink, sum(len(v) for v in expected.values()), 30)
    sink.stop()
    got = {token: [] for token in expected}
    undecodable = 0
    for raw in read(sink.outputs[-1]).splitlines():
        try:
            # Every line is JSON; the sink's \uDCXX for a byte outside UTF-8 is what Python's
            # surrogateescape turns back into that byte.
            record = json.loads(raw)
            got.setdefault(record["token"], []).append(
                record["event"].encode("utf-8", "surrogateescape"))
        except (ValueError, KeyError):
            undecodable += 1
    # The agent's own log, with its forced splits and paths, is JSON line by line too.
    log_not_json = sum(1 for line in agent.log().splitlines() if not _parses(line))
    rows = []
    for token, events in expected.items():
        received = got.get(token, [])
        mismatched = sum(1 for a, b in zip(events, received) if a != b)
        lost = max(0, len(events) - len(received))
        extra = max(0, len(received) - len(events))
        split = sum(1 for e in events if not e.endswith(b"\n") or len(e) == 65527)
        ok = (mismatched == 0 and lost == 0 and extra == 0 and undecodable == 0 and status == 0
              and log_not_json == 0)
        rows.append(Row("6 bytes via %s" % token, ok, "%d events, %d bytes, %d forced splits; "
                        "byte-exact: %s; agent log lines not JSON: %d" % (
                            len(events), sum(map(len, events)), split,
                            mismatched == 0 and lost == 0, log_not_json),
                        lines=len(events), lost=lost, duplicated=extra,
                        corrupted=mismatched + undecodable, peak_rss_kb=agent.peak_kb))
    return rows


# --- 7. Hostile endpoint -----------------------------------------------------------------------

HOSTILE = {
    "refuse-token": ["--refuse-token", "tok-8"], "config-omit": ["--config-omit", "enable_ack"],
    "config-extra": ["--config-extra", "bogus"], "error-after": ["--error-after", "3"],
    "close-after": ["--close-after", "3"], "close-abrupt": ["--close-after", "3", "--abrupt"],
    "no-ack": ["--no-ack"], "stall": ["--stall-after", "3", "--stall-seconds", "8"],
    "send-unaccepted": ["--send-unaccepted-after", "3"],
    "unknown-context": ["--answer-unknown-context"]}


def hostile_endpoint(ctx):
    faulty = 1 if ctx.short else 3
    with concurrent.futures.ThreadPoolExecutor(5) as pool:
        futures = [pool.submit(_hostile_case, ctx, name, flags, faulty)
                   for name, flags in HOSTILE.items()]
        return [future.result() for future in futures]


def _hostile_case(ctx, name, flags, faulty):
    rate, seconds = (2_000, 10) if ctx.short else (10_000, 25)
    lines = rate * seconds
    # An unknown context ends the agent at its first answer, which a quick endpoint gives before
    # the harness has seen the agent run.
    source, sink, agent = tail_job(ctx, name + ".log", "tok-8", suffix="-" + name,
                                   sink_flags=flags + ["--faulty-connections", str(faulty)],
                                   wait=name != "unknown-context")
    gen = Generator(ctx, source, lines, rate, name="gen-" + name)
    label = "7 hostile %s (first %d)" % (name, faulty)
    if name == "unknown-context":
        # A registration answer for an id never given out ends the agent with an uncaught
        # std::out_of_range: that is its named way out, not a crash to repair.
        return fatal_row(label, agent, gen, sink, 30, lambda err: b"std::out_of_range" in err,
                         "uncaught std::out_of_range")
    gen.wait(seconds * 3 + 60)
    # Each faulty connection costs up to one five-second check before it is replaced.
    alive, _, report = end_tail_job(sink, agent, "tok-8", lines, 5 * faulty + 40)
    connects = agent.last_counter("networkConnects")
    accepted = sum(read(err).count(b"Accepted a connection") for _, _, err in sink.runs)
    notes = "alive: %s; connections made %d; sink saw %d; agent CPU %.0f s" % (
        alive, connects, accepted, agent.cpu_seconds)
    return make_row(label, report, agent, alive, notes)


# --- 9. A crowd of careless and hostile clients ------------------------------------------------

def _packet(command, payload):
    return struct.pack("<IH", 6 + len(payload), command) + payload


def _crowd_client(port, seed):
    """One client of the crowd: its kind and its bytes come from `seed`."""
    rng = random.Random(seed)
    kind = rng.choice(["garbage", "truncated", "oversized", "batches", "batches", "idle", "plain"])
    raw = socket.create_connection((HOST, port), timeout=20)
    try:
        if kind == "plain":  # no TLS at all
            raw.sendall(rng.randbytes(rng.randrange(1, 400)))
            return kind
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        tls.check_hostname, tls.verify_mode = False, ssl.CERT_NONE
        conn = tls.wrap_socket(raw)
        if kind == "garbage":
            conn.sendall(rng.randbytes(rng.randrange(1, 3000)))
        elif kind == "truncated":
            conn.sendall(_packet(4, rng.randbytes(rng.randrange(200, 3000)))[:-rng.randrange(1, 150)])
        elif kind == "oversized":
            conn.sendall(struct.pack("<IH", rng.randrange(1 << 21, 1 << 32), 4) + rng.randbytes(100))
        elif kind == "batches":
            token = b"crowd-%d" % seed
            conn.sendall(_packet(2, bytes([len(token)]) + token + struct.pack("<I", 0)) + _packet(
                49, struct.pack("<II", 0, 1) + struct.pack("<H", 10) + b"enable_ack" +
                struct.pack("<QI", 1, 0)))
            for batch in range(rng.randrange(1, 20)):
                events = [rng.randbytes(rng.randrange(0, 2000)) for _ in range(rng.randrange(1, 40))]
                conn.sendall(_packet(4, struct.pack("<IQI", 0, batch, len(events)) + b"".join(
                    struct.pack("<H", len(e)) + e for e in events)))
            if rng.random() < 0.5:
                conn.recv(1)  # an answer came: the sink has read what went before
        else:
            time.sleep(rng.uniform(0.5, 3))
        if rng.random() < 0.5:
            # Abrupt: a reset instead of any close.
            raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        else:
            conn.unwrap()
        return kind
    except (OSError, ssl.SSLError):
        return kind  # the sink may well end a hostile connection first
    finally:
        raw.close()


def client_crowd(ctx):
    """About a thousand clients with random, truncated and oversized packets, orderly and abrupt
    closes and idle connections, at a sink held to 1024 descriptors; then the sink must be idle,
    back to its memory and without connections, and a real agent must get every line through."""
    clients = 1000
    sink = Sink(ctx, ["--handshake-timeout", "2", "--report-interval", "0.5"],
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (1024, 1024)))
    time.sleep(0.5)
    start = proc_usage(sink.process.pid)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 8192), hard))
    # Beyond the sink's limit, and never a handshake: only its time-out frees them. Meanwhile
    # the sink must wait, not spin on the backlog it cannot accept.
    idle = [socket.create_connection((HOST, sink.port)) for _ in range(1100)]
    time.sleep(0.5)  # the accepting is done, the handshake time-out of 2 s not yet
    at_limit = proc_usage(sink.process.pid)
    time.sleep(1)
    limit_cpu = proc_usage(sink.process.pid)["cpu"] - at_limit["cpu"]
    with concurrent.futures.ThreadPoolExecutor(48) as pool:
        kinds = list(pool.map(lambda seed: _crowd_client(sink.port, seed), range(clients)))
    for connection in idle:
        connection.close()
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    err = sink.runs[-1][2]
    reports = lambda: re.findall(rb'"open_connections":"(\d+)".*Intake so far', read(err))
    settled = wait_for(lambda: reports() and reports()[-1] == b"0", 30)
    time.sleep(1)
    before, _ = proc_usage(sink.process.pid), time.sleep(3)
    after = proc_usage(sink.process.pid)
    idle_cpu, grown_kb = after["cpu"] - before["cpu"], after["VmRSS"] - start["VmRSS"]

    lines = 20_000
    source = ctx.path("input.log")
    Generator(ctx, source, lines, 0).wait(60)
    agent = Agent(ctx, ["stream", source, "tok-13", "to", sink.target()])
    status = agent.wait_exit(60)
    wait_delivered(sink, lines, 30)
    sink.stop()
    output = read(sink.outputs[-1]).splitlines()
    unparsed = sum(1 for line in output if not _parses(line))
    ours = ctx.path("agent-lines.json")
    write(ours, b"".join(line + b"\n" for line in output if b'"token":"tok-13"' in line))
    report = checker.check([ours], {1: ("tok-13", lines)})
    total = checker.totals(report)
    ok = (settled and limit_cpu < 0.3 and idle_cpu < 0.3 and grown_kb < 8 * 1024 and unparsed == 0
          and status == 0 and total["duplicated"] == 0)
    notes = ("%d clients (%s) and 1100 idle sockets; sink CPU %.2f s in 1 s at the descriptor "
             "limit; open connections after: %s; sink CPU %.2f s in 3 s idle; RSS %d -> %d kB "
             "(peak %d); %d output lines, %d not JSON; agent exit %s"
             % (clients, ", ".join("%d %s" % (kinds.count(k), k) for k in sorted(set(kinds))),
                limit_cpu, reports()[-1].decode() if reports() else "?", idle_cpu,
                start["VmRSS"], after["VmRSS"], after["VmHWM"], len(output), unparsed, status))
    return [make_row("9 crowd of hostile clients", report, agent, ok, notes)]


def _parses(line):
    try:
        json.loads(line)
        return True
    except ValueError:
        return False


# --- 8. The service's instance runner ---------------------------------------------------------

def service_runner(ctx):
    """The unit's command line run by hand: words from a file, SIGINT, an abort and a restart."""
    if not ctx.instance_runner:
        raise Failure("needs --instance-runner")
    source = ctx.path("app.log")
    write(source, b"")
    sink = Sink(ctx)
    prefix = "host:web 1  "
    instance = ctx.path("web.conf")
    write(instance, "# A job as an operator writes it.\n\ntail %s tok-12\n  prepend '%s'\n"
          "to %s\n" % (source, prefix, sink.target()))
    env = dict(os.environ, DROVER=ctx.drover)
    argv = [ctx.instance_runner, instance]
    phases = []  # (src, status, how it was stopped, the executable)
    per_phase = 3_000
    expected = {src: ("tok-12", per_phase) for src in (1, 2, 3)}

    def delivered(src):
        report = checker.check(sink.outputs, expected, prefix.encode())
        return report["sources"][src]["delivered"]

    def run_phase(src, stop_signal):
        agent = Agent(ctx, [], name="agent-%d" % src, argv=argv, env=env)
        agent.wait_running()
        # The runner gives way to the agent: the service's main process is drover itself.
        exe = os.path.basename(os.readlink("/proc/%d/exe" % agent.pid))
        with open(source, "ab") as log:
            for seq in range(per_phase):
                log.write(generator.line(src, seq, time.time_ns()))
                if seq % 100 == 99:
                    log.flush()
                    time.sleep(0.01)
        if not wait_for(lambda: delivered(src) >= per_phase, 30, step=0.2):
            raise Failure("source %d: %d of %d lines arrived" % (src, delivered(src), per_phase))
        os.kill(agent.pid, stop_signal)
        phases.append((src, agent.wait_exit(20), signal.Signals(stop_signal).name, exe))

    run_phase(1, signal.SIGINT)
    # An abort, as on a failed assertion; Restart=on-failure starts it again.
    run_phase(2, signal.SIGABRT)
    run_phase(3, signal.SIGINT)

    # A start that is refused ends with the agent's status; on-failure retries it.
    write(ctx.path("missing.conf"), "tail %s tok-12 to %s\n" % (ctx.path("not-there.log"),
                                                                sink.target()))
    refused = subprocess.run([ctx.instance_runner, ctx.path("missing.conf")], env=env,
                             capture_output=True, timeout=20)
    # Words that others could change are not run.
    os.chmod(instance, 0o666)
    open_file = subprocess.run(argv, env=env, capture_output=True, timeout=20)
    sink.stop()

    expected_status = {"SIGINT": 0, "SIGABRT": -signal.SIGABRT}
    statuses_ok = all(status == expected_status[how] and exe == "drover"
                      for _, status, how, exe in phases)
    refused_ok = (refused.returncode == 1 and
                  b"Refusing startup" in refused.stdout and open_file.returncode == 1 and
                  b"writable by others" in open_file.stderr)
    notes = ("phases %s; missing file: status %d; group-writable words: status %d" % (
        ", ".join("%s->%s (%s)" % (how, status, exe) for _, status, how, exe in phases),
        refused.returncode, open_file.returncode))
    report = checker.check(sink.outputs, expected, prefix.encode())
    return [make_row("8 service runner: SIGINT, abort, restart", report, None,
                     statuses_ok and refused_ok, notes)]


SCENARIOS = {
    "kill": endpoint_killed,
    "bytes": byte_transparency,
    "hostile": hostile_endpoint,
    "logrotate": logrotate_rotation,
    "crowd": client_crowd,
    "service": service_runner,
}


def describe(row):
    """One result as a line: verdict, scenario, the figures it has, its notes."""
    figures = ", ".join("%s %s" % (key, row[key]) for key in COLUMNS if row[key] is not None)
    return "%-4s %s: %s; %s" % ("ok" if row["ok"] else "FAIL", row["scenario"], figures,
                                row["notes"])


def main(extra=None):
    """`extra` adds scenarios by name, the long measuring ones of bench/reliability."""
    SCENARIOS.update(extra or {})
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--drover", required=True)
    parser.add_argument("--sink", required=True)
    parser.add_argument("--short", action="store_true", help="the CI variants")
    parser.add_argument("--work-dir", help="where runs keep their files (default: a temp dir)")
    parser.add_argument("--keep", action="store_true", help="keep the files of passing runs")
    parser.add_argument("--instance-runner", help="the service's drover-instance (service)")
    parser.add_argument("scenarios", nargs="+", help=" ".join(SCENARIOS) + " or all")
    args = parser.parse_args()
    # "service" needs the instance runner of a build or a package; "all" has it only if given.
    names = ([name for name in SCENARIOS if name != "service" or args.instance_runner]
             if args.scenarios == ["all"] else args.scenarios)
    for name in set(names) - set(SCENARIOS):
        parser.error("unknown scenario %s" % name)
    own_dir = args.work_dir is None
    args.work_dir = os.path.abspath(args.work_dir or tempfile.mkdtemp(prefix="drover-reliability-"))
    # The programs run in the scenario's directory.
    args.drover, args.sink = os.path.abspath(args.drover), os.path.abspath(args.sink)
    if args.instance_runner:
        args.instance_runner = os.path.abspath(args.instance_runner)

    rows = []
    for name in names:
        ctx = Context(args, name + ("-short" if args.short else ""))
        started = time.monotonic()
        try:
            produced = SCENARIOS[name](ctx)
        except Exception as failure:  # noqa: BLE001 - one broken scenario must not hide the rest
            traceback.print_exc()
            produced = [Row(name, False, "harness stopped: %s" % failure)]
        finally:
            ctx.cleanup()
        for row in produced:
            print(describe(row), flush=True)
        print("# %s took %.0f s, files in %s" % (name, time.monotonic() - started, ctx.dir),
              flush=True)
        if all(row["ok"] for row in produced) and not args.keep:
            shutil.rmtree(ctx.dir, ignore_errors=True)
        rows += produced
    ok = all(row["ok"] for row in rows)
    print("\n" + "\n".join(map(describe, rows)))
    if own_dir and ok and not args.keep:
        shutil.rmtree(args.work_dir, ignore_errors=True)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
