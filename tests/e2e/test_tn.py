"""The bus command line against the real services: what it shows, changes, refuses, and how it ends."""

import contextlib
import fcntl
import json
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time
import unittest

import harness
import rawhttp

# The document of the server that most tests have.
SERVER = '<?xml version="1.0"?>\n<www><server name="http"><servlet type="dir" path="/" root="/home/web"/></server></www>\n'


class CommandLineTest(harness.SystemTest):
    documents = {"a.xml": SERVER}
    web = {"hello.txt": b"hello"}

    def command(self, *arguments):
        prefix = ["/bin/qemu-ppc-static"] if harness.is_foreign(self.system.root / "bin/tn") else []
        return [str(harness.ENTER), str(self.system.root), *prefix, "/bin/tn", *arguments]

    def tn(self, *arguments, status=0, text=None):
        """What tn prints on standard output; with another status than 0, what it says on standard error."""
        result = subprocess.run(self.command(*arguments), input=text or "", capture_output=True, text=True,
                                timeout=harness.PATIENCE, check=False)
        self.assertEqual(result.returncode, status, result.stdout + result.stderr)
        return result.stderr if status else result.stdout

    def start_tn(self, *arguments):
        process = subprocess.Popen(self.command(*arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        process.kill()
        process.communicate()


class Services(CommandLineTest):
    def setUp(self):
        super().setUp()
        self.system.start("busd")
        for name in ("sermgr", "userd", "www"):
            self.system.start(name)
            self.system.bus_id(name)
        # The records that www asks for, of which the second is that of a server which it does not have.
        self.system.wait_for_line("www", "failed to set server https: unknown server")
        self.system.settle("sermgr")

    def test_a_server_is_moved_and_turned_off(self):
        port = harness.free_port()
        self.tn("servers", "set", "http", f"port={port}", "allowed=127.0.0.0/8,::1")
        self.assertEqual(rawhttp.get(port, "/hello.txt").body, b"hello")
        harness.wait_until(lambda: re.search(rf"^http +on +{port} +no +127\.0\.0\.0/8, ::1/128$", self.tn("servers"),
                                             re.MULTILINE), "the server to be listed")
        record = json.loads(self.tn("-j", "servers").splitlines()[0])
        self.assertEqual((record["name"], record["port"], record["allowed"][1]), ("http", port, {"ipv6": "::1", "length": 128}))
        self.assertIn(f"u2 port: {port}\n", self.tn("call", "sermgr/servers", "get", "name=http"))
        self.tn("servers", "set", "http", "enabled=no")
        self.assertTrue(rawhttp.refuses(port))
        self.assertRegex(self.tn("servers"), r"(?m)^http +off ")

    def test_a_server_that_cannot_be_is_told(self):
        error = self.tn("servers", "add", "ghost", f"port={harness.free_port()}", status=1)
        self.assertEqual(error, "tn: the record is stored, but not applied: no such service\n")
        self.assertIn("no such service", self.tn("servers"))
        self.tn("servers", "remove", "ghost")
        self.assertEqual(self.tn("servers", "remove", "ghost", status=1), "tn: error 0xfe0006: no such service\n")
        self.assertIn("port needs a number", self.tn("servers", "set", "http", "port=99999", status=2))

    def test_users_and_their_passwords(self):
        self.tn("users", "add", "bob", "full-name=Bob B", "group=users", text="correct horse\n")
        self.assertRegex(self.tn("users"), r"(?m)^bob +Bob B +users +enabled +hidden$")
        self.log_in("bob", "correct horse")
        self.tn("users", "password", "bob", text="battery staple\n")
        self.log_in("bob", "battery staple")
        self.tn("users", "set", "bob", "disabled=yes")
        self.assertRegex(self.tn("users"), r"(?m)^bob .* disabled ")
        self.tn("users", "remove", "bob")
        self.assertNotIn("bob", self.tn("users"))
        self.assertEqual(self.tn("users", "remove", "bob", status=1), "tn: error 0xfe0006: no such user\n")
        self.assertIn("error 0xfe0010", self.tn("users", "add", "eve", text="short\n", status=1))

    def log_in(self, user, password):
        self.tn("call", "userd/login", "login", f"user={user}", f"password={password}")

    def test_groups(self):
        self.tn("users", "groups", "add", "watchers", "policies=read,read-files")
        self.assertRegex(self.tn("users", "groups"), r"(?m)^watchers +0 +default +read, read-files$")
        self.tn("users", "groups", "set", "watchers", "policies=read")
        self.assertRegex(self.tn("users", "groups"), r"(?m)^watchers +0 +default +read$")
        self.tn("users", "groups", "remove", "watchers")
        self.assertNotIn("watchers", self.tn("users", "groups"))

    def test_the_status_counts(self):
        port = self.system.serve("http")
        before = self.counters()
        self.assertEqual(rawhttp.get(port, "/hello.txt").status, 200)
        self.assertEqual(rawhttp.get(port, "/none").status, 404)
        # What is counted may be told a moment after the answer has been read.
        harness.wait_until(lambda: self.counters()["status-4xx"] > before["status-4xx"], "the answers to be counted")
        after = self.counters()
        self.assertEqual(after["accepted"], before["accepted"] + 2)
        self.assertEqual(after["status-2xx"], before["status-2xx"] + 1)
        shown = self.system.tn("status")
        self.assertEqual(shown.returncode, 0)
        self.assertRegex(shown.stdout, rf"(?m)^http +{port} ")
        self.assertRegex(shown.stdout, r"(?m)^ *68 +sermgr ")
        self.assertIn("tn: tnrun tells nothing: error 0xfe000e: tnrun is not on the bus\n", shown.stderr)

    def counters(self):
        servers = json.loads(self.system.tn("status", "-j").stdout)["web-server"]["servers"]
        return next(server for server in servers if server["name"] == "http")

    def test_a_service_that_is_not_there_is_named(self):
        self.system.stop("sermgr")
        self.system.stop("www")
        self.assertEqual(self.tn("servers", status=3), "tn: error 0xfe000e: sermgr is not on the bus\n")
        self.assertEqual(self.tn("sessions", status=3), "tn: error 0xfe000e: www is not on the bus\n")
        self.assertEqual(self.tn("log", status=3), "tn: error 0xfe000e: tnrun is not on the bus\n")
        self.assertEqual(self.tn("call", "mine/1", "get", status=3), "tn: error 0xfe000e: mine is not on the bus\n")

    def test_what_services_have_is_completed(self):
        self.assertEqual(self.tn("complete", "--", "servers", "set", "ht").splitlines(), ["http", "https"])
        self.assertEqual(self.tn("complete", "--", "users", "remove", "").splitlines(), ["admin"])
        self.assertIn("sermgr", self.tn("complete", "--", "monitor", "-p", "").splitlines())


class Monitor(CommandLineTest):
    def setUp(self):
        super().setUp()
        self.system.start("busd", "sermgr")
        self.system.bus_id("sermgr")

    def await_monitor(self, process):
        """Causes frames until the monitor has shown one, which is returned."""
        def shown():
            self.tn("call", "sermgr/servers", "list")
            return select.select([process.stdout], [], [], 0.2)[0]
        harness.wait_until(shown, "the monitor to show a frame")
        return process.stdout.readline()

    def test_shows_what_passes_the_filters(self):
        process = self.start_tn("monitor", "--to", "sermgr", "-c", "getAll", "-n", "1", "-j")
        frame = json.loads(self.await_monitor(process))
        self.assertEqual((frame["to"], frame["message"]["destination"], frame["message"]["command"]), (68, [1], 0xfe0107))
        self.assertEqual(process.wait(harness.PATIENCE), 0)

    def test_names_fields_of_answers(self):
        process = self.start_tn("monitor", "--path", "sermgr/servers", "-k", "reply", "-n", "2")
        # The first answer may be that of a request which was there before the monitor. Whoever asks next asks when that
        # answer has come, so the second one's request was seen.
        first = self.await_monitor(process)
        self.tn("call", "sermgr/servers", "list")
        shown = (first + process.stdout.read()).splitlines(keepends=True)
        heads = [number for number, line in enumerate(shown) if " 68/1 (sermgr) -> " in line]
        self.assertEqual((len(heads), heads[0]), (2, 0), shown)
        self.assertRegex(shown[heads[1]], r" 68/1 \(sermgr\) -> \d+/1 (\(tn\) )?reply getAll, \d+ bytes\n")
        self.assertIn("s1 name: 'http'", "".join(shown[heads[1]:]))
        self.assertEqual(process.wait(harness.PATIENCE), 0)

    def test_ends_with_the_broker(self):
        process = self.start_tn("monitor")
        self.await_monitor(process)
        self.system.kill("busd")
        self.assertIn("tn: the bus is gone\n", process.communicate(timeout=harness.PATIENCE)[1])
        self.assertEqual(process.returncode, 3)

    def test_ends_quietly_when_its_reader_has_gone(self):
        process = self.start_tn("monitor", "-l")
        self.await_monitor(process)
        process.stdout.close()
        def ended():
            self.tn("call", "sermgr/servers", "list")
            return process.poll() is not None
        harness.wait_until(ended, "the monitor to end")
        self.assertEqual((process.returncode, process.stderr.read()), (0, ""))

    def test_a_call_ends_when_the_broker_goes_away(self):
        # A program that never answers.
        silent = self.system.bus(name="silent")
        process = self.start_tn("-t", "60000", "call", "silent/1", "get")
        silent.receive()
        self.system.kill("busd")
        self.assertEqual(process.communicate(timeout=harness.PATIENCE), ("", "tn: error 0xfe000e: unreachable\n"))
        self.assertEqual(process.returncode, 3)

    def test_without_a_broker(self):
        self.system.stop("busd")
        for verb in ("status", "servers", "users", "sessions", "log", "list", "stats", "monitor"):
            self.assertIn("tn: cannot reach the bus at /run/tn/bus: ", self.tn(verb, status=3))


class Terminal(CommandLineTest):
    """What depends on a terminal: colours, its width, passwords that are not shown."""

    def setUp(self):
        super().setUp()
        self.system.start("busd", "sermgr", "userd")
        for name in ("sermgr", "userd"):
            self.system.bus_id(name)

    def open(self, columns, *arguments, **environment):
        """tn with a terminal of that width; the terminal's other end, and the process."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 25, columns, 0, 0))
        process = subprocess.Popen(self.command(*arguments), stdin=slave, stdout=slave, stderr=slave,
                                   env={**os.environ, "TERM": "xterm", **environment}, start_new_session=True)
        os.close(slave)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return master, process

    def read(self, master, process, until=None):
        """What the terminal is shown until a text comes, or to the end."""
        shown = b""
        deadline = time.monotonic() + harness.PATIENCE
        while until is None or until not in shown:
            self.assertLess(time.monotonic(), deadline, shown)
            if not select.select([master], [], [], 0.1)[0]:
                continue
            try:
                block = os.read(master, 4096)
            except OSError:
                block = b""
            if not block:
                break
            shown += block
        if until is None:
            process.wait(harness.PATIENCE)
        return shown.replace(b"\r\n", b"\n").decode()

    def test_headings_stand_out_on_a_terminal_alone(self):
        self.assertIn("\x1b[1mname ", self.read(*self.open(100, "servers")))
        self.assertNotIn("\x1b", self.read(*self.open(100, "servers", TERM="dumb")))
        self.assertNotIn("\x1b", self.tn("servers"))

    def test_tables_fit_the_terminal(self):
        self.tn("users", "add", "bob", "full-name=" + "x" * 60, text="correct horse\n")
        for columns in (60, 70):
            lines = re.sub(r"\x1b\[\d*m", "", self.read(*self.open(columns, "users"))).splitlines()
            self.assertLessEqual(max(map(len, lines)), columns)
            self.assertRegex(lines[-1], r"^bob +x+\.\.\. +users +enabled +hidden$")
        self.assertIn("full name   " + "x" * 60, re.sub(r"\x1b\[\d*m", "", self.read(*self.open(20, "users"))))

    def test_a_password_is_asked_for_twice_and_not_shown(self):
        master, process = self.open(80, "users", "add", "bob")
        self.read(master, process, until=b"new password: ")
        os.write(master, b"correct horse\n")
        self.read(master, process, until=b"once more: ")
        os.write(master, b"correct horse\n")
        self.assertNotIn("correct", self.read(master, process))
        self.assertEqual(process.returncode, 0)
        self.tn("call", "userd/login", "login", "user=bob", "password=correct horse")

    def test_passwords_that_differ_are_refused(self):
        master, process = self.open(80, "users", "password", "admin")
        self.read(master, process, until=b"new password: ")
        os.write(master, b"correct horse\n")
        self.read(master, process, until=b"once more: ")
        os.write(master, b"battery staple\n")
        self.assertIn("tn: the passwords differ", self.read(master, process))
        self.assertEqual(process.returncode, 2)


class Documents(CommandLineTest):
    """tn check needs no bus."""

    def test_says_where_what_is_wrong(self):
        self.system.write("/tarn/etc/www/b.xml", '<www>\n  <server name="http">\n    <servlet type="dri" path="/a"/>\n'
                          "  </server>\n</www>\n")
        self.system.write("/tarn/etc/www/c.xml", "<www>\n  <server>\n")
        result = self.system.tn("check")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, (
            '/tarn/etc/www/b.xml:3:14: error: attribute type is "dri"; expected one of dir, pubdir, index, varnox, '
            "jsproxy, remote\n"
            "/tarn/etc/www/c.xml:3:1: error: expected end tag </server>\n"
            "3 documents, 1 servers, 2 errors, 0 warnings\n"))
        self.assertEqual(self.tn("check", "/tarn/etc/www/a.xml"), "1 documents, 1 servers, 0 errors, 0 warnings\n")

    def test_finds_the_documents_of_an_installed_system(self):
        self.system.path("/etc/tarn").mkdir(parents=True)
        self.system.path("/tarn/etc/www").rename(self.system.path("/etc/tarn/www"))
        self.assertEqual(self.tn("check"), "1 documents, 1 servers, 0 errors, 0 warnings\n")


class Completion(CommandLineTest):
    """The functions for the shells, by a tn that needs no bus for it."""

    FOLDER = harness.TREE / "tools/completion"

    def setUp(self):
        super().setUp()
        folder = self.system.folder / "bin"
        folder.mkdir()
        script = folder / "tn"
        command = " ".join(f"'{word}'" for word in self.command())
        script.write_text(f'#!/bin/sh\nexec {command} "$@"\n')
        script.chmod(0o755)
        self.environment = {**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"}

    def bash(self, *words):
        """The candidates of bash for the last of the words."""
        line = " ".join(words)
        parts = " ".join(f"'{word}'" for word in words)
        script = (f". '{self.FOLDER}/tn.bash'; COMP_WORDS=({parts}); COMP_CWORD={len(words) - 1}; COMP_LINE='{line}'; "
                  "compopt() { echo \"compopt $*\" >&2; }; _tn; printf '%s\\n' \"${COMPREPLY[@]}\"")
        result = subprocess.run(["bash", "--norc", "-c", script], capture_output=True, text=True, env=self.environment,
                                cwd=self.system.folder, timeout=harness.PATIENCE, check=False)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout.split(), result.stderr

    def test_bash(self):
        self.assertEqual(self.bash("tn", "sess"), (["sessions"], ""))
        self.assertEqual(self.bash("tn", "call", "userd/"),
                         (["userd/users", "userd/groups", "userd/login", "userd/start-page"], ""))
        self.assertEqual(self.bash("tn", "call", "sermgr/servers", "set", "po"), (["port="], "compopt -o nospace\n"))
        # Bash takes FIELD=VALUE apart.
        self.assertEqual(self.bash("tn", "call", "userd/users", "setObj", "hidden", "=", ""), (["yes", "no"], ""))
        self.assertEqual(self.bash("tn", "call", "userd/users", "setObj", "hidden", "=", "y"), (["yes"], ""))
        self.assertEqual(self.bash("tn", "servers", "set", "http", "enabled", "="), (["yes", "no"], ""))
        self.assertEqual(self.bash("tn", "monitor", "-k", "bo"), (["bounced"], ""))
        (self.system.folder / "mine.xml").write_text("")
        self.assertEqual(self.bash("tn", "check", "mi"), (["mine.xml"], "compopt -o filenames\n"))

    def type_in(self, arguments, ready, keys, until):
        """What an interactive shell shows when keys are typed."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 25, 120, 0, 0))
        process = subprocess.Popen(arguments, stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
                                   cwd=self.system.folder,
                                   env={**self.environment, "TERM": "xterm", "HOME": str(self.system.folder)})
        os.close(slave)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.await_text(master, ready)
        os.write(master, keys)
        self.await_text(master, until)

    def await_text(self, master, text):
        shown = b""
        deadline = time.monotonic() + harness.PATIENCE
        while text not in shown:
            self.assertLess(time.monotonic(), deadline, shown)
            if select.select([master], [], [], 0.1)[0]:
                with contextlib.suppress(OSError):
                    shown += os.read(master, 4096)

    def test_bash_with_its_own_keys(self):
        (self.system.folder / "rc").write_text(
            f". '{self.FOLDER}/tn.bash'\nPS1='ready> '\ntrap 'echo \"runs: $BASH_COMMAND\"' DEBUG\n")
        self.type_in(["bash", "--noprofile", "--rcfile", "rc", "-i"], b"ready> ",
                     b"tn call sermgr/ser\tset disabled=y\t\n", b"runs: tn call sermgr/servers set disabled=yes")

    def test_zsh_with_its_own_keys(self):
        (self.system.folder / ".zshrc").write_text(
            f"fpath=('{self.FOLDER}' $fpath)\nautoload -U compinit\ncompinit -D -u\nPS1='ready> '\n"
            "preexec() { print -r -- \"runs: $1\" }\n")
        self.type_in(["zsh", "-i"], b"ready> ", b"tn call sermgr/ser\tset po\t8081\n",
                     b"runs: tn call sermgr/servers set port=8081")


if __name__ == "__main__":
    unittest.main()
