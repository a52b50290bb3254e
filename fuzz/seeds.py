#!/usr/bin/env python3
"""Writes the hand-made seeds of fuzz/corpus/<target>/ (inputs found while fuzzing sit beside them)."""
import os
import struct

here = os.path.dirname(os.path.abspath(__file__))


def packet(command, payload=b""):
    return struct.pack("<IH", 6 + len(payload), command) + payload


def string16(text):
    return struct.pack("<H", len(text)) + text


def registered(context, error=b""):
    return packet(3, struct.pack("<I", context) + string16(error))


def config_ack(context, names, count=None):
    count = len(names) if count is None else count
    return packet(50, struct.pack("<II", context, count) + b"".join(string16(n) for n in names))


def log_ack(sequence):
    return packet(51, struct.pack("<IQH", 0, sequence, 0))


OPTIONS = [b"enable_ack", b"timestamp_divider", b"truncate_timestamp"]


def records(stream, chunk):
    """The receive_path input body: the stream cut into reads of `chunk` bytes."""
    out = b""
    for i in range(0, len(stream), chunk):
        piece = stream[i:i + chunk]
        out += bytes([len(piece) - 1]) + piece
    return out


def write(target, name, data):
    with open(os.path.join(here, "corpus", target, name), "wb") as f:
        f.write(data)


negotiation = (registered(0) + registered(1) + config_ack(0, OPTIONS) + config_ack(1, OPTIONS)
               + log_ack(0) + log_ack(1))
receive = {
    "negotiation_whole": (0x0C, records(negotiation, 256)),
    "negotiation_bytewise": (0x04, records(negotiation, 1)),
    "negotiation_split7": (0x1A, records(negotiation, 7)),
    "refused_token": (0x00, records(registered(1, b"token refused") + log_ack(3), 256)),
    "remote_error": (0x03, records(packet(0, b"go away") + registered(0), 256)),
    "ack_missing_and_extra": (0x00, records(config_ack(0, [b"enable_ack", b"other"]), 256)),
    "ack_short_count": (0x01, records(config_ack(1, OPTIONS[:2], count=3) + log_ack(1), 256)),
    "unknown_context": (0x00, records(registered(7), 256)),
    "unknown_context_ack": (0x00, records(config_ack(9, OPTIONS), 256)),
    "unaccepted_completed": (0x00, records(packet(1) + packet(49), 256)),
    "too_small": (0x00, records(struct.pack("<IH", 5, 0), 256)),
    "too_large": (0x00, records(struct.pack("<I", 268435457), 256)),
    "large_error_message": (0x00, records(packet(0, b"x" * 5000) + log_ack(0), 256)),
    "grown_header_only": (0x00, records(struct.pack("<IH", 70000, 0) + b"y" * 600, 200)),
    "ack_beyond_sent": (0x0C, records(log_ack(2**64 - 1) + log_ack(5), 256)),
}
for name, (flags, body) in receive.items():
    write("receive_path", name, bytes([flags]) + body)

timestamps = {
    "plain": b"2024-01-02 03:04:05 message\n",
    "fraction_zone": b"x 2024-01-02T03:04:05.123456789+02:00 y\n2024-01-02T03:04:05,5Z\n",
    "short_and_broken": b"2024-01-02 03:04:0\n2024-13-40 25:61:61\n1969-12-31 23:59:59-01:00\n",
    "date_only": b"2024-01-02\n\n00000-00-00T00:00:00.0000000000\n",
}
for name, data in timestamps.items():
    write("timestamp", name, data)

grammar = {
    "tail_to": [b"tail", b"log", b"token", b"to", b"localhost:9000"],
    "stream_options": [b"stream", b"app.log", b"t", b"timestamps", b"first-iso", b"prepend",
                       b"[a] ", b"to", b"[::1]:1"],
    "bad_port": [b"stream", b"log", b"t", b"to", b"host:x1"],
    "huge_port": [b"stream", b"log", b"t", b"to", b"host:99999999999"],
    "missing": [b"tail", b"nothere", b"t", b"to", b"h:65536"],
    "misc": [b"timesource", b"help", b"timestamps", b"system"],
}
for name, words in grammar.items():
    write("forward_grammar", name, b"\0".join(words))
