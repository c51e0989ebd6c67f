"""What a benchmark writes for other programs to read: one JSON object on a line for each figure.

  case     what was done, such as "http/1k-keep/one-core"; the same words in every run
  metric   what was measured, such as "processor-time"
  unit     of the value: us, ms, 1/s, KiB, bytes, calls, instructions, MB/s, us/MB, or 1 for a plain number
  value    the median of the rounds
  peer     whose figure it is: www, busd, nginx, ...
  commit   what was built; "+" behind it says that files were changed since
  rounds   how many values the median was taken from
  spread   how far apart the rounds were: the middle half of them, divided by the median (all of them below four rounds)

Lines are only added to this list of keys, never renamed, so that figures of different days can be put side by side.
"""

import json
import pathlib
import statistics
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[1]


def commit_of_tree():
    def git(*words):
        return subprocess.run(["git", "-C", ROOT, *words], capture_output=True, text=True, check=True).stdout.strip()

    try:
        return git("rev-parse", "--short=10", "HEAD") + ("+" if git("status", "--porcelain", "-uno") else "")
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def spread(samples):
    middle = statistics.median(samples)
    if len(samples) < 2 or middle == 0:
        return 0.0
    if len(samples) < 4:
        return (max(samples) - min(samples)) / abs(middle)
    low, _, high = statistics.quantiles(samples, n=4, method="inclusive")
    return (high - low) / abs(middle)


def line(case, metric, unit, peer, samples, commit):
    return {"case": case, "metric": metric, "unit": unit, "value": round(statistics.median(samples), 4), "peer": peer,
            "commit": commit, "rounds": len(samples), "spread": round(spread(samples), 4)}


class Recorder:
    """Writes figures as they come, so that a run that is cut short leaves what it had. Without a path nothing is written."""

    def __init__(self, path, commit=None):
        self.commit = commit or commit_of_tree()
        self.file = None
        if path:
            path = pathlib.Path(path)
            path.parent.mkdir(parents=True, exist_ok=True)
            self.file = path.open("w", encoding="utf-8")

    def add(self, case, metric, unit, peer, samples):
        samples = list(samples)
        if self.file:
            self.file.write(json.dumps(line(case, metric, unit, peer, samples, self.commit)) + "\n")
            self.file.flush()
        return statistics.median(samples)
