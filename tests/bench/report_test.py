"""What bench/report.py makes of measurements, and how it ends."""

import contextlib
import io
import json
import os
import tempfile
import unittest
from pathlib import Path

import report


def timed(question, peer, median, suffix=""):
    """The entries that Google Benchmark writes for one benchmark."""
    run_name = f"{question}/{peer}{suffix}"
    return [{"run_name": run_name, "aggregate_name": aggregate, "time_unit": "ns",
             "cpu_time": value, "real_time": value + 1000}
            for aggregate, value in (("mean", median * 7), ("median", median))]


class Report(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.goals = Path(folder.name, "goals.txt")
        self.results = Path(folder.name, "results.json")

    def run_with(self, goals, runs):
        """(exit status, lines printed, lines of complaint)"""
        self.goals.write_text(goals)
        self.results.write_text(json.dumps({"benchmarks": runs}))
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            status = report.main([str(self.goals), str(self.results)])
        return status, out.getvalue().splitlines(), err.getvalue()

    def verdict_of(self, our_median, goal="call | ours | peer | ratio | 2.0 | 1.5"):
        status, lines, _ = self.run_with(
            goal, timed("call", "ours", our_median) + timed("call", "peer", 100))
        return status, lines[-1].split("1.50x")[-1].strip()

    def test_ratio_at_the_aim_is_ok(self):
        self.assertEqual(self.verdict_of(150), (0, "ok"))

    def test_ratio_between_aim_and_limit_is_ok_and_says_so(self):
        self.assertEqual(self.verdict_of(151), (0, "ok, short of the aim"))
        self.assertEqual(self.verdict_of(200), (0, "ok, short of the aim"))

    def test_ratio_above_the_limit_is_missed(self):
        self.assertEqual(self.verdict_of(201), (1, "MISSED"))

    def test_line_shows_both_medians_and_the_ratio(self):
        _, lines, _ = self.run_with(
            "call | ours | peer | ratio | 2.0 | 1.5",
            timed("call", "ours", 1234.5) + timed("call", "peer", 1000))
        self.assertEqual(lines[-1].split(),
                         ["call", "ours", "peer", "1,234.5", "ns", "1,000.0", "ns", "1.23x",
                          "2.00x", "1.50x", "ok"])

    def test_benchmark_by_the_clock_counts_real_time(self):
        for suffix in ("/iterations:9/real_time", "/manual_time"):
            with self.subTest(suffix):
                _, lines, _ = self.run_with(
                    "call | ours | peer | ratio | 2.0 | 1.5",
                    timed("call", "ours", 0, suffix) + timed("call", "peer", 1000, suffix))
                self.assertIn("1,000.0 ns  2,000.0 ns", lines[-1])

    def test_difference_of_memory_counts_kibibytes(self):
        runs = timed("idle", "ours", 5) + timed("idle", "peer", 5)
        for run, kibibytes in zip(runs, (0, 501, 0, 100)):
            run["KiB"] = kibibytes
        status, lines, _ = self.run_with("idle | ours | peer | more | 400 | 250", runs)
        self.assertEqual(status, 1)
        self.assertEqual(lines[-1].split()[-7:],
                         ["+401", "KiB", "+400", "KiB", "+250", "KiB", "MISSED"])

    def test_question_that_was_not_measured_is_left_out(self):
        status, lines, _ = self.run_with(
            "call | ours | peer | ratio | 2 | 1\nother | ours | peer | ratio | 2 | 1",
            timed("call", "ours", 1) + timed("call", "peer", 1))
        self.assertEqual(status, 0)
        self.assertEqual([line.split()[0] for line in lines[2:]], ["call"])

    def test_missing_peer_is_an_error(self):
        status, _, complaint = self.run_with(
            "call | ours | peer | ratio | 2 | 1", timed("call", "ours", 1))
        self.assertEqual((status, complaint), (2, "report: call: no figure for 'peer'\n"))

    def test_malformed_goal_is_an_error_with_its_line(self):
        for goal in ("call | ours | peer | ratio | 2", "call | ours | peer | less | 2 | 1",
                     "call | ours | peer | ratio | two | 1"):
            with self.subTest(goal):
                status, _, complaint = self.run_with("# a comment\n\n" + goal, [])
                self.assertEqual(status, 2)
                self.assertIn(os.fspath(self.goals) + ":3: ", complaint)

    def test_goals_of_the_tree_are_well_formed(self):
        goals = report.read_goals(Path(report.__file__).with_name("goals.txt"))
        self.assertTrue(goals)
        for question, _, _, _, required, aim in goals:
            self.assertLessEqual(aim, required, question)


if __name__ == "__main__":
    unittest.main()
