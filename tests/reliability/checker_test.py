#!/usr/bin/env python3
"""The harness's own accounting: a checker that miscounts would pass a lossy agent. (Its model of
the reader's line cutting is held against the real agent by the bytes scenario.)"""

import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import checker  # noqa: E402
import generator  # noqa: E402


def sink_line(seq, src=1, token=b"tok", connection=0, t_ns=1000, received=5_000_000, event=None):
    if event is None:
        event = generator.line(src, seq, t_ns).replace(b"\n", b"\\u000A")
    return (b'{"token":"%s","context":0,"timestamp":1,"connection":%d,"batch":0,"received":%d,'
            b'"event":"%s"}\n' % (token, connection, received, event))


class CheckerTest(unittest.TestCase):
    def output(self, name, lines):
        path = os.path.join(self.enterContext(tempfile.TemporaryDirectory()), name)
        with open(path, "wb") as f:
            f.write(b"".join(lines))
        return path

    def test_counts_loss_duplicates_reordering_and_damage_across_sink_runs(self):
        # Run 0 gets 0..5 and is killed; the agent re-sends 4 and 5 to run 1, which gets the
        # rest with 7 before 6, a damaged padding for 8 and a line of another token for 9.
        first = self.output("0.json", [sink_line(n) for n in range(6)])
        bad_padding = generator.line(1, 8, 1000).replace(b"\n", b"x\\u000A")
        second = self.output("1.json", [
            sink_line(4), sink_line(5), sink_line(7), sink_line(6),
            sink_line(8, event=bad_padding), sink_line(9, token=b"other"),
            b"not json at all\n",
        ])
        report = checker.check([first, second], {1: ("tok", 11)})
        source = report["sources"][1]
        self.assertEqual(source["delivered"], 8)  # 0..7
        self.assertEqual(source["lost"], 3)  # 8 and 9 arrived damaged, 10 never
        self.assertEqual(source["duplicated"], 2)
        self.assertEqual(source["reordered"], 1)
        self.assertEqual(source["corrupted"], 2)
        self.assertEqual(report["unattributed_corrupt"], 1)
        # 4 and 5 were the last two events of run 0: the window that was in flight.
        self.assertEqual(report["redelivery_windows"], [2])
        self.assertEqual(checker.totals(report)["corrupted"], 3)

    def test_unescape_restores_what_the_sink_escaped(self):
        self.assertEqual(checker.unescape(rb'a\u0000b\u001F\"\\\u000A'), b'a\x00b\x1f"\\\n')
        self.assertEqual(checker.unescape(b"\\uDCFF plain \\uDCC3 \xc3\xa9"),
                         b"\xff plain \xc3 \xc3\xa9")
        # An escaped backslash followed by letters is not an escape sequence of its own.
        self.assertEqual(checker.unescape(rb"\\u0041"), rb"\u0041")


if __name__ == "__main__":
    unittest.main()
