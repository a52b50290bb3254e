#!/usr/bin/env python3
"""Writes sequence-numbered lines to a file, pipe, FIFO or standard output at a set rate.

Each line is `src=<id> seq=<n> t=<ns> <padding>` and a newline. t is the wall-clock time of the
write that carries the line; the padding's length and letters follow from (src, seq), so a
checker can tell a damaged line from a good one without keeping a copy.

The writer keeps a schedule (line n is due at start + n / rate) and catches up in bursts after it
was held back, as a real program with a backlog would. With --rotate-every it renames the file
and carries on in a new one at the same path, at once. With --reopen-on-hup it leaves moving to
someone else (logrotate) and opens the path again on SIGHUP, as daemons do in a postrotate.
"""

import argparse
import json
import os
import signal
import sys
import time

TICK = 0.005  # seconds between writes at a set rate


ALPHABET = bytes(range(97, 123)) * 6


def padding(src, seq):
    length = (seq * 37 + src * 11) % 121
    start = (seq + src) % 26
    return ALPHABET[start:start + length]


def line(src, seq, t_ns):
    return b"src=%d seq=%d t=%d %s\n" % (src, seq, t_ns, padding(src, seq))


def write_file(args):
    """Writes the lines `args` ask for; returns the summary of the run."""
    path, lines, rate = args.out, args.lines, args.rate
    hangups = []
    if args.reopen_on_hup:
        signal.signal(signal.SIGHUP, lambda number, frame: hangups.append(number))
    # A file starts empty (a FIFO ignores O_TRUNC); a follower of the path sees only our lines.
    flags = os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_TRUNC
    # Plain open: a FIFO blocks here until its reader is there, which is what we want.
    fd = sys.stdout.fileno() if path == "-" else os.open(path, flags, 0o644)
    start = time.monotonic()
    next_rotation = start + args.rotate_every if args.rotate_every else None
    rotated = reopened = seq = 0
    longest_write = last_status = 0.0
    chunk_lines = max(1, int(rate * TICK)) if rate else 2000
    while seq < lines:
        now = time.monotonic()
        if next_rotation is not None and now >= next_rotation and rotated < args.rotations:
            os.close(fd)
            rotated += 1
            os.rename(path, "%s.%d" % (path, rotated))
            fd = os.open(path, flags | os.O_EXCL, 0o644)
            next_rotation += args.rotate_every
        if hangups:
            # Whoever moved the file has made the new one (logrotate's create), or we make it.
            del hangups[:]
            os.close(fd)
            fd = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
            reopened += 1
        if rate:
            due = min(lines, int((now - start) * rate) + 1)
            if due <= seq:
                time.sleep(min(TICK, (seq - due + 1) / rate))
                continue
            # A burst after a hold-up goes out in pieces of bounded size.
            count = min(due - seq, chunk_lines * 20)
        else:
            count = min(lines - seq, chunk_lines)
        t_ns = time.time_ns()
        view = memoryview(b"".join(line(args.src, n, t_ns) for n in range(seq, seq + count)))
        before = time.monotonic()
        while view:
            view = view[os.write(fd, view):]
        longest_write = max(longest_write, time.monotonic() - before)
        seq += count
        if before - last_status > 0.2:
            last_status = before
            write_status(args.status, seq)
    if path != "-":
        os.close(fd)
    write_status(args.status, seq)
    return {"elapsed": time.monotonic() - start, "longest_write": longest_write,
            "reopened": reopened}


def write_status(path, seq):
    if path:  # replaced whole, so that a reader never sees half a number
        with open(path + ".tmp", "w") as status:
            status.write("%d\n" % seq)
        os.replace(path + ".tmp", path)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True, help="file, FIFO or - for standard output")
    parser.add_argument("--src", type=int, default=1)
    parser.add_argument("--lines", type=int, required=True)
    parser.add_argument("--rate", type=float, default=0, help="lines per second; 0: at once")
    parser.add_argument("--rotate-every", type=float, default=0, help="seconds between moves")
    parser.add_argument("--rotations", type=int, default=0)
    parser.add_argument("--reopen-on-hup", action="store_true", help="open the path again on SIGHUP")
    parser.add_argument("--status", help="file that holds the count written so far")
    parser.add_argument("--report", help="file for the summary (JSON)")
    args = parser.parse_args()
    summary = write_file(args)
    if args.report:
        with open(args.report, "w") as report:
            json.dump(summary, report)


if __name__ == "__main__":
    main()
