"""The Debian packages: what is in them, and a life with them on a machine that systemd runs.

TARN_BUILD is the build whose programs they hold.
"""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from machine import Machine, TREE, wait_until

BUILD = Path(os.environ["TARN_BUILD"]).resolve()
PACKAGES = TREE / "build" / "packages"
NAMES = ("tarn-server", "tarn-services", "tarn-web", "libtarn-dev")
CONFIGURATION = ["/etc/tarn/programs", "/etc/tarn/www/10-http.xml", "/etc/tarn/www/20-https.xml"]
PROGRAMS = {"tnrun", "busd", "www", "sermgr", "userd", "sysd", "tlsd", "hotspotd"}
# What of the file tree the programs are to see.
SEEN = ("bin/", "flash/", "home/web/", "rw/", "tarn/etc/")
# systemd's own judgement, from 0 (nothing can be reached) to 100.
MOST_EXPOSURE = 20
FETCH = """
import ssl, sys, urllib.request
context = ssl._create_unverified_context()
with urllib.request.urlopen(sys.argv[1], timeout=20, context=context) as answer:
    sys.stdout.write(answer.read().decode())
"""


def output(*command, **keywords):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **keywords)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def files_of(pid):
    """The files that a process sees, without those that the kernel and systemd show."""
    folders = ["dev", "proc", "run", "sys"]
    root = f"/proc/{pid}/root"
    skip = " -o ".join(f"-path {root}/./{folder}" for folder in folders).split()
    found = output("find", f"{root}/.", "(", *skip, ")", "-prune", "-o", "-type", "f", "-print")
    return [line[len(f"{root}/./"):] for line in found.splitlines()]


def commands_of(document):
    """The commands of a document: the lines of its indented blocks."""
    text = re.sub("^```.*?^```$", "", (TREE / "docs" / document).read_text(), flags=re.M | re.S)
    return [line.strip() for line in text.splitlines() if line.startswith("    ")]


def packages():
    """The packages' files by their names."""
    return {path.name.split("_")[0]: path for path in PACKAGES.glob("*.deb")}


def setUpModule():
    output(TREE / "packaging" / "build", BUILD, cwd=TREE)


class Content(unittest.TestCase):
    def field(self, name, field):
        return output("dpkg-deb", "-f", packages()[name], field).strip()

    def test_there_are_four_of_this_version(self):
        self.assertEqual(set(packages()), set(NAMES))
        version = re.search(r"^project\(tarn VERSION (\S+)", (TREE / "CMakeLists.txt").read_text(), re.M)[1]
        self.assertEqual({name: self.field(name, "Version") for name in NAMES}, dict.fromkeys(NAMES, version))

    def test_the_same_build_gives_the_same_bytes(self):
        with tempfile.TemporaryDirectory() as folder:
            for path in packages().values():
                shutil.copy(path, folder)
            setUpModule()
            for name, path in packages().items():
                self.assertEqual(path.read_bytes(), (Path(folder) / path.name).read_bytes(), name)

    def test_dependencies(self):
        version = self.field("tarn-server", "Version")
        self.assertEqual(self.field("tarn-services", "Depends"), f"tarn-server (= {version})")
        self.assertEqual(self.field("tarn-server", "Depends"), "systemd | systemd-standalone-sysusers | systemd-sysusers")
        self.assertIn(f"tarn-services (= {version})", self.field("tarn-server", "Recommends"))
        self.assertIn("glibc (= ", self.field("tarn-server", "Static-Built-Using"))
        self.assertIn("openssl (= ", self.field("tarn-services", "Static-Built-Using"))

    def test_files_belong_to_root_and_nobody_else_writes_them(self):
        for name, path in packages().items():
            for line in output("dpkg-deb", "-c", path).splitlines():
                mode, owner = line.split()[:2]
                self.assertEqual(owner, "root/root", line)
                if not mode.startswith("l"):
                    self.assertRegex(mode, "^.rw[x-]r-[x-]r-[x-]$", f"{name}: {line}")

    def test_what_is_configured_is_kept(self):
        listed = subprocess.run(["dpkg-deb", "-I", packages()["tarn-server"], "conffiles"], capture_output=True, text=True,
                                check=True).stdout
        self.assertEqual(listed.split(), CONFIGURATION)

    def test_the_debian_checker_is_content(self):
        output("lintian", "--allow-root", "--fail-on", "error,warning", *packages().values())


