"""python3 tests/soak/soak.py BUILD [MINUTES [PICTURE]]

Mixed traffic over the whole system for as long as wanted: pages small and large, connections kept and cut off, slow
clients, records, ports that move, tunnel sessions with calls and uploads, logins, status. At its end it draws what each
program held meanwhile: resident memory, descriptors, and how many sessions the tunnel had. The last third is flat
against the one before, or the end is a failure.
"""

import contextlib
import io
import os
import sys
import threading
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "tests/e2e"))
os.environ["TARN_BUILD"] = str(Path(sys.argv[1]).resolve()) if len(sys.argv) > 1 else sys.exit(__doc__)

import harness  # noqa: E402
import rawhttp  # noqa: E402
import tarnbus  # noqa: E402
import tunnelbox  # noqa: E402
from tunnelbox import tunnel  # noqa: E402

WIDTH, HEIGHT, MARGIN = 720, 120, 60
PROGRAMS = ("busd", "sermgr", "userd", "sysd", "tlsd", "hotspotd", "www")
# Resident memory in KiB, descriptors and sessions that the last third may hold more than the middle one.
ROOM = {"KiB": 256, "descriptors": 24, "sessions": 24}
TROUBLES = (OSError, EOFError, ValueError, tarnbus.BusError, tunnel.TunnelError)
SERVICE_MANAGER, SYSTEM_STATUS, SERVER_SESSIONS = [68, 1], [24, 1], 3


class Soak:
    def __init__(self, system, port):
        self.system, self.port = system, port
        self.www = system.bus_id("www")
        note = system.path("/rw/store/first-login").read_text()
        self.password = dict(line.split(" ", 1) for line in note.splitlines())["password"]
        self.stop = threading.Event()
        self.done = {}
        self.samples = []

    def repeat(self, work):
        while not self.stop.is_set():
            with contextlib.suppress(*TROUBLES):
                work(self)
                self.done[work.__name__] = self.done.get(work.__name__, 0) + 1
            time.sleep(0.005)

    def pages(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            for target in ("/a.txt", "/large.bin", "/a.txt", "/none"):
                connection.get(target)

    def cut_off(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.send(b"GET /large.bin HTTP/1.1\r\nHost: x\r\n\r\n"[:self.done.get("cut_off", 0) % 45])

    def slow(self):
        """Heads that come byte by byte and are given up, by whom it may be."""
        with contextlib.ExitStack() as all_of_them:
            clients = [all_of_them.enter_context(rawhttp.Connection.tcp(self.port)) for _ in range(20)]
            for byte in b"GET /a.txt HTT":
                for client in clients:
                    client.send(bytes([byte]))
                time.sleep(0.05)

    def records(self):
        with tarnbus.Client(str(self.system.bus_path)) as client:
            client.request([self.system.bus_id("www"), 1], tarnbus.ADD_OBJ, tarnbus.record("guests", self.port + 1))
            client.request(SERVICE_MANAGER, tarnbus.SET, tarnbus.record("other", self.done.get("records", 0) % 2 + self.port + 2))
            client.request(SYSTEM_STATUS, tarnbus.GET_ALL)
        time.sleep(0.2)

    def sessions(self):
        with tunnel.Tunnel(f"http://127.0.0.1:{self.port}") as box:
            box.log_in("admin", self.password)
            for _ in range(5):
                box.call(SYSTEM_STATUS, tarnbus.GET_ALL, {})
            box.put("soak", io.BytesIO(bytes(50000)), 50000)
            box.end()

    def lost_sessions(self):
        """Sessions that nobody ends: they run out."""
        with tunnel.Tunnel(f"http://127.0.0.1:{self.port}") as box:
            box.log_in("admin", self.password)
        time.sleep(2)

    def sample(self):
        row = {}
        for name in PROGRAMS:
            program = self.system.programs[name]
            pages = int(Path(f"/proc/{program.pid}/statm").read_text().split()[1])
            row[name, "KiB"] = pages * os.sysconf("SC_PAGESIZE") // 1024
            row[name, "descriptors"] = program.descriptors()
        with tarnbus.Client(str(self.system.bus_path)) as client:
            answer = client.request([self.www, SERVER_SESSIONS], tarnbus.GET_ALL)
        row["www", "sessions"] = len(tarnbus.fields_of(answer).get(("M", 1), ()))
        self.samples.append(row)

    def run(self, seconds):
        threads = [threading.Thread(target=self.repeat, args=(work,)) for work in self.WORK]
        for thread in threads:
            thread.start()
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.sample()
            time.sleep(min(1, seconds / 60))
        self.stop.set()
        for thread in threads:
            thread.join()

    WORK = (pages, pages, cut_off, slow, records, sessions, lost_sessions)

    def defects(self):
        """What is not flat, or did not happen at all."""
        third = len(self.samples) // 3
        found = [f"no {name}" for name in sorted({work.__name__ for work in self.WORK}) if not self.done.get(name)]
        for key in self.samples[0]:
            middle, last = (max(row[key] for row in part) for part in (self.samples[third:2 * third], self.samples[2 * third:]))
            if last > middle + ROOM[key[1]]:
                found.append(f"{key[0]}: {middle} {key[1]}, then {last}")
        return found

    def picture(self):
        keys = list(self.samples[0])
        parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH + 2 * MARGIN} {(HEIGHT + MARGIN) * len(keys)}" '
                 'font-family="sans-serif" font-size="12">']
        for number, key in enumerate(keys):
            values = [row[key] for row in self.samples]
            top, bottom = max(values), (HEIGHT + MARGIN) * number + HEIGHT + MARGIN / 2
            points = " ".join(f"{MARGIN + WIDTH * n / max(1, len(values) - 1):.1f},{bottom - HEIGHT * value / max(1, top):.1f}"
                              for n, value in enumerate(values))
            parts.append(f'<text x="{MARGIN}" y="{bottom - HEIGHT - 8}">{key[0]}: {key[1]}, at most {top}</text>'
                         f'<path d="M{MARGIN},{bottom}h{WIDTH}" stroke="#888"/>'
                         f'<polyline points="{points}" fill="none" stroke="#06c" stroke-width="1.5"/>')
        return "\n".join([*parts, "</svg>\n"])


def main():
    minutes = float(sys.argv[2]) if len(sys.argv) > 2 else 1.0
    picture = Path(sys.argv[3] if len(sys.argv) > 3 else TREE / "build/soak.svg")
    system = harness.System({"a.xml": tunnelbox.DOCUMENT}, {"a.txt": b"a", "large.bin": bytes(400000)})
    try:
        system.start(*PROGRAMS)
        for name in PROGRAMS[1:]:
            system.bus_id(name)
        port = harness.free_port()
        with tarnbus.Client(str(system.bus_path)) as client:
            client.request(SERVICE_MANAGER, tarnbus.SET, tarnbus.record("http", port))
        harness.wait_until(lambda: not rawhttp.refuses(port), "the server to listen")
        soak = Soak(system, port)
        soak.run(minutes * 60)
    finally:
        system.close()
    picture.write_text(soak.picture())
    defects = soak.defects()
    print(*(f"{count} {name}" for name, count in sorted(soak.done.items())), sep=", ")
    print(f"{picture}: " + ("flat" if not defects else "; ".join(defects)))
    sys.exit(1 if defects else 0)


main()
