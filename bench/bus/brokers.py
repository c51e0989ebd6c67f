"""Who moves messages between two clients in the benchmark of the bus, and how each is started, measured and stopped."""

import contextlib
import pathlib
import shutil
import signal
import socket
import subprocess
import time

PATIENCE = 10.0

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:path={socket}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy></busconfig>
"""


def wait_until(claim, what):
    deadline = time.monotonic() + PATIENCE
    while not claim():
        if time.monotonic() > deadline:
            raise RuntimeError(f"waited in vain for {what}")
        time.sleep(0.01)


def stop(process):
    process.send_signal(signal.SIGTERM)
    try:
        process.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


class Contender:
    """One process that moves frames, and the socket at which it does. Each measurement starts it anew."""

    def __init__(self, name, kind, place, command):
        self.name, self.kind, self.socket, self.command = name, kind, place, [str(word) for word in command]

    def measure(self, build, pin, case):
        """Round trips per second, microseconds of the broker's processor time for one, and of all processes'."""
        process = subprocess.Popen(pin + self.command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_until(self.socket.exists, f"{self.name} to listen")
            return self.ask(build, pin, case, process)
        finally:
            stop(process)
            self.sweep()

    def sweep(self):
        # The broker ends with the process that holds it, a moment later, and its lock with it.
        for leftover in (self.socket, self.socket.with_name(self.socket.name + ".lock")):
            leftover.unlink(missing_ok=True)

    def ask(self, build, pin, case, _process):
        return self.figures(pin, build / "bin/bus_round", self.socket, self.kind, *case)

    @staticmethod
    def figures(pin, *command):
        line = subprocess.run(pin + [str(word) for word in command], stdout=subprocess.PIPE, check=True, text=True).stdout
        return [float(figure) for figure in line.split()]


class DBusDaemon(Contender):
    def __init__(self, folder):
        folder.mkdir()
        place, document = folder / "bus", folder / "bus.xml"
        document.write_text(CONFIGURATION.format(socket=place))
        command = ["dbus-daemon", f"--config-file={document}", "--nofork", "--nopidfile", "--nosyslog"]
        super().__init__("dbus-daemon", "sd-bus", place, command)

    def takes_connections(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            return probe.connect_ex(str(self.socket)) == 0

    def ask(self, build, pin, case, process):
        wait_until(self.takes_connections, self.name)
        # taskset has become the program by the time that it listens.
        return self.figures(pin, build / "bin/sdbus_round", self.socket, process.pid, *case)


class DBusBroker(Contender):
    """Its launcher expects a listening socket, a journal, and a way to the service manager; here the way leads to the bus
    itself, where nobody answers, and the journal is a socket that nobody reads."""

    def __init__(self, folder):
        folder.mkdir()
        self.folder, self.document = folder, folder / "bus.xml"
        self.document.write_text(CONFIGURATION.format(socket=folder / "bus"))
        super().__init__("dbus-broker", "sd-bus", folder / "bus", [])

    def measure(self, build, pin, case):
        with contextlib.ExitStack() as kept:
            journal = kept.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
            listener = kept.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
            (self.folder / "journal").mkdir(exist_ok=True)
            journal.bind(str(self.folder / "journal/socket"))
            listener.bind(str(self.socket))
            listener.listen(16)
            kept.callback(lambda: [path.unlink() for path in (self.socket, self.folder / "journal/socket")])
            launcher = subprocess.Popen(pin + self.launch(listener.fileno()), pass_fds=(listener.fileno(),),
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            kept.callback(stop, launcher)
            found = []
            wait_until(lambda: found.extend(self.brokers_under(launcher.pid)) or found, "dbus-broker")
            return self.figures(pin, build / "bin/sdbus_round", self.socket, found[0], *case)

    def launch(self, listener):
        script = (f"exec 3<&{listener}; LISTEN_FDS=1 LISTEN_PID=$$ DBUS_SESSION_BUS_ADDRESS=unix:path={self.socket} "
                  f"exec dbus-broker-launch --scope user --config-file {self.document}")
        return ["bwrap", "--die-with-parent", "--bind", "/", "/", "--dev-bind", "/dev", "/dev", "--proc", "/proc",
                "--tmpfs", "/run", "--bind", str(self.folder / "journal"), "/run/systemd/journal", "sh", "-c", script]

    def brokers_under(self, pid):
        with contextlib.suppress(OSError):
            if pathlib.Path(f"/proc/{pid}/comm").read_text() == "dbus-broker\n":
                return [pid]
            for task in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
                for child in task.read_text().split():
                    if found := self.brokers_under(int(child)):
                        return found
        return []


def relay(how, build, folder):
    return Contender(how, "relay", folder / "relay", [build / "bin/bus_relay", folder / "relay", how])


def busd(program, folder):
    """The broker in an image of its own."""
    root = folder / "root"
    (root / "bin").mkdir(parents=True)
    shutil.copy(program, root / "bin/busd")
    return Contender("busd", "broker", root / "run/tn/bus",
                     ["bwrap", "--die-with-parent", "--bind", root, "/", "--dev", "/dev", "--proc", "/proc", "/bin/busd"])