class Documents(unittest.TestCase):
    def test_they_show_the_examples_as_they_are(self):
        for document, folder, names in (("writing-a-service.md", "examples", ("greeter.cc", "CMakeLists.txt")),
                                        ("writing-a-servlet.md", "examples/servlet", ("greeting_servlet.h", "greeting_servlet.cc"))):
            blocks = re.findall(r"^`(\S+)`:\n\n```\w+\n(.*?)^```$", (TREE / "docs" / document).read_text(), re.M | re.S)
            self.assertEqual(blocks, [(name, (TREE / folder / name).read_text()) for name in names])

    def test_the_commands_about_packages(self):
        # What is done by the other tests of this file: making the packages, and installing without them.
        elsewhere = ("packaging/build", "cmake --install ")
        with Machine() as machine:
            machine.path("/etc/apt/apt.conf.d/99-test").write_text('APT::Get::Assume-Yes "true";\n')
            for command in commands_of("packages.md"):
                if command.startswith(elsewhere):
                    continue
                machine.shell(command)
                if " install " in command or " restart " in command:
                    machine.await_programs(PROGRAMS)


class Unit(unittest.TestCase):
    """What systemd says of the unit when it only reads it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        output("dpkg-deb", "-x", packages()["tarn-server"], self.root)
        self.unit = self.root / "lib/systemd/system/tarn.service"

    def test_it_is_well_formed(self):
        # The program is a file of the unit's own file tree, so it is looked for there.
        text = self.unit.read_text()
        image = self.root / re.search("^RootDirectory=(.*)$", text, re.M)[1].lstrip("/")
        program = re.search("^ExecStart=(.*)$", text, re.M)[1]
        self.unit.write_text(text.replace(f"ExecStart={program}", f"ExecStart={image}{program}"))
        self.assertEqual(output("systemd-analyze", "verify", "--recursive-errors=no", self.unit), "")

    def test_little_can_be_reached_from_it(self):
        output("systemd-analyze", "security", "--no-pager", "--offline=yes", f"--threshold={MOST_EXPOSURE}", self.unit)


class Prefix(unittest.TestCase):
    """What `cmake --install` puts below any other folder, without packages."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.work = Path(folder.name)
        cls.prefix = cls.work / "prefix"
        output("cmake", "--install", BUILD, "--prefix", cls.prefix)

    def build(self, name, source):
        flags = "-Wall -Wextra -Wconversion -Wshadow -Wold-style-cast -Werror"
        output("cmake", "-S", source, "-B", self.work / name, f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_CXX_FLAGS={flags}")
        output("cmake", "--build", self.work / name)

    def test_the_example_is_built_with_it(self):
        self.build("example", TREE / "examples")
        self.assertTrue(os.access(self.work / "example" / "greeter", os.X_OK))

    def test_every_header_brings_what_it_needs(self):
        source = self.work / "all"
        source.mkdir()
        include = self.prefix / "include" / "tarn"
        headers = sorted(str(path.relative_to(include)) for path in include.rglob("*.h"))
        self.assertIn("platform/bus/looper.h", headers)
        text = "".join(f'#include "{header}"\n' for header in reversed(headers))
        (source / "all.cc").write_text(text + "int main() { tn::Looper looper; Request request(false, false); }\n")
        (source / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(all LANGUAGES CXX)\nfind_package(Tarn 0.1 CONFIG REQUIRED)\n"
            "add_executable(whole all.cc)\ntarget_link_libraries(whole Tarn::bus Tarn::web Tarn::xml Tarn::crypto Tarn::base)\n")
        self.build("all-build", source)

    def test_the_unit_knows_where_it_was_installed(self):
        unit = (self.prefix / "lib/systemd/system/tarn.service").read_text()
        self.assertIn(f"RootDirectory={self.prefix}/lib/tarn/image\n", unit)
        self.assertIn(f" {self.prefix}/etc/tarn/programs:/tarn/etc/programs ", unit)
        self.assertEqual((self.prefix / "etc/tarn/programs").read_text(), (TREE / "image/tarn/etc/programs").read_text())
        self.assertTrue((self.prefix / "share/tarn/web/index2.html").exists())


class Life(unittest.TestCase):
    """One machine, from the first installation to the last trace."""

    def install(self, *names):
        return self.machine.run("dpkg", "-i", *(packages()[name] for name in names)).stdout

    def fetch(self, url):
        done = self.machine.run("python3", "-c", FETCH, url, check=False)
        return done.stdout if done.returncode == 0 else None

    def await_page(self, url):
        page = wait_until(lambda: self.fetch(url), f"{url} to answer")
        self.assertIn("<title>", page)

    def await_journal(self, text):
        """Waits until the journal, which is written behind what it tells of, has a text about the system."""
        wait_until(lambda: text in self.machine.run("journalctl", "--no-pager", "-u", "tarn").stdout, f"{text!r} in the journal")

    def tn(self, *arguments):
        return self.machine.run("tn", *arguments).stdout

    def remote(self, *arguments):
        """Through the tunnel, as a browser would."""
        return self.machine.run(TREE / "tools/remote/tn-remote", self.url, *arguments, env={"TN_PASSWORD": self.password}).stdout

    def show(self, name):
        return self.machine.run("systemctl", "show", "--value", "-p", name, "tarn").stdout.strip()

    def test_life(self):
        with Machine() as self.machine:
            self.url = "http://127.0.0.1:8080"
            self.first_installation()
            self.what_it_may_do()
            self.who_may_use_the_bus()
            self.settings()
            self.faults()
            self.a_service_of_ones_own()
            self.the_same_version_again()
            self.without_services()
            self.removed_and_installed_again()
            self.purged()

    def first_installation(self):
        told = self.install(*NAMES)
        self.assertIn("sudo cat /var/lib/tarn/rw/store/first-login\n", told)
        self.assertEqual((self.show("ActiveState"), self.show("Type")), ("active", "notify"))
        self.assertEqual(self.machine.run("systemctl", "is-enabled", "tarn").stdout, "enabled\n")
        self.await_page(f"{self.url}/")
        self.await_page("https://127.0.0.1:8443/")
        self.machine.await_programs(PROGRAMS)
        note = self.machine.run("cat", "/var/lib/tarn/rw/store/first-login").stdout
        self.password = re.search("^password (.*)$", note, re.M)[1]
        self.assertIn("user: 'admin'", self.remote("login"))

    def what_it_may_do(self):
        user = self.machine.run("id", "-u", "tarn").stdout.strip()
        for name, pid in self.machine.processes("tarn.service").items():
            status = Path(f"/proc/{pid}/status").read_text()
            for line in (f"Uid:\t{user}\t{user}\t{user}\t{user}", "CapBnd:\t0000000000000400", "NoNewPrivs:\t1", "Seccomp:\t2"):
                self.assertIn(line + "\n", status, name)
            self.assertEqual([file for file in files_of(pid) if not file.startswith(SEEN)], [], name)
        mounts = [line.split() for line in Path(f"/proc/{pid}/mountinfo").read_text().splitlines()]
        writable = {words[4] for words in mounts if words[5].startswith("rw")}
        own = {at for at in writable if os.stat(f"/proc/{pid}/root{at}").st_uid == int(user)}
        self.assertEqual(own, {"/flash", "/run/tn", "/rw"})
        self.assertNotIn("No such file", self.tn("call", "24/1", "getAll"))

    def who_may_use_the_bus(self):
        nobody = ("setpriv", "--reuid=65534", "--clear-groups", "tn", "list")
        self.assertNotEqual(self.machine.run(*nobody[:2], "--regid=65534", *nobody[2:], check=False).returncode, 0)
        group = self.machine.run("id", "-g", "tarn").stdout.strip()
        self.assertIn("sermgr", self.machine.run(*nobody[:2], f"--regid={group}", *nobody[2:]).stdout)

    def settings(self):
        self.tn("call", "68/1", "set", "{s1:'http',u2:8085}")
        self.url = "http://127.0.0.1:8085"
        self.await_page(f"{self.url}/")
        self.password = "a password of one's own"
        self.tn("call", "13/2", "0x20001", "{s1:'admin',s3:'a password of one\\'s own'}")
        self.assertIn("user: 'admin'", self.remote("login"))

    def faults(self):
        before = self.machine.processes("tarn.service")
        os.kill(before["www"], signal.SIGKILL)
        self.await_another("www", before)
        self.assertEqual(self.machine.processes("tarn.service")["tnrun"], before["tnrun"])
        self.await_page(f"{self.url}/")

        os.kill(before["tnrun"], signal.SIGKILL)
        self.await_another("tnrun", before)
        self.await_page(f"{self.url}/")

        unit = self.machine.path("/run/systemd/system/tarn.service.d/impatient.conf")
        unit.parent.mkdir(parents=True)
        unit.write_text("[Service]\nWatchdogSec=3\n")
        self.machine.run("systemctl", "daemon-reload")
        self.machine.run("systemctl", "restart", "tarn")
        self.machine.await_programs(PROGRAMS)
        hung = self.machine.processes("tarn.service")
        os.kill(hung["tnrun"], signal.SIGSTOP)
        self.await_another("tnrun", hung)
        self.await_journal("Watchdog timeout")
        unit.unlink()
        self.machine.run("systemctl", "daemon-reload")
        self.machine.run("systemctl", "restart", "tarn")
        self.await_page(f"{self.url}/")

    def await_another(self, name, before):
        wait_until(lambda: self.machine.processes("tarn.service").get(name, before[name]) != before[name], f"another {name}")
        self.machine.await_programs(PROGRAMS)

    def a_service_of_ones_own(self):
        for command in commands_of("writing-a-service.md"):
            if command.startswith("tn-remote"):
                command = command.replace("tn-remote http://127.0.0.1:8080", f"{TREE}/tools/remote/tn-remote {self.url}")
            self.machine.shell(command, "/tmp", env={"TN_PASSWORD": self.password})
            if " restart " in command:
                self.machine.await_programs(PROGRAMS | {"greeter"})
                self.await_page(f"{self.url}/")
        self.assertEqual(self.remote("call", "100/1", "set", "{s1:'Good evening'}"), "")
        self.assertEqual(self.remote("call", "100/1", "0x20001"), "s1: 'Good evening, world'\n")
        self.assertEqual(self.remote("call", "100/1", "get"), "s1: 'Good evening'\nu2: 3\n")
        self.who_may_set_the_greeting()

    def who_may_set_the_greeting(self):
        """A user who may read and no more."""
        self.tn("call", "13/3", "addObj", "{s1:'readers',ub:0x10}")
        self.tn("call", "13/2", "addObj", "{s1:'reader',s3:'a password to read with',s12:'readers'}")
        arguments = (TREE / "tools/remote/tn-remote", "-u", "reader", self.url, "call", "100/1")
        reader = {"TN_PASSWORD": "a password to read with"}
        self.assertIn("Good evening", self.machine.run(*arguments, "get", env=reader).stdout)
        refused = self.machine.run(*arguments, "set", "{s1:'no'}", env=reader, check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn("not allowed", refused.stdout)

    def the_same_version_again(self):
        before = self.machine.processes("tarn.service")["tnrun"]
        self.install(*NAMES)
        wait_until(lambda: self.machine.processes("tarn.service").get("tnrun", before) != before, "the system to be started anew")
        self.machine.await_programs(PROGRAMS | {"greeter"})
        self.await_page(f"{self.url}/")
        self.machine.path("/usr/lib/tarn/image/bin/greeter").unlink()

    def without_services(self):
        self.machine.run("dpkg", "--remove", "tarn-services")
        self.machine.await_programs({"tnrun", "busd", "www"})
        self.await_journal("tnrun: userd is not installed")
        self.install("tarn-services")
        self.machine.await_programs(PROGRAMS)
        self.await_page(f"{self.url}/")

    def removed_and_installed_again(self):
        self.machine.run("dpkg", "--remove", *NAMES)
        self.assertEqual(self.machine.run("systemctl", "is-active", "tarn", check=False).stdout, "inactive\n")
        self.assertIsNone(self.fetch(f"{self.url}/"))
        for name in ("/usr/lib/tarn", "/usr/share/tarn", "/usr/bin/tn", "/usr/include/tarn"):
            self.assertFalse(self.machine.path(name).exists(), self.machine.run("find", name, check=False).stdout)
        for name in ("/var/lib/tarn/rw/store/users.db", "/var/lib/tarn/rw/store/servers.db", *CONFIGURATION):
            self.assertTrue(self.machine.path(name).exists(), name)
        self.install(*NAMES)
        self.machine.await_programs(PROGRAMS)
        self.await_page(f"{self.url}/")
        self.assertIn("user: 'admin'", self.remote("login"))

    def purged(self):
        self.machine.run("dpkg", "--purge", *NAMES)
        for name in ("/var/lib/tarn", "/etc/tarn", "/usr/lib/tarn", "/usr/share/tarn", "/run/tn", "/lib/systemd/system/tarn.service"):
            self.assertFalse(self.machine.path(name).exists(), name)
        self.assertEqual(self.machine.run("sh", "-c", "dpkg-query -W -f '${Package}\\n' '*tarn*' 2>/dev/null || true").stdout, "")


if __name__ == "__main__":
    if os.geteuid() != 0:
        os.execvp("sudo", ["sudo", "-n", "--preserve-env=TARN_BUILD", sys.executable, *sys.argv])
    unittest.main()
