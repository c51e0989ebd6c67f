#!/usr/bin/env python3
"""Measures the tunnel: its parts, its sessions, relayed calls, and files that are stored through it.

    bench/tunnel/run.py [--build DIR] [--rounds N] [--core N] [--json FILE] [parts|sessions|calls|files]...

Parts are compared with OpenSSL's in the same process. Relayed calls are compared with a bare chain of front, relay and
echo that parses nothing: processor time of all servers together, one process each, all on one core. Files are compared
with dd writing one of the same size to the same file system, in the pieces in which a body arrives (4 KiB) and in large
ones (1 MiB): the rate, and the processor time of dd and of the server. What is measured is the page cache. The memory is
that of the server at its most.
"""

import argparse
import os
import pathlib
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1] / name) for name in ("http", "")]
import figures  # noqa: E402
import machine  # noqa: E402
import servers  # noqa: E402

CONFIGURATION = """<?xml version="1.0" encoding="UTF-8"?>
<www><server name="http"><servlet type="jsproxy" path="/jsproxy"/></server></www>
"""
CONNECTIONS, CALLS = 8, 20000
WARM_UP = 1000
FILE_MB = 256
FILE_BYTES = FILE_MB << 20
SESSIONS = 10000


class Bench:
    def __init__(self, options, work):
        self.build, self.core, self.rounds, self.work = options.build.resolve(), options.core, options.rounds, work
        self.out = figures.Recorder(options.json)

    def run(self, program, *arguments, core=None):
        core = self.core if core is None else core
        command = [*machine.on(core), self.build / "bin" / program, *map(str, arguments)]
        return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True).stdout

    def note(self, case, metric, unit, samples, peer="www"):
        self.out.add(f"tunnel/{case}", metric, unit, peer, samples)

    # What it is made of

    def parts(self):
        print(f"{'':22} {'tunnel':>10} {'OpenSSL':>10} {'ratio':>6}")
        for line in self.run("tunnel_parts", self.rounds).splitlines():
            name, own, other = line.split()
            own, other = float(own), float(other)
            if name == "json-sizes":
                print(f"a message of {own:.0f} bytes, {other:.0f} as text:")
                continue
            print(f"{name:22} {own:10.1f} " + (f"{other:10.1f} {own / other:6.2f}" if other else ""))
            # The program has taken the best of the rounds already.
            unit = "MB/s" if name.endswith("MB/s") else "1/s"
            case = name.removesuffix("/s").removesuffix("-MB")
            self.note(case, "rate", unit, [own])
            if other:
                self.note(case, "rate", unit, [other], "openssl")

    def sessions(self):
        runs = [self.run("tunnel_sessions", SESSIONS).split() for _ in range(self.rounds)]
        memory, look, longest, turns = (statistics.median(float(run[i]) for run in runs) for i in range(4))
        print(f"{SESSIONS} sessions: {memory:.0f} bytes each beside the ciphers; looking at all takes {look:.2f} ms, ending "
              f"all {turns:.0f} turns of the loop, the longest {longest:.2f} ms")
        for i, (metric, unit) in enumerate((("memory-each", "bytes"), ("look-at-all", "ms"), ("longest-turn", "ms"), ("turns", "1"))):
            self.note(f"sessions-{SESSIONS}", metric, unit, [float(run[i]) for run in runs])

    # Calls

    def start_box(self):
        folder = self.work / "box"
        folder.mkdir(exist_ok=True)
        enter, root = servers.stage(folder, self.build, self.work)
        for place in ("rw/disk", "flash"):
            (root / place).mkdir(parents=True, exist_ok=True)
        shutil.copy(self.build / "bin/tunnel_service", root / "bin")
        (root / "tarn/etc/www/http.xml").write_text(CONFIGURATION)
        commands = (["/bin/busd"], ["/bin/www"], ["/bin/tunnel_service", "13"], ["/bin/tunnel_service", "24"])
        self.root, self.port = root, servers.free_port()
        self.processes = [servers.spawn(self.core, *enter, *command) for command in commands]
        servers.send_record(root, self.port)
        servers.wait_for_port(self.port)
        time.sleep(0.5)
        self.pids = [pid for process in self.processes for pid in servers.descendants(process.pid)
                     if pathlib.Path(f"/proc/{pid}/comm").read_text().strip() in ("busd", "www", "tunnel_service")]

    def start_chain(self):
        relay, port = self.work / "relay", servers.free_port()
        programs = self.build / "bin"
        chain = [servers.spawn(self.core, programs / "bus_relay", relay, "each"),
                 servers.spawn(self.core, programs / "tunnel_bare", "front", port, relay),
                 servers.spawn(self.core, programs / "tunnel_bare", "back", relay)]
        servers.wait_for_port(port)
        return chain, port

    def measure_calls(self, mode, port, pids):
        before = servers.processor_ns(pids)
        rate = float(self.run("tunnel_load", mode, port, CONNECTIONS, CALLS))
        return rate, (servers.processor_ns(pids) - before) / 1000 / (CALLS + WARM_UP)

    def calls(self):
        self.start_box()
        chain, port = self.start_chain()
        samples = {"calls": [], "bare": []}
        try:
            for _ in range(self.rounds):
                samples["calls"].append(self.measure_calls("calls", self.port, self.pids))
                samples["bare"].append(self.measure_calls("bare", port, [process.pid for process in chain]))
        finally:
            servers.end(chain[::-1])
            servers.end(self.processes[::-1])
        (rate, spent), (bare_rate, bare_spent) = (
            [statistics.median(sample[i] for sample in samples[kind]) for i in (0, 1)] for kind in ("calls", "bare"))
        print(f"relayed calls, {CONNECTIONS} connections: {rate:.0f}/s, {spent:.2f} us of all processes; bare chain "
              f"{bare_rate:.0f}/s, {bare_spent:.2f} us; ratio {spent / bare_spent:.2f}")
        for i, (metric, unit) in enumerate((("rate", "1/s"), ("processor-time", "us"))):
            for kind, peer in (("calls", "www"), ("bare", "bare chain")):
                self.note("calls", metric, unit, [sample[i] for sample in samples[kind]], peer)

    # Files

    def dd(self, block):
        """Rate, and processor time in ms."""
        target = self.root / "rw/disk/dd"
        before, begin = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
        subprocess.run([*machine.on(self.core), "dd", "if=/dev/zero", f"of={target}", f"bs={block}",
                        f"count={FILE_BYTES // block}"], check=True, stderr=subprocess.DEVNULL)
        rate = FILE_BYTES / 1e6 / (time.monotonic() - begin)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        target.unlink()
        return rate, (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1e3

    def store(self, mode, www):
        before = servers.processor_ns([www])
        # The client is another machine's business, so it gets another core where there is one.
        others = os.sched_getaffinity(0) - {self.core}
        rate = float(self.run("tunnel_load", mode, self.port, "file", FILE_MB, core=min(others, default=self.core)))
        spent = (servers.processor_ns([www]) - before) / 1e6
        (self.root / "rw/disk/file").unlink()
        return rate, spent

    def files(self):
        self.start_box()
        www = next(pid for pid in self.pids if pathlib.Path(f"/proc/{pid}/comm").read_text().strip() == "www")
        samples = {"dd 4k": [], "dd 1M": [], "put": [], "upload": []}
        try:
            for _ in range(self.rounds):
                samples["dd 4k"].append(self.dd(4096))
                samples["dd 1M"].append(self.dd(1 << 20))
                for mode in ("put", "upload"):
                    samples[mode].append(self.store(mode, www))
            memory = next(line.split()[1] for line in pathlib.Path(f"/proc/{www}/status").read_text().splitlines()
                          if line.startswith("VmHWM:"))
        finally:
            servers.end(self.processes[::-1])
        self.note(f"file-{FILE_MB}m", "resident-at-most", "KiB", [int(memory)])
        print(f"a file of {FILE_MB} MiB; the server held {memory} KiB at most")
        middle = {mode: [statistics.median(value[i] for value in values) for i in (0, 1)] for mode, values in samples.items()}
        print(f"  {'':7} {'MB/s':>6} {'/ 4k':>5} {'/ 1M':>5} {'ms':>7}")
        for mode, (rate, spent) in middle.items():
            small, large = (rate / middle[name][0] for name in ("dd 4k", "dd 1M"))
            print(f"  {mode:7} {rate:6.0f} {small:5.2f} {large:5.2f} {spent:7.1f}")
            for i, (metric, unit) in enumerate((("rate", "MB/s"), ("processor-time", "ms"))):
                self.note(f"file-{FILE_MB}m", metric, unit, [sample[i] for sample in samples[mode]], mode)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/bench", type=pathlib.Path, help="folder of the build (TARN_BENCH=ON)")
    parser.add_argument("--rounds", default=5, type=int)
    parser.add_argument("--core", default=max(os.sched_getaffinity(0)), type=int)
    parser.add_argument("--json", type=pathlib.Path)
    parser.add_argument("what", nargs="*", choices=["parts", "sessions", "calls", "files", []])
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(options, pathlib.Path(folder))
        for name in options.what or ["parts", "sessions", "calls", "files"]:
            getattr(bench, name)()


if __name__ == "__main__":
    main()
