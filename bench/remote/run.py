#!/usr/bin/env python3
"""Measures requests that are forwarded over the bus against bare round trips of the same message, all processes on one core.

    bench/remote/run.py [--build DIR] [--rounds N] [--core N] [--json FILE]

Both go to the same service: over HTTP through www and its remote servlet ("www"), and from a bare client of the bus ("bus").
The same client also asks a loop that sends one fixed response, without any bus ("bare"): a forwarded request cannot take
less time than one of each. A round measures each case in all ways, one after the other, so that whatever else the machine
does falls on all. The table shows the medians, the rate of www as a ratio of the bus and of both bare trips together, and the
processor time of www for each request.
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1] / name) for name in ("http", "")]
import figures  # noqa: E402
import machine  # noqa: E402
import servers  # noqa: E402

KINDS = ("bus", "bare", "www")
CASES = [(1, 20000), (8, 40000), (32, 60000)]  # outstanding, round trips

CONFIGURATION = """<?xml version="1.0" encoding="UTF-8"?>
<www><server name="http"><servlet type="remote" path="/r" target="200,7"/></server></www>
"""


class System:
    """Broker, server and service in an image of their own, on one core."""

    def __init__(self, work, build, core):
        self.core, self.build = core, build
        enter, self.root = servers.stage(work, build, work)
        shutil.copy(build / "bin/remote_service", self.root / "bin")
        (self.root / "tarn/etc/www/http.xml").write_text(CONFIGURATION)
        self.processes = [servers.spawn(core, *enter, f"/bin/{name}") for name in ("busd", "www", "remote_service")]
        self.port, self.bare_port = servers.free_port(), servers.free_port()
        (work / "page.html").write_text("<!doctype html><title>ok</title>\n")
        self.processes.append(servers.spawn(core, build / "bin/bare_loop", self.bare_port, work / "page.html", "keep"))
        servers.send_record(self.root, self.port)
        for port in (self.port, self.bare_port):
            servers.wait_for_port(port)
        self.www = [pid for pid in servers.descendants(self.processes[1].pid)
                    if pathlib.Path(f"/proc/{pid}/comm").read_text().strip() == "www"]
        time.sleep(0.3)

    def round(self, kind, outstanding, trips):
        where = {"www": self.port, "bare": self.bare_port, "bus": self.root / "run/tn/bus"}[kind]
        protocol = "bus" if kind == "bus" else "http"
        before = servers.processor_ns(self.www)
        output = subprocess.run(
            [*machine.on(self.core), self.build / "bin/remote_round", protocol, str(where), str(outstanding), str(trips)],
            stdout=subprocess.PIPE, check=True, text=True).stdout
        return float(output), (servers.processor_ns(self.www) - before) / 1000 / (trips + 2000)

    def stop(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/bench", type=pathlib.Path, help="folder of the build (TARN_BENCH=ON)")
    parser.add_argument("--rounds", default=5, type=int)
    parser.add_argument("--core", default=max(os.sched_getaffinity(0)), type=int)
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    build = options.build.resolve()
    samples = {(kind, case): [] for kind in KINDS for case in CASES}
    with tempfile.TemporaryDirectory() as folder:
        system = System(pathlib.Path(folder), build, options.core)
        try:
            for _ in range(options.rounds):
                for case in CASES:
                    for kind in KINDS:
                        samples[kind, case].append(system.round(kind, *case))
        finally:
            system.stop()
    out = figures.Recorder(options.json)
    print(f"{'outstanding':>11} {'bus/s':>8} {'bare/s':>8} {'www/s':>8} {'www/bus':>8} {'www/both':>9} {'www us':>7}")
    for case in CASES:
        bus, bare, www = (out.add(f"remote/{case[0]}", "rate", "1/s", kind, [rate for rate, _ in samples[kind, case]])
                          for kind in KINDS)
        spent = out.add(f"remote/{case[0]}", "processor-time", "us", "www", [spent for _, spent in samples["www", case]])
        both = 1 / (1 / bus + 1 / bare)
        print(f"{case[0]:11} {bus:8.0f} {bare:8.0f} {www:8.0f} {www / bus:8.2f} {www / both:9.2f} {spent:7.2f}")


if __name__ == "__main__":
    main()
