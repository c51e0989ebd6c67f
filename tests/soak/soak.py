"""python3 tests/soak/soak.py BUILD [MINUTES [PICTURE]]

Mixed traffic for as long as wanted: pages small and large, connections kept and cut off, records, tunnel sessions with
calls and uploads. At its end it draws what www and busd held meanwhile (resident memory, descriptors) and the sessions
that were begun. The last third is flat against the one before, or the end is a failure.
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
# Resident memory in KiB and descriptors that the last third may hold more than the middle one.
ROOM = {"KiB": 256, "descriptors": 24, "sessions": float("inf")}
TROUBLES = (OSError, EOFError, ValueError, tarnbus.BusError, tunnel.TunnelError)


class Soak:
    def __init__(self, system, port):
        self.system, self.port = system, port
        self.stop = threading.Event()
        self.done = {}
        self.samples = []

    def repeat(self, work):
        while not self.stop.is_set():
            with contextlib.suppress(*TROUBLES):
                work()
                self.done[work.__name__] = self.done.get(work.__name__, 0) + 1
            time.sleep(0.005)

    def pages(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            for target in ("/a.txt", "/large.bin", "/a.txt", "/none"):
                connection.get(target)

    def cut_off(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.send(b"GET /large.bin HTTP/1.1\r\nHost: x\r\n\r\n"[:self.done.get("cut_off", 0) % 45])

    def records(self):
        with tarnbus.Client(str(self.system.bus_path)) as client:
            client.request([self.system.bus_id("www"), 1], tarnbus.ADD_OBJ, tarnbus.record("guests", self.port + 1))
        time.sleep(0.2)

    def sessions(self):
        with tunnel.Tunnel(f"http://127.0.0.1:{self.port}") as box:
            box.log_in("admin", tunnelbox.PASSWORD)
            for _ in range(5):
                box.exchange({("s", 3): tunnelbox.PASSWORD, tunnelbox.messages.DESTINATION: [tunnelbox.LOGIN_PROGRAM, 1]})
            box.put("soak", io.BytesIO(bytes(50000)), 50000)

    def sample(self):
        row = {}
        for name in ("www", "busd"):
            program = self.system.programs[name]
            pages = int(Path(f"/proc/{program.pid}/statm").read_text().split()[1])
            row[name, "KiB"] = pages * os.sysconf("SC_PAGESIZE") // 1024
            row[name, "descriptors"] = program.descriptors()
        row["www", "sessions"] = self.done.get("sessions", 0)
        self.samples.append(row)

    def run(self, seconds):
        threads = [threading.Thread(target=self.repeat, args=(work,))
                   for work in (self.pages, self.pages, self.cut_off, self.records, self.sessions)]
        for thread in threads:
            thread.start()
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.sample()
            time.sleep(min(1, seconds / 60))
        self.stop.set()
        for thread in threads:
            thread.join()

    def defects(self):
        """What is not flat, or did not happen at all."""
        third = len(self.samples) // 3
        found = [f"no {name}" for name in ("pages", "cut_off", "records", "sessions") if not self.done.get(name)]
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
        soak = Soak(system, system.serve("http"))
        login = system.bus(id=tunnelbox.LOGIN_PROGRAM, name="login")
        tunnelbox.Service(login, lambda bus, message: tunnelbox.check_password(bus, message, tunnelbox.grant(0xffff)))
        soak.run(minutes * 60)
    finally:
        system.close()
    picture.write_text(soak.picture())
    defects = soak.defects()
    print(*(f"{count} {name}" for name, count in sorted(soak.done.items())), sep=", ")
    print(f"{picture}: " + ("flat" if not defects else "; ".join(defects)))
    sys.exit(1 if defects else 0)


main()
