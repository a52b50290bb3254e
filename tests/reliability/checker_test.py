#!/usr/bin/env python3
"""The harness's own accounting: a checker that miscounts would pass a lossy agent."""

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
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.dir.cleanup()

    def output(self, name, lines):
        path = os.path.join(self.dir.name, name)
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

    def test_each_connection_is_its_own_delivery_unit(self):
        lines = [sink_line(n, connection=0) for n in range(4)]
        lines += [sink_line(n, connection=1) for n in range(1, 6)]
        report = checker.check([self.output("0.json", lines)], {1: ("tok", 6)})
        self.assertEqual(report["sources"][1]["duplicated"], 3)
        self.assertEqual(report["redelivery_windows"], [3])
        self.assertEqual(report["units"], 2)

    def test_delay_is_measured_on_first_arrivals(self):
        lines = [sink_line(n, t_ns=0, received=(n + 1) * 1_000_000) for n in range(100)]
        lines.append(sink_line(0, t_ns=0, received=10_000_000_000))  # a late duplicate
        report = checker.check([self.output("0.json", lines)], {1: ("tok", 100)})
        source = report["sources"][1]
        self.assertEqual(source["delay_p50_ms"], 51.0)
        self.assertEqual(source["delay_p99_ms"], 99.0)
        self.assertEqual(source["delay_max_ms"], 100.0)

    def test_unescape_restores_what_the_sink_escaped(self):
        self.assertEqual(checker.unescape(rb'a\u0000b\u001F\"\\\u000A'), b'a\x00b\x1f"\\\n')
        self.assertEqual(checker.unescape(b"\\uDCFF plain \\uDCC3 \xc3\xa9"),
                         b"\xff plain \xc3 \xc3\xa9")
        # An escaped backslash followed by letters is not an escape sequence of its own.
        self.assertEqual(checker.unescape(rb"\\u0041"), rb"\u0041")


class FramingTest(unittest.TestCase):
    def test_lines_that_fit_pass_whole_and_an_unterminated_end_is_dropped(self):
        data = b"a\r\n\n" + b"x" * 65525 + b"\nlast without newline"
        self.assertEqual(checker.frame_regular_file(data), [b"a\r\n", b"\n", b"x" * 65525 + b"\n"])

    def test_a_line_longer_than_the_buffer_is_cut_with_a_newline_at_the_brim(self):
        events = checker.frame_regular_file(b"y" * 65526 + b"\n")
        self.assertEqual(events, [b"y" * 65526 + b"\n", b"\n"])
        events = checker.frame_regular_file(b"z" * 200_000 + b"\n")
        self.assertEqual([len(e) for e in events], [65527, 65527, 65527, 3423])
        self.assertEqual(b"".join(e[:-1] for e in events[:-1]) + events[-1], b"z" * 200_000 + b"\n")

    def test_a_cut_short_of_the_brim_ends_in_a_stale_byte(self):
        self.assertEqual(checker.frame_regular_file(b"y" * 65300), [b"y" * 65300 + b"\x00"])

    def test_a_prepend_shrinks_the_buffer(self):
        events = checker.frame_regular_file(b"p" * 65520 + b"\n", prepend=10)
        self.assertEqual([len(e) for e in events], [65517, 5])


class GeneratorTest(unittest.TestCase):
    def test_lines_carry_what_the_checker_verifies(self):
        for seq in (0, 1, 120, 999_999):
            line = generator.line(3, seq, 42)
            match = checker.GENERATED.match(line)
            self.assertIsNotNone(match, line)
            self.assertEqual(match.group(4), generator.padding(3, seq))
        lengths = {len(generator.padding(1, seq)) for seq in range(1000)}
        self.assertEqual(min(lengths), 0)
        self.assertEqual(max(lengths), 120)

    def test_rotation_moves_the_file_and_goes_on_at_the_same_path(self):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "log")
            summary = generator.write_file(path, 600, 1, 2000, 0.1, 2, None)
            self.assertEqual(summary["rotations"], 2)
            seqs = []
            for name in ("log.1", "log.2", "log"):
                with open(os.path.join(directory, name), "rb") as f:
                    seqs += [int(checker.GENERATED.match(l).group(2))
                             for l in f.read().splitlines(keepends=True)]
            self.assertEqual(seqs, list(range(600)))


if __name__ == "__main__":
    unittest.main()
