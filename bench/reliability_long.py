#!/usr/bin/env python3
"""The long, measuring reliability scenarios, beside those of tests/reliability/run.py.

They give the figures of the README's operating notes: a steady stream and tail, an endpoint that
stalls, move rotation kept, too fast and deleted, an endpoint slowed by its output. Their
pass/fail checks repeat what the test suite checks (the end-to-end tests stream, tail and stall;
the tail source test and the logrotate scenario follow a moved file; the sink tests hold the
agent back by a blocked output), so they run here, at full length, and not in CI.

  bench/reliability_long.py --drover PATH --sink PATH [run.py options] SCENARIO... | all
"""

import concurrent.futures
import os
import re
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests",
                                "reliability"))
from run import (Agent, Failure, Generator, LineCount, Sink, checker, end_tail_job,  # noqa: E402
                 fatal_row, generator, main, make_row, proc_usage, read, tail_job,
                 wait_delivered, wait_for)

COUNTER_KEYS = ("eventsForwarded", "bufferFull", "loopBusy", "networkConnects")


class SampledAgent(Agent):
    """An agent whose RSS and counters are sampled while it runs, each with the time it was
    seen: the agent's log lines carry no time of their own."""

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.started = time.monotonic()
        self.rss_samples = []  # (seconds since start, VmRSS kB)
        self.counters = []  # (seconds since start, {key: value})
        threading.Thread(target=self._sample, daemon=True).start()

    def _sample(self):
        offset = 0
        while True:
            ended = self.process.returncode is not None
            at = time.monotonic() - self.started
            usage = proc_usage(self.pid)
            if usage:
                self.rss_samples.append((at, usage["VmRSS"]))
            data = read(self.out, offset)
            data = data[:data.rfind(b"\n") + 1]  # whole lines only
            offset += len(data)
            for line in data.splitlines():
                if b'"bufferFull"' in line:
                    values = dict(re.findall(rb'"(\w+)":"(\d+)"', line))
                    self.counters.append((at, {key: int(values.get(key.encode(), 0))
                                               for key in COUNTER_KEYS}))
            if ended:
                return
            time.sleep(0.25)

    def counter_at(self, key, seconds):
        """The last value reported at or before `seconds` after the start."""
        value = 0
        for at, values in self.counters:
            if at <= seconds:
                value = values[key]
        return value


# --- 1. Steady ---------------------------------------------------------------------------------

def steady_stream(ctx):
    lines = 200_000 if ctx.short else 1_000_000
    source = ctx.path("input.log")
    Generator(ctx, source, lines, 0).wait(120)
    sink = Sink(ctx)
    agent = Agent(ctx, ["stream", source, "tok-1", "to", sink.target()])
    started = time.monotonic()
    status = agent.wait_exit(120 if ctx.short else 300)
    took = time.monotonic() - started
    wait_delivered(sink, lines, 30)
    sink.stop()
    report = checker.check(sink.outputs, {1: ("tok-1", lines)})
    total = checker.totals(report)
    ok = status == 0 and total["duplicated"] == 0 and total["reordered"] == 0
    notes = "agent exit %s after %.1f s (%d lines/s); delay counts from the file's writing" % (
        status, took, lines / took)
    return [make_row("1a steady stream (file)", report, agent, ok, notes)]


def steady_tail(ctx):
    rate, seconds = 20_000, (10 if ctx.short else 60)
    lines = rate * seconds
    source, sink, agent = tail_job(ctx, "input.log", "tok-2")
    Generator(ctx, source, lines, rate).wait(seconds * 3 + 30)
    alive, status, report = end_tail_job(sink, agent, "tok-2", lines, 60)
    total = checker.totals(report)
    ok = alive and total["duplicated"] == 0 and total["reordered"] == 0
    return [make_row("1b steady tail %d/s" % rate, report, agent, ok,
                     "alive until SIGINT: %s (status %s); agent CPU %.0f s" % (
                         alive, status, agent.cpu_seconds))]


# --- 3. Endpoint stalled -----------------------------------------------------------------------

def endpoint_stalled(ctx):
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        live = pool.submit(_stall_live, ctx)
        quiet = pool.submit(_stall_quiet, ctx)
        return [live.result(), quiet.result()]


