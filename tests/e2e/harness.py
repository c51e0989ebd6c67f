"""A system of one's own for a test: an image in a temporary folder, with the programs of one build.

    class Pages(harness.SystemTest):
        documents = {"a.xml": harness.directory_server("http", "/home/web")}
        web = {"hello.txt": b"hello"}

        def test_hello(self):
            port = self.system.serve("http")          # busd and www started, a record sent
            self.assertEqual(rawhttp.get(port, "/hello.txt").body, b"hello")

Everything that a test starts is gone after it, whether it passed or not; a program that left a sanitizer's report in
its log, or did not end well when it was told to, fails the test.

TARN_BUILD is the build under test. TARN_HOST_BUILD has what a cross build leaves out, and TARN_QEMU is the emulator for
the programs of a cross build; both are set by CTest.
"""

import atexit
import contextlib
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

import tarnbus

TREE = Path(__file__).resolve().parents[2]
ENTER = TREE / "image" / "enter"
STAGE = TREE / "image" / "stage"
# How long anything may take that should take no time: generous, because the machine may be busy and programs emulated.
PATIENCE = 60.0
SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:")

# Systems that were not closed yet. A test run that is told to end leaves nothing behind either.
_open_systems = set()
signal.signal(signal.SIGTERM, signal.default_int_handler)


@atexit.register
def _close_systems():
    for system in list(_open_systems):
        with contextlib.suppress(AssertionError):
            system.close()


# A datagram socket for each port that free_port() gave: suites that run at the same time take no port from each other.
_kept_ports = []


def free_port():
    """A port of this machine that nobody listens on, below those that the kernel gives to clients."""
    while True:
        port = random.randrange(20000, 32000)
        keeper = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        with socket.socket(socket.AF_INET6, socket.SOCK_STREAM) as probe:
            try:
                keeper.bind(("::", port))
                probe.bind(("::", port))
            except OSError:
                keeper.close()
                continue
        _kept_ports.append(keeper)
        return port


def wait_until(condition, what, patience=PATIENCE):
    """Waits until `condition()` gives something true, and returns it."""
    deadline = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {patience:.0f} s in vain: {what}")
        time.sleep(0.01)


def directory_server(name, root, path="/", kind="dir", attributes=""):
    """A configuration document with one server that has one directory servlet."""
    return (f'<?xml version="1.0" encoding="UTF-8"?>\n<www><server name="{name}">'
            f'<servlet type="{kind}" path="{path}" root="{root}" {attributes}/></server></www>\n')


def is_foreign(program):
    """Whether a program is for another processor: 32-bit big-endian PowerPC."""
    with open(program, "rb") as file:
        head = file.read(20)
    return head[5] == 2 and head[18:20] == b"\x00\x14"


