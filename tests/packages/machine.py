"""A machine of its own, in which packages are installed: tests/packages/boot makes it of this one.

    with Machine() as machine:
        machine.run("dpkg", "-i", "some.deb")
"""

import os
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
BOOT = Path(__file__).with_name("boot")
# How long anything may take that should take no time: the machine may be busy.
PATIENCE = 60.0
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "HOME": "/root", "USER": "root",
               "DEBIAN_FRONTEND": "noninteractive"}

# A test run that is told to end leaves no machine behind either.
signal.signal(signal.SIGTERM, signal.default_int_handler)


def wait_until(condition, what, patience=PATIENCE):
    """Waits until `condition()` gives something true, and returns it."""
    deadline = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {patience:.0f} s in vain: {what}")
        time.sleep(0.05)


class Machine:
    def __init__(self):
        self.folder = Path(tempfile.mkdtemp(prefix="tarn-machine-"))
        self.pid = None
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen([BOOT, self.folder, TREE], stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        try:
            self.pid = wait_until(self._first_process, "the machine's first process")
            wait_until(lambda: self.run("systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded"),
                       "the machine to be up")
        except BaseException:
            self.close()
            raise

    def _first_process(self):
        if self.process.poll() is not None:
            self.log.seek(0)
            raise AssertionError(f"the machine does not start: {self.log.read().decode(errors='replace')}")
        pid = self.process.pid
        try:
            # The script, what makes the processes' namespace, and the first process in it.
            for _ in range(2):
                pid = int(Path(f"/proc/{pid}/task/{pid}/children").read_text())
            return pid if Path(f"/proc/{pid}/comm").read_text() == "systemd\n" else None
        except (OSError, ValueError):
            return None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends all its processes at once; what they wrote is gone with them."""
        if self.process.poll() is None:
            os.kill(self.pid or self.process.pid, signal.SIGKILL)
        self.process.wait()
        self.log.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def run(self, *command, check=True, **keywords):
        """Runs a command in the machine, as its root."""
        environment = ENVIRONMENT | keywords.pop("env", {})
        done = subprocess.run(["nsenter", "-t", str(self.pid), "-a", *map(str, command)], env=environment, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300,
                              check=False, **keywords)
        if check and done.returncode != 0:
            raise AssertionError(f"{' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout}")
        return done

    def shell(self, line, folder=TREE, **keywords):
        """Runs a line of a shell in a folder, as somebody who may do everything."""
        return self.run("sh", "-c", f"cd {folder} && sudo() {{ \"$@\"; }} && {line}", **keywords)

    def path(self, name):
        """A path of the machine, as seen from here."""
        return Path(f"/proc/{self.pid}/root{name}")

    def processes(self, unit):
        """Names and process ids, as seen from here, of what runs in a unit."""
        found = {}
        try:
            # The group's file names processes as its reader sees them.
            pids = self.path(f"/sys/fs/cgroup/system.slice/{unit}/cgroup.procs").read_text().split()
        except OSError:
            return found
        for pid in pids:
            try:
                found[Path(f"/proc/{pid}/comm").read_text().strip()] = int(pid)
            except OSError:
                pass
        return found

    def await_programs(self, names):
        """Waits until exactly these programs of the system run, and all of them have joined the bus."""
        wait_until(lambda: set(self.processes("tarn.service")) == names, f"{names} to run")
        wait_until(lambda: all(name in self.run("tn", "list", check=False).stdout for name in names - {"busd"}), "all to join")
