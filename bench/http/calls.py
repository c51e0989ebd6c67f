#!/usr/bin/env python3
"""What one request costs, counted instead of timed: system calls, and instructions in user space. The load of the machine does not
matter to either.

  calls.py --build DIR [--case TEXT] [--peer TEXT] [--json FILE]

The cases are those of run.py. All connections of a case send a request, then all answers are read, and so on, so that
what a server does for several connections at once is shared among them as under load. System calls are counted by
strace, attached when all connections stand and have had an answer. Instructions are those of two runs under callgrind, one with more
requests than the other: what is left of the difference is neither start nor end. The kernel's own are not among them.
"""

import argparse
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import figures  # noqa: E402
import run  # noqa: E402
import servers  # noqa: E402

# Every connection sends so many requests: before strace looks, and while it does.
WARM_UP, COUNTED = 3, 20
# The same for the two runs under callgrind; the second has more.
FEW, MANY = 5, 205
CALLGRIND = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
PATIENCE = 60.0


class Load:
    """The connections of a case. `turn` has each of them make a request."""

    def __init__(self, port, case):
        self.port, (_, name, self.size, self.count, self.keep) = port, case
        self.request = (f"GET /{name} HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n" +
                        ("" if self.keep else "Connection: close\r\n") + "\r\n").encode()
        self.open = [self.greet() for _ in range(self.count)] if self.keep else []

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), PATIENCE)

    def greet(self):
        """A connection that has had an answer: the next does not meet it in a short queue of the listener."""
        connection = self.connect()
        connection.sendall(self.request)
        self.take(connection)
        return connection

    def turn(self):
        # Few at a time, or those that do not fit into a short queue of the listener would try again a second later.
        for begin in range(0, self.count, self.count if self.keep else 8):
            batch = self.open or [self.connect() for _ in range(min(8, self.count - begin))]
            for connection in batch:
                connection.sendall(self.request)
            for connection in batch:
                self.take(connection)

    def take(self, connection):
        got, expected = b"", None
        received = 0
        while expected is None or received < expected:
            data = connection.recv(1 << 20)
            if not data:
                raise RuntimeError("a connection ended too early")
            received += len(data)
            if expected is None:
                got += data
                end = got.find(b"\r\n\r\n")
                if end >= 0:
                    if not got.startswith(b"HTTP/1.1 200"):
                        raise RuntimeError(got[:80])
                    expected = end + 4 + self.size
        if not self.keep:
            if connection.recv(1):
                raise RuntimeError("more than the answer")
            connection.close()

    def run(self, turns):
        for _ in range(turns):
            self.turn()
        return turns * self.count

    def close(self):
        for connection in self.open:
            connection.close()


def wait_for_text(path, text, process):
    deadline = time.monotonic() + PATIENCE
    while text not in path.read_text(errors="replace"):
        if process.poll() is not None or time.monotonic() > deadline:
            raise RuntimeError(f"strace: {path.read_text(errors='replace')}")
        time.sleep(0.02)


def system_calls(server, case, work):
    """Calls for one request, by name."""
    load = Load(server.port, case)
    load.run(WARM_UP)
    said, table = work / "strace.said", work / "strace.table"
    with said.open("w") as out:
        strace = subprocess.Popen(["strace", "-f", "-c", "-o", table, *(f"-p{pid}" for pid in server.pids)], stderr=out)
        wait_for_text(said, "attached", strace)
        requests = load.run(COUNTED)
        strace.send_signal(signal.SIGINT)
        strace.wait(PATIENCE)
    load.close()
    counts = {}
    for line in table.read_text().splitlines():
        if found := re.fullmatch(r" *[\d.]+ +[\d.]+ +\d+ +(\d+)(?: +\d+)? +(\w+)", line):
            if found[2] != "total":
                counts[found[2]] = int(found[1]) / requests
    return counts


def instructions(start, case, work, turns):
    """All instructions of a server's life in which each connection made so many requests, and the number of requests."""
    said = work / "callgrind.said"
    with said.open("w") as out:
        server = start(under=CALLGRIND, stderr=out)
        try:
            servers.wait_for_port(server.port, PATIENCE)
            server.settle()
            load = Load(server.port, case)
            requests = load.run(turns)
            load.close()
            time.sleep(0.3)  # it sees them close
            subprocess.run(["kill", *map(str, server.pids)], check=True)
            server.process.wait(PATIENCE)
        finally:
            server.stop()
    return int(re.search(r"Collected : (\d+)", said.read_text(errors="replace"))[1]), requests


def starters(work, tree, build, case):
    _, name, _, _, keep = case
    return {
        "nginx": lambda **o: servers.start_nginx(work, tree, 0, **o),
        "lighttpd": lambda **o: servers.start_lighttpd(work, tree, 0, **o),
        "h2o": lambda **o: servers.start_h2o(work, tree, 0, **o),
        "bare loop": lambda **o: servers.start_bare(work, tree, 0, build, name, "keep" if keep else "close", **o),
        "www": lambda **o: servers.start_www(work, tree, 0, build, **o),
    }


def measure(case, build, only, out):
    print(f"\n{case[0]}, {case[3]} connections")
    print(f"  {'server':<10} {'calls':>6} {'instructions':>13}  calls by name")
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        tree = work / "tree"
        tree.mkdir()
        run.make_tree(tree)
        for peer, start in starters(work, tree, build, case).items():
            if only and only not in peer:
                continue
            server = start()
            try:
                server.settle()
                counts = system_calls(server, case, work)
            finally:
                server.stop()
            (few, fewer), (many, more) = (instructions(start, case, work, turns) for turns in (FEW, MANY))
            each = (many - few) / (more - fewer)
            total = out.add(f"calls/{case[0]}", "system-calls", "calls", peer, [sum(counts.values())])
            out.add(f"calls/{case[0]}", "instructions", "instructions", peer, [each])
            names = ", ".join(f"{word} {count:.2f}" for word, count in sorted(counts.items(), key=lambda x: -x[1]) if count >= 0.005)
            print(f"  {peer:<10} {total:6.2f} {each:13.0f}  {names}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--case", help="only the cases whose name holds this text")
    parser.add_argument("--peer", help="only the servers whose name holds this text")
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    out = figures.Recorder(options.json)
    for case in run.CASES:
        if not options.case or options.case in case[0]:
            measure(case, options.build.resolve(), options.peer, out)


if __name__ == "__main__":
    main()
