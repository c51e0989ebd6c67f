#!/usr/bin/env python3
"""An honest client among slow and hostile ones: how long its small request takes, alone and beside 900 of them.

  crowd.py --build DIR [--count N] [--seconds S] [--rounds N] [--peer TEXT] [--json FILE]

Of nine hostile clients three let a head drip byte by byte, three stop in the middle of a head, two ask for a file of 1 MB and
do not read it, and one opens and closes its connection ten times a second; who is thrown out comes back. The time of an honest
request runs from its sending to the last byte of its answer, over a new connection each. The server has one core, all
clients the other. Where the machine allows it, the server and the honest client go before all other programs of their core, so
that other work of the machine is not in the figures; the crowd does not. Rounds alternate between alone and beside the
crowd; the figures are medians of the rounds' percentiles.
"""

import argparse
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import figures  # noqa: E402
import machine  # noqa: E402
import run  # noqa: E402
import servers  # noqa: E402

SERVER_CPU, LOAD_CPU = 0, 1
METRICS = ("requests", "median", "p99", "maximum")
UNITS = ("1", "us", "us", "us")


def goes_first():
    """The command that puts a program before all others of its core, where that is allowed."""
    command = ["chrt", "--fifo", "10"]
    return command if subprocess.run([*command, "true"], capture_output=True).returncode == 0 else []


def put_first(pids):
    for pid in pids:
        subprocess.run(["chrt", "--fifo", "--all-tasks", "--pid", "10", str(pid)], check=True)


def honest(server, options):
    command = [*machine.on(LOAD_CPU), *options.first, options.build / "bin/crowd_load", "honest", str(server.port),
               str(options.seconds)]
    line = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    return [float(word) for word in line.split()]


def beside_crowd(server, options):
    crowd = subprocess.Popen([*machine.on(LOAD_CPU), options.build / "bin/crowd_load", "hostile", str(server.port),
                              str(options.count)], stdout=subprocess.PIPE, text=True)
    try:
        if crowd.stdout.readline() != "ready\n":
            raise RuntimeError("the crowd did not come")
        return honest(server, options)
    finally:
        crowd.terminate()
        crowd.wait()
        crowd.stdout.close()


def measure(start, options):
    server = start()
    try:
        server.settle()
        if options.first:
            put_first(server.pids)
        honest(server, options)
        samples = {"alone": [], "crowd": []}
        for _ in range(options.rounds):
            samples["alone"].append(honest(server, options))
            samples["crowd"].append(beside_crowd(server, options))
            time.sleep(1)
    finally:
        server.stop()
    return samples


def show(name, samples, out):
    middle = {}
    for state, list_ in samples.items():
        columns = list(zip(*list_))
        middle[state] = [out.add(f"crowd/{state}", metric, unit, name, column)
                         for metric, unit, column in zip(METRICS, UNITS, columns)]
    ratio = statistics.median(crowd[2] / alone[2] for alone, crowd in zip(samples["alone"], samples["crowd"]))
    print(f"  {name:<10} " + " ".join(f"{middle[state][i]:9.0f}" for state in middle for i in (1, 2, 3))
          + f" {ratio:10.2f} {sum(s[0] for s in samples['crowd']):9.0f}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--count", type=int, default=900)
    parser.add_argument("--seconds", type=int, default=3)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--peer", help="only the servers whose name holds this text")
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    options.build, options.first = options.build.resolve(), goes_first()
    out = figures.Recorder(options.json)
    print(f"microseconds of a small request, alone and beside {options.count} hostile clients")
    print(f"  {'server':<10} {'median':>9} {'p99':>9} {'maximum':>9} {'median':>9} {'p99':>9} {'maximum':>9} {'p99 ratio':>10}"
          f" {'requests':>9}")
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        tree = work / "tree"
        tree.mkdir()
        run.make_tree(tree)
        starters = {"nginx": lambda: servers.start_nginx(work, tree, SERVER_CPU),
                    "lighttpd": lambda: servers.start_lighttpd(work, tree, SERVER_CPU),
                    "h2o": lambda: servers.start_h2o(work, tree, SERVER_CPU),
                    "www": lambda: servers.start_www(work, tree, SERVER_CPU, options.build)}
        for peer, start in starters.items():
            if not options.peer or options.peer in peer:
                show(peer, measure(start, options), out)


if __name__ == "__main__":
    main()