class Program:
    """One running program of an image."""

    def __init__(self, system, name):
        self.name = name
        self.log_path = system.folder / f"{name}.log"
        pid_path = system.folder / f"{name}.pid"
        pid_path.unlink(missing_ok=True)
        command = ["/bin/" + name]
        if is_foreign(system.root / "bin" / name):
            command.insert(0, "/bin/qemu-ppc-static")
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([ENTER, "-p", pid_path, system.root, *command], stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log, start_new_session=True)
        try:
            self.pid = wait_until(lambda: self._read_pid(pid_path), f"{name} to be started")
        except AssertionError:
            self.process.kill()
            self.process.wait()
            raise

    def _read_pid(self, path):
        # Looked at first: one that writes its number and ends between two looks was started.
        ended = self.process.poll() is not None
        try:
            return json.loads(path.read_text())["child-pid"]
        except (OSError, ValueError):
            if not ended:
                return None
        raise AssertionError(f"{self.name} could not be started: {self.log_path.read_text(errors='replace')}")

    def signal(self, number):
        os.kill(self.pid, number)

    def ended(self):
        return self.process.poll() is not None

    def wait(self, patience=PATIENCE):
        """Waits for the end; the status, or 128 and the number of the signal."""
        try:
            return self.process.wait(patience)
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.name} does not end") from None

    def descriptors(self):
        """How many descriptors it holds."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def processor_ticks(self):
        """Processor time it has used, in clock ticks."""
        fields = Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])


class System:
    """An image and the programs that run in it.

    `documents` maps names to configuration documents and `web` paths below /home/web to contents; None takes what is
    shipped.
    """

    def __init__(self, documents=None, web=None):
        self.folder = Path(tempfile.mkdtemp(prefix="tn", dir="/tmp"))
        self.root = self.folder / "image"
        self.programs = {}
        self.buses = []
        try:
            self._stage(documents, web)
        except BaseException:
            shutil.rmtree(self.folder)
            raise
        _open_systems.add(self)

    def _stage(self, documents, web):
        builds = [os.environ["TARN_BUILD"], os.environ.get("TARN_HOST_BUILD", "")]
        subprocess.run([STAGE, self.root, *filter(None, builds)], check=True)
        qemu = os.environ.get("TARN_QEMU")
        if qemu:
            shutil.copy(qemu, self.root / "bin" / "qemu-ppc-static")
        if documents is not None:
            shutil.rmtree(self.root / "tarn/etc/www")
            for name, text in documents.items():
                self.write(f"/tarn/etc/www/{name}", text)
        if web is not None:
            shutil.rmtree(self.root / "home/web")
            (self.root / "home/web").mkdir()
            for name, content in web.items():
                self.write(f"/home/web/{name}", content)

    def path(self, inside):
        """Where a path of the image lies outside."""
        return self.root / inside.lstrip("/")

    def write(self, inside, content):
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode())

    # Programs

    def start(self, *names):
        """Starts programs in order; busd is waited for until it takes connections."""
        for name in names:
            self.programs[name] = Program(self, name)
            if name == "busd":
                wait_until(self._bus_takes_connections, "busd to take connections")

    def _bus_takes_connections(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            try:
                probe.connect(str(self.bus_path))
            except OSError:
                return False
            return True

    def stop(self, name):
        """Tells a program to end, and waits. It has to be there still, and to end with status 0."""
        program = self.programs.pop(name)
        if program.ended():
            raise AssertionError(f"{name} had ended before, with status {program.wait()}:\n{self.log(name)}")
        program.signal(signal.SIGTERM)
        try:
            status = program.wait()
        except AssertionError:
            program.process.kill()
            program.wait()
            raise
        if status != 0:
            raise AssertionError(f"{name} ended with status {status}:\n{self.log(name)}")

    def kill(self, name):
        """Ends a program without warning."""
        program = self.programs.pop(name)
        program.signal(signal.SIGKILL)
        program.wait()

    def restart(self, name):
        self.kill(name)
        self.start(name)

    def tn(self, *arguments, patience=PATIENCE):
        """Runs the bus command line inside the image; the finished process with its output as text."""
        prefix = ["/bin/qemu-ppc-static"] if is_foreign(self.root / "bin/tn") else []
        return subprocess.run([ENTER, self.root, *prefix, "/bin/tn", *arguments], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=patience, check=False)

    # Logs

    def log(self, name):
        path = self.folder / f"{name}.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def lines(self, name):
        return self.log(name).splitlines()

    def wait_for_line(self, name, line, count=1):
        """Waits until a program has logged exactly this line, `count` times in all."""
        wait_until(lambda: self.lines(name).count(line) >= count, f"{name} to log {line!r} {count} times")

    # The bus

    @property
    def bus_path(self):
        return self.root / "run/tn/bus"

    def bus(self, *arguments, **keywords):
        """A program of the test's own on the bus (see tarnbus.py), closed with the system."""
        client = tarnbus.Client(str(self.bus_path), *arguments, **keywords)
        self.buses.append(client)
        return client

    def bus_id(self, name):
        """The bus id of a program, once it has joined and answers: a program joins before its loop begins. So it has
        also said by now what it had to say when it joined, and ends well when it is told to."""
        client = tarnbus.Client(str(self.bus_path))
        try:
            return wait_until(lambda: self._find(client, name), f"{name} to join the bus and to answer")
        finally:
            client.close()

    @staticmethod
    def _find(client, name):
        member_id = next((member_id for member_id, member in client.list() if member == name), None)
        if member_id is None:
            return None
        try:
            answer = client.request([member_id], tarnbus.GET_POLICIES, timeout=5)
        except TimeoutError:
            return None
        # One that has ended meanwhile cannot be reached.
        return None if tarnbus.error_of(answer) == tarnbus.UNREACHABLE else member_id

    def settle(self, *services):
        """Waits until www has what it asked services for when it started, so that none of its listeners is opened anew
        later. Each of them asks the broker who www is before it answers: hence twice."""
        for name in services:
            self.bus_id(name)
            self.bus_id(name)
        self.bus_id("www")

    def send_record(self, record, command=tarnbus.SET):
        """Sends a server record to www; its reply."""
        client = tarnbus.Client(str(self.bus_path))
        try:
            return client.request([self.bus_id("www"), 1], command, record)
        finally:
            client.close()

    def serve(self, name="http", port=None, **fields):
        """Starts busd and www where they do not run, has www open a server, and returns the port."""
        self.start(*(program for program in ("busd", "www") if program not in self.programs))
        port = port or free_port()
        reply = self.send_record(tarnbus.record(name, port, **fields))
        if tarnbus.is_error(reply):
            raise AssertionError(f"www refused the record: {reply}")
        return port

    # The end

    def close(self):
        """Ends everything and looks at what the programs left behind."""
        _open_systems.discard(self)
        troubles = []
        for client in self.buses:
            client.close()
        for name in reversed(list(self.programs)):
            try:
                self.stop(name)
            except AssertionError as trouble:
                troubles.append(str(trouble))
        for log in self.folder.glob("*.log"):
            text = log.read_text(errors="replace")
            if any(mark in text for mark in SANITIZER_MARKS):
                troubles.append(f"{log.name}:\n{text}")
        shutil.rmtree(self.folder, ignore_errors=True)
        if troubles:
            raise AssertionError("\n".join(troubles))


class SystemTest(unittest.TestCase):
    """A test with a system of its own, which is closed after each test."""

    documents = None
    web = None

    def setUp(self):
        self.system = System(self.documents, self.web)
        self.addCleanup(self.system.close)
