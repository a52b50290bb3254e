#!/usr/bin/env python3
"""Reads what drover-sink wrote (JSON lines with "received") and accounts for every generated line.

Per source it reports lines lost, duplicated, out of order relative to the order of first
arrival, corrupted, and the delivery delay (received - generated) of first arrivals. The outputs
of several sink runs are read in the order given, as one stream of arrivals: a restarted sink
continues where the killed one stopped.
"""

import argparse
import json
import re
import sys
from collections import defaultdict

import generator

# The sink writes its fields in this order; "event" is last and runs to the closing brace.
SINK_LINE = re.compile(
    rb'^\{"token":"((?:[^"\\]|\\.)*)","context":(\d+),"timestamp":(\d+),"connection":(\d+),'
    rb'"batch":(\d+),"received":(\d+),"event":"(.*)"\}$')
GENERATED = re.compile(rb"^src=(\d+) seq=(\d+) t=(\d+) ([a-z]*)\n$")
ESCAPE = re.compile(rb'\\(u(?:00|DC)([0-9A-F]{2})|["\\])')


def unescape(text):
    """Undoes the sink's escaping: \\u00XX for bytes below 0x20, \\uDCXX for bytes outside
    valid UTF-8, a backslash before " and \\."""
    if b"\\" not in text:
        return text

    def one(match):
        if match.group(2) is not None:
            return bytes([int(match.group(2), 16)])
        return match.group(1)

    return ESCAPE.sub(one, text)


class Arrival:
    __slots__ = ("unit", "position", "received")

    def __init__(self, unit, position, received):
        self.unit = unit
        self.position = position
        self.received = received


def percentile(sorted_values, fraction):
    if not sorted_values:
        return None
    index = min(len(sorted_values) - 1, int(round(fraction * (len(sorted_values) - 1))))
    return sorted_values[index]


def check(paths, expected):
    """`expected` maps a source id to (token, number of lines generated). Returns the report."""
    first = {src: {} for src in expected}  # src -> seq -> Arrival of its first arrival
    order = {src: [] for src in expected}  # src -> seqs in order of first arrival
    duplicates = defaultdict(int)
    corrupted = defaultdict(int)
    corrupt_samples = []
    delays = {src: [] for src in expected}
    # A delivery unit is one connection of one sink run: duplicates come from the tail of one.
    unit_events = defaultdict(int)
    redelivered_from = defaultdict(lambda: None)  # unit -> earliest position re-sent later
    units = []

    def damaged(src, raw, why):
        corrupted[src] += 1
        if len(corrupt_samples) < 5:
            corrupt_samples.append((why, raw[:160]))

    for file_index, path in enumerate(paths):
        unit_of_connection = {}
        with open(path, "rb") as output:
            for raw in output:
                match = SINK_LINE.match(raw.rstrip(b"\n"))
                if not match:
                    damaged(None, raw, "not a sink line")
                    continue
                token, _, _, connection, _, received, event = match.groups()
                key = (file_index, connection)
                unit = unit_of_connection.get(key)
                if unit is None:
                    unit = unit_of_connection[key] = len(units)
                    units.append(key)
                position = unit_events[unit]
                unit_events[unit] += 1
                line = GENERATED.match(unescape(event))
                if not line:
                    damaged(None, raw, "not a generated line")
                    continue
                src, seq, t_ns = int(line.group(1)), int(line.group(2)), int(line.group(3))
                if src not in expected:
                    damaged(None, raw, "unknown source")
                    continue
                want_token, count = expected[src]
                if (seq >= count or line.group(4) != generator.padding(src, seq)
                        or unescape(token) != want_token.encode()):
                    damaged(src, raw, "bad sequence, padding or token")
                    continue
                seen = first[src].get(seq)
                if seen is None:
                    first[src][seq] = Arrival(unit, position, int(received))
                    order[src].append(seq)
                    delays[src].append(int(received) - t_ns)
                else:
                    duplicates[src] += 1
                    earliest = redelivered_from[seen.unit]
                    if earliest is None or seen.position < earliest:
                        redelivered_from[seen.unit] = seen.position

    report = {"sources": {}, "units": len(units)}
    for src, (token, count) in expected.items():
        highest = -1
        reordered = 0
        for seq in order[src]:
            if seq < highest:
                reordered += 1
            else:
                highest = seq
        ordered_delays = sorted(delays[src])
        report["sources"][src] = {
            "token": token,
            "generated": count,
            "delivered": len(first[src]),
            "lost": count - len(first[src]),
            "duplicated": duplicates[src],
            "reordered": reordered,
            "corrupted": corrupted[src],
            "delay_p50_ms": _ms(percentile(ordered_delays, 0.50)),
            "delay_p99_ms": _ms(percentile(ordered_delays, 0.99)),
            "delay_max_ms": _ms(ordered_delays[-1] if ordered_delays else None),
        }
    # How deep into a connection's end the re-sent events reach: the in-flight window it had.
    windows = [unit_events[unit] - position for unit, position in redelivered_from.items()
               if position is not None]
    report["unattributed_corrupt"] = corrupted[None]
    report["corrupt_samples"] = [(why, sample.decode("latin-1")) for why, sample in corrupt_samples]
    report["redelivery_windows"] = sorted(windows)
    return report


