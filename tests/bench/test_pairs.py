"""The calculations of the benchmarks: what they say of figures whose truth is known."""

import io
import json
import pathlib
import random
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import figures  # noqa: E402
import pairs  # noqa: E402


def measured(count, ratio, noise, seed, drift=0.0):
    """Two programs measured in the order of pairs.order on a machine whose speed drifts."""
    chance, costs = random.Random(seed), {"A": [], "B": []}
    for step, who in enumerate(pairs.order(count)):
        cost = 10.0 * (ratio if who == "B" else 1.0) * (1 + drift * step) * (1 + chance.uniform(-noise, noise))
        costs[who].append(cost)
    return costs["A"], costs["B"]


class Pairs(unittest.TestCase):
    def test_order_takes_turns_at_being_first(self):
        self.assertEqual(pairs.order(4), "ABBAABBA")
        self.assertEqual(pairs.order(3), "ABBAAB")

    def test_ranks(self):
        # 1 - 2/2^8 = 0.9922, 1 - 2/2^7 = 0.9844; 1 - 2 * (1 + 12)/2^12 = 0.9937, 1 - 2 * (1 + 11)/2^11 = 0.9883.
        self.assertEqual([pairs.rank(n) for n in (7, 8, 11, 12)], [0, 1, 1, 2])
        self.assertEqual(pairs.rank(6, 0.95), 1)
        self.assertEqual(pairs.FEWEST, 8)

    def test_interval_and_ratio(self):
        verdict = pairs.compare([1.0] * 9, [1.5, 1.1, 1.2, 1.9, 1.3, 1.4, 1.6, 1.8, 1.7])
        self.assertEqual((verdict.ratio, verdict.low, verdict.high), (1.5, 1.1, 1.9))
        self.assertEqual(verdict.word, "slower")

    def test_too_few_or_unequal(self):
        for a, b in (([1.0] * 7, [2.0] * 7), ([1.0] * 8, [2.0] * 9)):
            with self.assertRaises(ValueError):
                pairs.compare(a, b)

    def test_slower_and_faster_are_seen_through_noise(self):
        for seed in range(50):
            self.assertEqual(pairs.compare(*measured(16, 1.08, 0.02, seed)).word, "slower")
            self.assertEqual(pairs.compare(*measured(16, 1 / 1.08, 0.02, seed)).word, "faster")

    def test_alike_is_called_the_same(self):
        wrong = sum(pairs.compare(*measured(12, 1.0, 0.10, seed)).word != "same" for seed in range(1000))
        self.assertLess(wrong, 20)

    def test_drift_of_the_machine_is_nobodys_fault(self):
        for seed in range(50):
            self.assertEqual(pairs.compare(*measured(12, 1.0, 0.01, seed, drift=0.03)).word, "same")

    def test_one_disturbed_measurement_changes_nothing(self):
        a, b = measured(12, 1.0, 0.005, 1)
        b[5] *= 20
        self.assertEqual(pairs.compare(a, b).word, "same")
        a, b = measured(12, 1.1, 0.005, 1)
        a[7] *= 20
        self.assertEqual(pairs.compare(a, b).word, "slower")

    def test_a_difference_too_small_to_matter(self):
        self.assertEqual(pairs.compare([100.0] * 8, [100.9] * 8).word, "same")
        self.assertEqual(pairs.compare([100.0] * 8, [100.9] * 8, smallest=0.005).word, "slower")


class Figures(unittest.TestCase):
    def test_spread(self):
        self.assertEqual(figures.spread([5.0]), 0.0)
        self.assertEqual(figures.spread([9.0, 10.0, 12.0]), 0.3)
        self.assertEqual(figures.spread([1.0, 2.0, 3.0, 4.0, 5.0]), 2 / 3)
        self.assertEqual(figures.spread([0.0, 0.0]), 0.0)

    def test_a_line_has_all_keys(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "new" / "x.jsonl"
            recorder = figures.Recorder(path, commit="abc")
            self.assertEqual(recorder.add("http/1k", "processor-time", "us", "www", [3.0, 1.0, 2.0]), 2.0)
            # What was added is there before the run has ended.
            self.assertEqual([json.loads(text) for text in io.StringIO(path.read_text())], [{
                "case": "http/1k", "metric": "processor-time", "unit": "us", "value": 2.0, "peer": "www", "commit": "abc",
                "rounds": 3, "spread": 1.0}])
            recorder.file.close()


if __name__ == "__main__":
    unittest.main()