def _stall_live(ctx):
    rate = 10_000
    before, stall, after = 5, (15 if ctx.short else 60), (10 if ctx.short else 20)
    lines = rate * (before + stall + after)
    source = ctx.path("input.log")
    open(source, "wb").close()
    sink = Sink(ctx, ["--stall-after", str(rate * before // 300), "--stall-seconds", str(stall),
                      "--faulty-connections", "1"])
    agent = SampledAgent(ctx, ["tail", source, "tok-4", "to", sink.target()])
    agent.wait_running()
    gen = Generator(ctx, source, lines, rate)
    err = sink.runs[-1][2]
    if not wait_for(lambda: b"Stalling the connection" in read(err), before + 20):
        raise Failure("the sink never stalled")
    stalled_at = time.monotonic() - agent.started
    rss_before = agent.rss_samples[-1][1] if agent.rss_samples else 0
    if not wait_for(lambda: b"Resuming the connection" in read(err), stall + 20):
        raise Failure("the sink never resumed")
    resumed_at = time.monotonic() - agent.started
    gen.wait(stall + before + after + 120)
    alive, _, report = end_tail_job(sink, agent, "tok-4", lines, 120)
    # Counters come every 10 s; what counts is a rise while the sink did not read.
    full_start = agent.counter_at("bufferFull", stalled_at + 1)
    full_end = agent.counter_at("bufferFull", resumed_at)
    bound_kb = 256 * 1024
    ok = alive and full_end > full_start and agent.peak_kb < bound_kb
    notes = ("stall %d s; bufferFull %d -> %d during it; RSS %d kB before, peak %d kB "
             "(bound %d kB); agent CPU %.0f s" % (stall, full_start, full_end, rss_before,
                                                  agent.peak_kb, bound_kb, agent.cpu_seconds))
    return make_row("3 endpoint stalled %d s" % stall, report, agent, ok, notes)


def _stall_quiet(ctx):
    # The writer goes quiet before the endpoint reads again. What the source left in the file
    # beyond one read slice (1 MiB) waits for the next write: only inotify wakes a tail source.
    rate, stall = 10_000, (15 if ctx.short else 60)
    lines = rate * (stall // 2)
    source, sink, agent = tail_job(
        ctx, "quiet.log", "tok-9", suffix="-quiet",
        sink_flags=["--stall-after", "1", "--stall-seconds", str(stall),
                    "--faulty-connections", "1"])
    gen = Generator(ctx, source, lines, rate, name="gen-quiet")
    err = sink.runs[-1][2]
    gen.wait(stall + 60)
    if not wait_for(lambda: b"Resuming the connection" in read(err), stall + 20):
        raise Failure("the sink never resumed")
    before_nudge = wait_delivered(sink, lines, 15, settle=5)
    # Then a line now and then, as an application's next log lines would come; each write is a
    # wake-up, and each wake-up reads one slice.
    nudges = 0
    counter = LineCount()
    deadline = time.monotonic() + 90
    while counter(sink.outputs) < lines + nudges and time.monotonic() < deadline:
        with open(source, "ab") as f:
            f.write(generator.line(1, lines + nudges, time.time_ns()))
        nudges += 1
        time.sleep(0.2)
    alive, _, report = end_tail_job(sink, agent, "tok-9", lines + nudges, 30)
    stuck = lines - min(before_nudge, lines)
    size = os.path.getsize(source)
    notes = ("after the endpoint resumed, %d of %d lines (%.1f of %.1f MB) waited in the file "
             "for further writes; %d single-line writes brought them out" % (
                 stuck, lines, size * stuck / lines / 1e6, size / 1e6, nudges))
    return make_row("3b stalled, writer quiet at resume", report, agent, alive, notes)


# --- 4. Move rotation --------------------------------------------------------------------------

def rotation(ctx):
    with concurrent.futures.ThreadPoolExecutor(3) as pool:
        moved = pool.submit(_rotation_kept, ctx)
        deleted = pool.submit(_rotation_deleted, ctx)
        hurried = pool.submit(_rotation_too_fast, ctx)
        return [moved.result(), deleted.result(), hurried.result()]


def _rotation_kept(ctx):
    rate = 5_000
    every, count = (8, 1) if ctx.short else (60, 5)
    # The moved file is drained for 30 s and the path reopened on the next 5-second tick.
    seconds = every * count + 42
    lines = rate * seconds
    source, sink, agent = tail_job(ctx, "rotated.log", "tok-5", suffix="-rot")
    Generator(ctx, source, lines, rate, name="gen-rot",
              extra=["--rotate-every", str(every), "--rotations", str(count)]).wait(seconds + 120)
    alive, _, report = end_tail_job(sink, agent, "tok-5", lines, 60)
    total = checker.totals(report)
    reopened = agent.count("Reopening log file.")
    ok = alive and reopened == count and total["duplicated"] == 0
    return make_row("4 move rotation x%d every %d s" % (count, every), report, agent, ok,
                    "reopened %d times; alive until SIGINT: %s" % (reopened, alive))


def _rotation_too_fast(ctx):
    # Two moves within the drain time: the source still reads the first file when the second
    # move happens, and at its reopen it opens the third. The second file is never read.
    rate, every = 2_000, 10
    seconds = 2 * every + 42
    lines = rate * seconds
    source, sink, agent = tail_job(ctx, "hurried.log", "tok-10", suffix="-fast")
    Generator(ctx, source, lines, rate, name="gen-fast",
              extra=["--rotate-every", str(every), "--rotations", "2"]).wait(seconds + 120)
    with open(source + ".2", "rb") as skipped:
        skipped_lines = skipped.read().count(b"\n")
    alive, _, report = end_tail_job(sink, agent, "tok-10", lines, 60,
                                    delivered=lines - skipped_lines)
    lost = checker.totals(report)["lost"]
    row = make_row("4c two moves %d s apart" % every, report, agent, alive,
                   "lost by design: the second file (%d lines) was never opened; %s" % (
                       skipped_lines, "matches" if lost == skipped_lines else "DIFFERS"))
    row["ok"] = alive and lost == skipped_lines and row["corrupted"] == 0
    return row


def _rotation_deleted(ctx):
    # A moved file deleted before the reopen: the kernel drops the watch, and the removal at the
    # reopen fails, which ends the agent on an assertion.
    rate = 1_000
    source, sink, agent = tail_job(ctx, "deleted.log", "tok-6", suffix="-del")
    gen = Generator(ctx, source, rate * 45, rate, name="gen-del",
                    extra=["--rotate-every", "3", "--rotations", "1"])
    wait_for(lambda: os.path.exists(source + ".1"), 20)
    time.sleep(1)
    os.unlink(source + ".1")
    return fatal_row("4b moved file deleted within 30 s", agent, gen, sink, 60,
                     lambda err: b"Failed to remove inotify watch: " in agent.log()
                     and b"Assertion `false' failed" in err, "ends as named")



# --- 5. Slow endpoint behind a pipe ------------------------------------------------------------

def slow_endpoint(ctx):
    # The socket buffers, the agent's queue and the sink's output can hold 10 MB and more between
    # them, so the run must be several times that for the producer to feel the endpoint.
    lines = 200_000 if ctx.short else 500_000
    bytes_per_second = 2_000_000
    sink = Sink(ctx, stdout=subprocess.PIPE)
    output = sink.outputs[-1]
    reader = threading.Thread(target=_read_slowly,
                              args=(sink.process.stdout, output, bytes_per_second), daemon=True)
    reader.start()
    producer = Generator(ctx, "-", lines, 0, name="producer", stdout=subprocess.PIPE)
    agent = Agent(ctx, ["stream", "/dev/stdin", "tok-7", "to", sink.target()],
                  stdin=producer.process.stdout)
    producer.process.stdout.close()  # the agent holds the read end now
    summary = producer.wait(lines * 400 // bytes_per_second + 120)
    status = agent.wait_exit(120)
    wait_delivered(sink, lines, 60)
    sink.stop()
    reader.join(30)
    report = checker.check([output], {1: ("tok-7", lines)})
    # Unhindered the producer writes these lines in well under a second.
    paced = lines * 190 / bytes_per_second
    blocked = summary["elapsed"] > 0.5 * paced
    ok = blocked and status == 0
    notes = ("producer took %.1f s (sink drained at %.1f MB/s, ~%.0f s of output), longest "
             "write %.2f s; agent exit %s" % (summary["elapsed"], bytes_per_second / 1e6, paced,
                                             summary["longest_write"], status))
    return [make_row("5 slow endpoint, producer|stdin", report, agent, ok, notes)]


def _read_slowly(pipe, path, rate):
    started = time.monotonic()
    taken = 0
    with open(path, "wb") as out:
        while True:
            chunk = pipe.read1(65536) if hasattr(pipe, "read1") else pipe.read(65536)
            if not chunk:
                return
            out.write(chunk)
            out.flush()
            taken += len(chunk)
            ahead = taken / rate - (time.monotonic() - started)
            if ahead > 0:
                time.sleep(ahead)


if __name__ == "__main__":
    sys.exit(main({"steady-stream": steady_stream, "steady-tail": steady_tail,
                   "stall": endpoint_stalled, "rotate": rotation, "slow": slow_endpoint}))
