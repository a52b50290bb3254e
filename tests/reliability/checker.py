#!/usr/bin/env python3
"""Reads what drover-sink wrote (JSON lines with "received") and accounts for every generated line.

Per source it reports lines lost, duplicated, out of order relative to the order of first
arrival, corrupted, and the delivery delay (received - generated) of first arrivals. The outputs
of several sink runs are read in the order given, as one stream of arrivals: a restarted sink
continues where the killed one stopped.
"""

import re
from collections import defaultdict

import generator

# The sink writes its fields in this order; "event" is last and runs to the closing brace.
SINK_LINE = re.compile(
    rb'^\{"token":"((?:[^"\\]|\\.)*)","context":\d+,"timestamp":\d+,"connection":(\d+),'
    rb'"batch":\d+,"received":(\d+),"event":"(.*)"\}$')
GENERATED = re.compile(rb"^src=(\d+) seq=(\d+) t=(\d+) ([a-z]*)\n$")
ESCAPE = re.compile(rb'\\(u(?:00|DC)([0-9A-F]{2})|["\\])')


def unescape(text):
    """Undoes the sink's escaping: \\u00XX for bytes below 0x20, \\uDCXX for bytes outside
    valid UTF-8, a backslash before " and \\."""
    return ESCAPE.sub(lambda m: bytes([int(m.group(2), 16)]) if m.group(2) else m.group(1), text)


def check(paths, expected, prefix=b""):
    """`expected` maps a source id to (token, number of lines generated), each line with `prefix`
    in front. Returns the report."""
    first = {src: {} for src in expected}  # src -> seq -> (unit, position) of its first arrival
    order = {src: [] for src in expected}  # src -> seqs in order of first arrival
    delays = {src: [] for src in expected}
    duplicates, corrupted = defaultdict(int), defaultdict(int)
    # A delivery unit is one connection of one sink run: duplicates come from the tail of one.
    unit_events = defaultdict(int)
    redelivered_from = {}  # unit -> earliest position re-sent later
    for file_index, path in enumerate(paths):
        with open(path, "rb") as output:
            for raw in output:
                match = SINK_LINE.match(raw.rstrip(b"\n"))
                if match:
                    token, connection, received, event = match.groups()
                    unit = (file_index, connection)
                    position = unit_events[unit]
                    unit_events[unit] += 1
                event = match and unescape(event)
                line = match and event.startswith(prefix) and GENERATED.match(event[len(prefix):])
                src = int(line.group(1)) if line else None
                if src not in expected:  # not a sink line, not a generated line or not ours
                    corrupted[None] += 1
                    continue
                seq, t_ns = int(line.group(2)), int(line.group(3))
                want_token, count = expected[src]
                if (seq >= count or line.group(4) != generator.padding(src, seq)
                        or unescape(token) != want_token.encode()):
                    corrupted[src] += 1
                    continue
                seen = first[src].get(seq)
                if seen is None:
                    first[src][seq] = (unit, position)
                    order[src].append(seq)
                    delays[src].append(int(received) - t_ns)
                else:
                    duplicates[src] += 1
                    redelivered_from[seen[0]] = min(seen[1], redelivered_from.get(seen[0], seen[1]))

    sources = {}
    for src, (_, count) in expected.items():
        highest, reordered = -1, 0
        for seq in order[src]:
            reordered += seq < highest
            highest = max(highest, seq)
        ordered = sorted(delays[src])
        # Nearest rank, in milliseconds.
        p50, p99 = (round(ordered[round(f * (len(ordered) - 1))] / 1e6, 1) if ordered else None
                    for f in (0.50, 0.99))
        sources[src] = {"generated": count, "delivered": len(first[src]),
                        "lost": count - len(first[src]), "duplicated": duplicates[src],
                        "reordered": reordered, "corrupted": corrupted[src],
                        "delay_p50_ms": p50, "delay_p99_ms": p99}
    # How deep into a connection's end the re-sent events reach: the in-flight window it had.
    windows = sorted(unit_events[unit] - position for unit, position in redelivered_from.items())
    return {"sources": sources, "unattributed_corrupt": corrupted[None],
            "redelivery_windows": windows}


def totals(report):
    """The figures of all sources together, as the columns of one row of the table."""
    sources = report["sources"].values()
    total = {key: sum(s[key] for s in sources)
             for key in ("lost", "duplicated", "reordered", "corrupted")}
    total["lines"] = sum(s["generated"] for s in sources)
    total["corrupted"] += report["unattributed_corrupt"]
    for key in ("p50_ms", "p99_ms"):
        values = [s["delay_" + key] for s in sources if s["delay_" + key] is not None]
        total[key] = max(values) if values else None
    return total


def frame_regular_file(data):
    """The events a source cuts from a regular file holding `data`, byte for byte.

    Mirrors the reader: a buffer of 65526 usable bytes and one spare, reads
    that fill all free space, lines handed over with their newline, a line that fills the buffer
    split with a newline in the spare byte, and unterminated bytes at the end never sent. A split
    of a buffer that stopped short of the brim ends in whatever byte the buffer held there.
    """
    size = 65526
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


