"""Systems for the tests in a browser, and a way for the tests to reach behind them: a small server on this machine that takes
POST /OPERATION with a list of arguments in JSON and answers with the result in JSON (see control.mjs)."""

import hashlib
import http.server
import json
import os
import signal
import socket
import threading
import time
from pathlib import Path

import harness
import rawhttp
import tarnbus

SET = 0xfe0103
END_NOTICES = 0xff0001


class BareBox:
    """Broker and server alone."""

    def __init__(self):
        self.system = harness.System()
        self.port = self.system.serve()

    def environment(self):
        return {"TARN_URL": f"http://127.0.0.1:{self.port}/"}

    def close(self):
        self.system.close()


class Box:
    """The whole system, as ./run has it but for the supervisor, on ports of its own."""

    def __init__(self):
        self.system = harness.System()
        self.taken = []
        try:
            self.port, self.tls_port = harness.free_port(), harness.free_port()
            self._start()
            self.notices = Notices(self.system)
            self.helper = Helper(self.system)
            self.control = http.server.HTTPServer(("127.0.0.1", 0), self._handler())
        except BaseException:
            self.system.close()
            raise
        # One thread for all operations: a program ends with the thread that started it.
        threading.Thread(target=self.control.serve_forever, daemon=True).start()

    def _start(self):
        system = self.system
        system.start("busd", "sermgr", "userd", "sysd", "tlsd")
        for name in ("sermgr", "userd", "sysd", "tlsd"):
            system.bus_id(name)
        self._set_ports()
        system.start("www")
        self._await_page()

    def _set_ports(self):
        bus = self.system.bus()
        for name, port in (("http", self.port), ("https", self.tls_port)):
            bus.request([68, 1], SET, {("s", 1): name, ("u", 2): port})
        bus.close()

    def _await_page(self):
        harness.wait_until(lambda: not rawhttp.refuses(self.port), "the listener")
        first = self.system.path("/rw/store/first-login")
        lines = harness.wait_until(lambda: first.exists() and first.read_text().split(), "the first login")
        self.user, self.password = lines[1], lines[3]

    def environment(self):
        return {
            "TARN_URL": f"http://127.0.0.1:{self.port}/",
            "TARN_TLS_URL": f"https://127.0.0.1:{self.tls_port}/",
            "TARN_CONTROL": f"http://127.0.0.1:{self.control.server_port}/",
            "TARN_USER": self.user,
            "TARN_PASSWORD": self.password,
        }

    def close(self):
        self.notices.stop()
        self.helper.stop()
        try:
            self.system.close()
        finally:
            self.control.shutdown()
            self.control.server_close()
            for taken in self.taken:
                taken.close()

    # Operations

    def kill(self, name):
        self.system.kill(name)

    def start(self, name):
        self.system.start(name)
        if name == "busd":
            # The others join again by themselves.
            for other in ("www", "userd", "sysd", "sermgr", "tlsd"):
                self.system.bus_id(other)
        else:
            self.system.bus_id(name)

    def tn(self, *arguments):
        result = self.system.tn(*arguments)
        return {"status": result.returncode, "text": result.stdout + result.stderr}

    def log_lines(self, name):
        return self.system.lines(name)

    def read_file(self, path):
        """A file of the image as text; null when there is none."""
        file = self.system.path(path)
        return file.read_text() if file.exists() else None

    def make_files(self, path, count):
        """Makes a directory of the image with that many empty files: 0000, 0001 ..."""
        folder = self.system.path(path)
        folder.mkdir(parents=True)
        for number in range(count):
            (folder / f"{number:04}").touch()

    def file_sum(self, path):
        return hashlib.sha256(self.system.path(path).read_bytes()).hexdigest()

    def occupy(self):
        """Listens on a port, for as long as the system is there."""
        taken = socket.create_server(("::", 0), family=socket.AF_INET6, dualstack_ipv6=True)
        self.taken.append(taken)
        return taken.getsockname()[1]

    def end_notices(self):
        """The ids of the sessions whose end was told on the bus so far."""
        return self.notices.ids

    def helper_path(self):
        """The path of a service of the test's own."""
        return [self.helper.bus.id, 1]

    def free_port(self):
        return harness.free_port()

    def refuses(self, port):
        return rawhttp.refuses(port)

    def _handler(box):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                arguments = json.loads(self.rfile.read(int(self.headers["Content-Length"])))
                try:
                    answer, status = getattr(box, self.path[1:])(*arguments), 200
                except AssertionError as trouble:
                    answer, status = str(trouble), 500
                body = json.dumps(answer).encode()
                self.send_response(status)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                pass

        return Handler


class WholeBox(Box):
    """The whole system under its supervisor, which starts again what ends."""

    def _start(self):
        system = self.system
        system.start("tnrun")
        harness.wait_until(lambda: "sermgr" in system.tn("list").stdout, "the bus")
        for name in ("sermgr", "userd", "sysd", "tlsd", "www"):
            system.bus_id(name)
        self._set_ports()
        self._await_page()

    def kill(self, name):
        parent = self.system.programs["tnrun"].pid
        children = Path(f"/proc/{parent}/task/{parent}/children").read_text().split()
        pid = next(int(child) for child in children if Path(f"/proc/{child}/comm").read_text().strip() == name)
        os.kill(pid, signal.SIGKILL)


class BusThread:
    """A program of the test's own that takes what comes."""

    def __init__(self, system):
        self.bus = system.bus()
        self.stopping = False
        self.thread = threading.Thread(target=self._run, daemon=True)

    def _run(self):
        while not self.stopping:
            try:
                self.take(self.bus.receive(0.2))
            except TimeoutError:
                continue
            except (OSError, tarnbus.BusError):
                return

    def stop(self):
        self.stopping = True
        self.thread.join()


class Notices(BusThread):
    """Hears of the ends of sessions."""

    def __init__(self, system):
        super().__init__(system)
        self.ids = []
        self.bus.join_group(END_NOTICES)
        self.thread.start()

    def take(self, message):
        if message.command == 0xfe0014:
            self.ids.append(message.fields[tarnbus.SENDER][-1])


class Helper(BusThread):
    """A service that does what its caller asks of it, good or bad."""

    ECHO, LATE, SILENT, ERROR, LONG, PUSH = range(1, 7)

    def __init__(self, system):
        super().__init__(system)
        self.late = []
        self.thread.start()

    def take(self, message):
        fields = message.fields
        own = {key: value for key, value in fields.items() if key[1] < 0xff0000}
        command = message.command
        if command == self.ECHO:
            self.bus.reply(message, own)
        elif command == self.LATE:
            # Three at a time, the last one first.
            self.late.append((message, own))
            if len(self.late) == 3:
                for late, answer in reversed(self.late):
                    self.bus.reply(late, answer)
                self.late = []
        elif command == self.ERROR:
            self.bus.reply_error(message, 0xfe1234, "as you wish")
        elif command == self.LONG:
            self.bus.reply(message, {("R", 1): [bytes(range(256)) * 200] * 2, **own})
        elif command == self.PUSH:
            self.bus.reply(message, {("u", 1): 0})
            for number in range(1, fields[("u", 2)] + 1):
                size = fields.get(("u", 3), 0)
                self.bus.send(message.sender, 7, {("u", 1): number, ("R", 4): [bytes(60000)] * (size // 60000)})
                time.sleep(0.01)
