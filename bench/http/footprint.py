#!/usr/bin/env python3
"""Memory of www and its peers at rest and with connections open, and the time from www's start to its first answer.

  footprint.py --build DIR [--starts N] [--rounds N] [--json FILE]

Memory is resident memory (VmRSS), that of all processes of a server together; private pages (those that no other process
maps) stand beside it. It is taken after the start, before any request, and again while 1000 connections are open that have
sent nothing yet (one byte to h2o, which is not told of a connection before). For www also while 1001 are in the middle of a request. The time counts
from the moment before the program is started to the last byte of the first response; the record that opens the listener is sent
as soon as the program has joined the bus.
"""

import argparse
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import figures  # noqa: E402
import servers  # noqa: E402

IDLE, HALF = 1000, 1001
# As many as fit into the shortest queue of a listener.
AT_ONCE = 8
TRIES = 5


def private_kib(pids):
    total = 0
    for pid in pids:
        for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
            if line.startswith(("Private_Clean:", "Private_Dirty:")):
                total += int(line.split()[1])
    return total


def descriptors(pids):
    return sum(len(list(pathlib.Path(f"/proc/{pid}/fd").iterdir())) for pid in pids)


def figures_of(server):
    return {"resident": servers.resident_kib(server.pids), "private": private_kib(server.pids)}


def while_held(server, hold, count):
    """The figures while `hold` holds so many connections; again when some were gone before all of them stood."""
    for _ in range(TRIES):
        before = descriptors(server.pids)
        held = hold()
        time.sleep(0.05)
        taken, result = descriptors(server.pids) - before, figures_of(server)
        for sock in held:
            sock.close()
        if taken == count:
            return result
        time.sleep(3)
    raise RuntimeError(f"{server.name}: {taken} of {count} connections were there at the same time")


def hold_idle(server):
    """Connections that the server has accepted and that have sent nothing."""
    held = []
    before = descriptors(server.pids)
    while len(held) < IDLE:
        new = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(min(AT_ONCE, IDLE - len(held)))]
        if server.name == "h2o":  # it has the kernel keep connections until they send something
            for sock in new:
                sock.send(b"G")
        held += new
        deadline = time.monotonic() + 0.5
        while descriptors(server.pids) - before < len(held) and time.monotonic() < deadline:
            pass
    return held


def open_local_listener(root):
    """A server of the local kind: its clients wait where TCP's short queue makes them try again a second later."""
    bus = servers.tarnbus.Client(str(root / "run/tn/bus"), name="bench")
    port = servers.free_port()
    www = next(ident for ident, name in bus.list() if name == "www")
    bus.request([www, 1], servers.tarnbus.ADD_OBJ, servers.tarnbus.record("local", port))
    bus.close()
    return port


def hold_half(port):
    """Connections that have each sent a forwarding header and half a request, all within the time that a header block
    may take."""
    held = []
    for _ in range(HALF):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.connect((b"\0www-unix%d" % port).ljust(108, b"\0"))
        sock.send(bytes(88) + b"GET / HTTP/1.1\r\nHost: localhost\r\n")
        held.append(sock)
    return held


def await_start(server):
    """Until it listens, without asking it: what a request allocates is not part of the start."""
    end = time.monotonic() + 10
    while time.monotonic() < end:
        pids = servers.descendants(server.process.pid)
        if any(f" 0100007F:{server.port:04X} 00000000:0000 0A" in line
               for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()):
            server.pids = pids
            time.sleep(0.3)
            return
        time.sleep(0.02)
    raise RuntimeError(f"{server.name} does not listen")


def memory_of(start, work):
    server = start()
    try:
        if server.name != "www":
            await_start(server)
        rest = figures_of(server)
        idle = while_held(server, lambda: hold_idle(server), IDLE)
        half = None
        if server.name == "www":
            local = open_local_listener(work / "image")
            half = while_held(server, lambda: hold_half(local), HALF)
    finally:
        server.stop()
    return {"rest": rest, "idle": idle, **({"half": half} if half else {})}


def memory(work, tree, build, rounds, out):
    print(f"Memory in KiB{'':15} {'resident':>9} {'private':>9} {f'{IDLE} idle: on top':>22} {'private on top':>15}")
    starters = {"nginx": lambda: servers.start_nginx(work, tree, 0), "lighttpd": lambda: servers.start_lighttpd(work, tree, 0),
                "h2o": lambda: servers.start_h2o(work, tree, 0), "www": lambda: servers.start_www(work, tree, 0, build)}
    for name, start in starters.items():
        samples = [memory_of(start, work) for _ in range(rounds)]
        taken = {}
        for kind in ("resident", "private"):
            taken[kind] = out.add("footprint/start", kind, "KiB", name, [s["rest"][kind] for s in samples])
            for state in samples[0].keys() - {"rest"}:
                on_top = [s[state][kind] - s["rest"][kind] for s in samples]
                taken[kind, state] = out.add(f"footprint/{state}-connections", f"{kind}-on-top", "KiB", name, on_top)
        print(f"  {name:<26} {taken['resident']:9.0f} {taken['private']:9.0f} {taken['resident', 'idle']:22.0f}"
              f" {taken['private', 'idle']:15.0f}", flush=True)
        if ("private", "half") in taken:
            print(f"  {name}, {HALF} in a request: {taken['resident', 'half']:.0f} on top, "
                  f"{taken['private', 'half'] * 1024 / HALF:.0f} private bytes for each")


def first_answer(port):
    while True:
        try:
            with socket.create_connection(("127.0.0.1", port), 1) as sock:
                sock.send(b"GET /1k.bin HTTP/1.0\r\n\r\n")
                got = b""
                while data := sock.recv(65536):
                    got += data
                if got.startswith(b"HTTP/1.1 200"):
                    return
        except OSError:
            pass


def await_bus(root):
    deadline = time.monotonic() + 10
    while True:
        try:
            return servers.tarnbus.Client(str(root / "run/tn/bus"), name="bench")
        except OSError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.01)


def start_time(work, tree, build, starts, out):
    enter, root = servers.stage(work, build, tree)
    # chroot finds no tree that was only bound into the image.
    (root / "home/web/1k.bin").write_bytes(bytes(1024))
    busd = servers.spawn(1, *enter, "/bin/busd")
    times = []
    try:
        bus = await_bus(root)
        for _ in range(starts):
            port = servers.free_port()
            began = time.monotonic()
            # chroot instead of a namespace: entering it is not what is measured.
            www = subprocess.Popen(["chroot", root, "/bin/www"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while not (found := [ident for ident, name in bus.list() if name == "www"]):
                pass
            bus.request([found[0], 1], servers.tarnbus.SET, servers.tarnbus.record("http", port))
            first_answer(port)
            times.append((time.monotonic() - began) * 1000)
            www.terminate()
            www.wait()
            while any(name == "www" for _, name in bus.list()):
                pass
        bus.close()
    finally:
        busd.terminate()
        busd.wait()
    out.add("footprint/start", "time-to-first-answer", "ms", "www", times)
    print(f"Start of www to its first answer: {statistics.median(times):.1f} ms (median of {starts}, maximum {max(times):.1f})")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--starts", type=int, default=20)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    build, out = options.build.resolve(), figures.Recorder(options.json)
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        tree = work / "tree"
        tree.mkdir()
        (tree / "1k.bin").write_bytes(bytes(1024))
        memory(work, tree, build, options.rounds, out)
        start_time(work / "start", tree, build, options.starts, out)


if __name__ == "__main__":
    main()