def _ms(nanos):
    return None if nanos is None else round(nanos / 1e6, 1)


def totals(report):
    """The figures of all sources together, for one row of the table."""
    sources = report["sources"].values()
    total = {key: sum(s[key] for s in sources)
             for key in ("generated", "delivered", "lost", "duplicated", "reordered", "corrupted")}
    total["corrupted"] += report["unattributed_corrupt"]
    p99 = [s["delay_p99_ms"] for s in sources if s["delay_p99_ms"] is not None]
    p50 = [s["delay_p50_ms"] for s in sources if s["delay_p50_ms"] is not None]
    total["delay_p99_ms"] = max(p99) if p99 else None
    total["delay_p50_ms"] = max(p50) if p50 else None
    return total


def frame_regular_file(data, prepend=0):
    """The events a source cuts from a regular file holding `data`, byte for byte.

    Mirrors the reader: a buffer of 65526 usable bytes (less the prepend) and one spare, reads
    that fill all free space, lines handed over with their newline, a line that fills the buffer
    split with a newline in the spare byte, and unterminated bytes at the end never sent. A split
    of a buffer that stopped short of the brim ends in whatever byte the buffer held there.
    """
    size = 65526 - prepend
    buf = bytearray(size + 1)  # zeroed, as the reader's allocation is
    begin = end = offset = 0
    events = []
    while True:
        while True:
            newline = buf.find(b"\n", begin, end)
            if newline < 0:
                break
            events.append(bytes(buf[begin:newline + 1]))
            begin = newline + 1
        if size - end < 512:
            if begin != 0:
                kept = end - begin
                buf[0:kept] = buf[begin:end]
                begin, end = 0, kept
            else:
                buf[size] = 0x0A
                events.append(bytes(buf[begin:end + 1]))
                begin = end = 0
        count = min(size - end, len(data) - offset)
        if count == 0:
            return events
        buf[end:end + count] = data[offset:offset + count]
        end += count
        offset += count


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--expect", action="append", required=True,
                        help="SRC:TOKEN:LINES, once per source")
    parser.add_argument("outputs", nargs="+", help="sink outputs in the order of the sink runs")
    args = parser.parse_args()
    expected = {}
    for text in args.expect:
        src, token, lines = text.split(":")
        expected[int(src)] = (token, int(lines))
    report = check(args.outputs, expected)
    json.dump(report, sys.stdout, indent=1)
    print()
    total = totals(report)
    return 0 if total["lost"] == 0 and total["corrupted"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
