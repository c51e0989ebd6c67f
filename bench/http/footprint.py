#!/usr/bin/env python3
"""Memory of www at rest and with connections open, and the time from its start to its first answer.

  footprint.py --build DIR [--starts N] [--json FILE]

Memory is the process's own: resident pages (VmRSS) and, of these, private ones. lighttpd stands beside it. The time
counts from the moment before the program is started to the last byte of the first response; the record that opens the
listener is sent as soon as the program has joined the bus.
"""

import argparse
import json
import pathlib
import socket
import statistics
import subprocess
import tempfile
import time

import servers

CONNECTIONS = 1001


def private_kib(pid):
    total = 0
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith(("Private_Clean:", "Private_Dirty:")):
            total += int(line.split()[1])
    return total


def open_local_listener(root):
    """A server of the local kind: its clients wait where TCP's short queue makes them try again a second later."""
    bus = servers.tarnbus.Client(str(root / "run/tn/bus"), name="bench")
    port = servers.free_port()
    www = next(ident for ident, name in bus.list() if name == "www")
    bus.request([www, 1], servers.tarnbus.ADD_OBJ, servers.tarnbus.record("local", port))
    bus.close()
    return port


def hold(port, count):
    """Connections that have each sent a forwarding header and half a request, all within the time that a header block
    may take."""
    held = []
    for _ in range(count):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.connect((b"\0www-unix%d" % port).ljust(108, b"\0"))
        sock.send(bytes(88) + b"GET / HTTP/1.1\r\nHost: localhost\r\n")
        held.append(sock)
    return held


def descriptors(pid):
    return len(list(pathlib.Path(f"/proc/{pid}/fd").iterdir()))


def memory(work, tree, build):
    peer = servers.start_lighttpd(work, tree, 0)
    peer.settle()
    lighttpd = servers.resident_kib(peer.pids)
    peer.stop()
    server = servers.start_www(work, tree, 0, build)
    try:
        pid = server.pids[0]
        local = open_local_listener(work / "image")
        result = {"lighttpd_rss_kib": lighttpd, "www_rss_kib": servers.resident_kib([pid]),
                  "www_private_kib": private_kib(pid)}
        before = descriptors(pid)
        for _ in range(20):
            held = hold(local, CONNECTIONS)
            time.sleep(0.05)
            taken = descriptors(pid) - before
            rss, private = servers.resident_kib([pid]), private_kib(pid)
            for sock in held:
                sock.close()
            if taken == CONNECTIONS:
                break
            time.sleep(3)
        else:
            raise RuntimeError("the connections could not be opened fast enough")
        result.update(connections=taken, loaded_rss_kib=rss, loaded_private_kib=private,
                      bytes_per_connection=(private - result["www_private_kib"]) * 1024 // taken)
    finally:
        server.stop()
    return result


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


def start_time(work, tree, build, starts):
    enter, root = servers.stage(work, build, tree)
    # chroot finds no tree that was only bound into the image.
    (root / "home/web/1k.bin").write_bytes(bytes(1024))
    busd = servers.spawn(1, *enter, "/bin/busd")
    times = []
    try:
        deadline = time.monotonic() + 10
        while True:
            try:
                bus = servers.tarnbus.Client(str(root / "run/tn/bus"), name="bench")
                break
            except OSError:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.01)
        for _ in range(starts):
            port = servers.free_port()
            began = time.monotonic()
            # chroot instead of a namespace: entering it is not what is measured.
            www = subprocess.Popen(["chroot", root, "/bin/www"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while True:
                found = [ident for ident, name in bus.list() if name == "www"]
                if found:
                    break
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
    return {"starts": starts, "start_ms_median": statistics.median(times), "start_ms_max": max(times)}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--starts", type=int, default=20)
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    build = options.build.resolve()
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        tree = work / "tree"
        tree.mkdir()
        (tree / "1k.bin").write_bytes(bytes(1024))
        result = memory(work, tree, build)
        result.update(start_time(work / "start", tree, build, options.starts))
    print("Memory and start of www")
    print(f"  resident after start     {result['www_rss_kib']:>7} KiB   (lighttpd {result['lighttpd_rss_kib']} KiB)")
    print(f"  private after start      {result['www_private_kib']:>7} KiB")
    print(f"  resident, {result['connections']} connections {result['loaded_rss_kib']:>5} KiB")
    print(f"  private per connection   {result['bytes_per_connection']:>7} bytes")
    print(f"  start to first answer    {result['start_ms_median']:>7.1f} ms    (median of {result['starts']},"
          f" maximum {result['start_ms_max']:.1f})")
    if options.json:
        options.json.write_text(json.dumps(result) + "\n")


if __name__ == "__main__":
    main()
