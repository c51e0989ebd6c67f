#!/usr/bin/env python3
"""www beside nginx, lighttpd, h2o and a bare read-and-write loop: the same tree, the same load, one run, interleaved.

  run.py --build DIR [--seconds S] [--rounds N] [--cores same|separate|both] [--case TEXT] [--json FILE]

Printed for each case: requests a second, processor microseconds a request of the server's process and the spread of this
figure over the rounds, the 99th percentile of the latency, resident memory after the load, and the processor time of www as
a ratio of each server's, round by round. Each figure is the median of the rounds.
"""

import argparse
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import figures  # noqa: E402
import machine  # noqa: E402
import servers  # noqa: E402

CASES = [
    # name, file, bytes, connections, keep-alive
    ("1k-keep", "1k.bin", 1024, 50, True),
    ("12k-keep", "12k.bin", 12288, 50, True),
    ("1m-keep", "1m.bin", 1 << 20, 8, True),
    ("1k-close", "1k.bin", 1024, 50, False),
]
METRICS = {"rate": ("rate", "1/s"), "cpu_us": ("processor-time", "us"), "p99_us": ("latency-p99", "us"),
           "rss_kib": ("resident", "KiB")}

UNITS = {"us": 1.0, "ms": 1e3, "s": 1e6}


def make_tree(folder):
    for _, name, size, _, _ in CASES:
        (folder / name).write_bytes(bytes(i * 31 % 251 for i in range(min(size, 4096))) * (size // min(size, 4096)))
    return folder


def load(server, case, seconds, cpu):
    """One round of load on one server; returns its figures."""
    _, name, _, connections, keep = case
    before = servers.processor_ns(server.pids)
    command = [*machine.on(cpu), "wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--latency"]
    if not keep:
        command += ["-H", "Connection: close"]
    text = subprocess.run([*command, f"http://127.0.0.1:{server.port}/{name}"], check=True, capture_output=True,
                          text=True).stdout
    used = servers.processor_ns(server.pids) - before
    requests = int(re.search(r"(\d+) requests in", text).group(1))
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", text).group(1))
    value, unit = re.search(r"99%\s+([\d.]+)(us|ms|s)", text).groups()
    bad = re.search(r"Non-2xx or 3xx responses: (\d+)", text)
    if bad or requests == 0:
        raise RuntimeError(f"{server.name}: {text}")
    return {"rate": rate, "cpu_us": used / 1000 / requests, "p99_us": float(value) * UNITS[unit],
            "rss_kib": servers.resident_kib(server.pids)}


def start_all(work, tree, build, case, cpu):
    _, name, _, _, keep = case
    started = []
    try:
        for make in (servers.start_nginx, servers.start_lighttpd, servers.start_h2o):
            started.append(make(work, tree, cpu))
        for mode in ("keep",) if keep else ("close", "asking"):
            started.append(servers.start_bare(work, tree, cpu, build, name, mode))
        started.append(servers.start_www(work, tree, cpu, build))
        for server in started:
            server.settle()
    except BaseException:
        stop_all(started)
        raise
    return started


def stop_all(started):
    for server in started:
        server.stop()


def measure(case, build, seconds, rounds, cores):
    server_cpu, load_cpu = (0, 0) if cores == "same" else (0, 1)
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        tree = work / "tree"
        tree.mkdir()
        make_tree(tree)
        started = start_all(work, tree, build, case, server_cpu)
        try:
            samples = {server.name: [] for server in started}
            for server in started:
                load(server, case, 1, load_cpu)
            for _ in range(rounds):
                for server in started:
                    samples[server.name].append(load(server, case, seconds, load_cpu))
        finally:
            stop_all(started)
    return samples


def show(title, samples):
    print(f"\n{title}")
    print(f"  {'server':<11} {'req/s':>9} {'cpu us/req':>11} {'spread':>7} {'www / it':>9} {'p99 us':>9} {'RSS KiB':>8}")
    own = [s["cpu_us"] for s in samples["www"]]
    for name, list_ in samples.items():
        r = {key: statistics.median(s[key] for s in list_) for key in list_[0]}
        theirs = [s["cpu_us"] for s in list_]
        ratio = statistics.median(x / y for x, y in zip(own, theirs))
        print(f"  {name:<11} {r['rate']:>9.0f} {r['cpu_us']:>11.2f} {figures.spread(theirs):>7.2f} {ratio:>9.2f}"
              f" {r['p99_us']:>9.0f} {r['rss_kib']:>8.0f}")
    sys.stdout.flush()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--cores", choices=("same", "separate", "both"), default="both")
    parser.add_argument("--case", help="only the cases whose name holds this text")
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    out = figures.Recorder(options.json)
    for cores in ("same", "separate") if options.cores == "both" else (options.cores,):
        for case in CASES:
            if options.case and options.case not in case[0]:
                continue
            samples = measure(case, options.build.resolve(), options.seconds, options.rounds, cores)
            place = "one-core" if cores == "same" else "two-cores"
            show(f"{case[0]}, {case[3]} connections, {place}", samples)
            for name, list_ in samples.items():
                for key, (metric, unit) in METRICS.items():
                    out.add(f"http/{case[0]}/{place}", metric, unit, name, [s[key] for s in list_])


if __name__ == "__main__":
    main()
