"""Is one program slower than another? The calculation behind bench/compare.

Both are measured in turn, A B B A A B B A ..., and each pair of neighbours gives one ratio B/A: what else the machine does falls on
both of a pair, and a machine that grows slower while it is measured favours A as often as B. The ratio that is told is
the median of the pairs. How sure it is comes from their ranks alone, since times on a shared machine follow no known
distribution: the median of all pairs that could be measured lies between the k-th smallest and the k-th largest of n
with a probability that depends on k and n only (a pair lies above or below it like a tossed coin).
"""

import dataclasses
import math
import statistics

CONFIDENCE = 0.99
# The same source, linked in another order, differs by about that much.
SMALLEST = 0.01


def order(pairs):
    """The sequence of measurements: "A" and "B", two for each pair."""
    return "".join("AB" if i % 2 == 0 else "BA" for i in range(pairs))


def rank(count, confidence=CONFIDENCE):
    """The largest k for which the interval from the k-th smallest to the k-th largest of `count` values holds the median with
    this confidence; 0 when there are too few values."""
    outside, k = 0.0, 0
    while k < count // 2:
        outside += 2 * math.comb(count, k) / 2**count
        if outside > 1 - confidence:
            break
        k += 1
    return k


FEWEST = next(n for n in range(2, 100) if rank(n) > 0)


@dataclasses.dataclass
class Verdict:
    ratio: float  # of B to A; above 1 is slower
    low: float
    high: float
    smallest: float

    @property
    def slower(self):
        return self.low > 1 + self.smallest

    @property
    def faster(self):
        return self.high < 1 / (1 + self.smallest)

    @property
    def word(self):
        return "slower" if self.slower else "faster" if self.faster else "same"


def compare(a, b, smallest=SMALLEST):
    """`a` and `b` are costs (more is worse) in the order of their pairs, at least FEWEST of each."""
    if len(a) != len(b) or len(a) < FEWEST:
        raise ValueError(f"at least {FEWEST} pairs are needed")
    ratios = sorted(y / x for x, y in zip(a, b))
    k = rank(len(ratios))
    return Verdict(statistics.median(ratios), ratios[k - 1], ratios[-k], smallest)
