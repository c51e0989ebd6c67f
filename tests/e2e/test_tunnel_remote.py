"""The command line client of the tunnel: what it prints, its exit status, and one line for each thing that goes wrong."""

import os
import pty
import socket
import subprocess
import threading
import time
import unittest

import harness
import tunnelbox

PROGRAM = harness.TREE / "tools" / "remote" / "tn-remote"


def sample(bus, message):
    """Answers a call; one with command 2 is refused, and one that subscribes is told of three changes."""
    if message.command == 2:
        return bus.reply_error(message, 0x1234, "not today\n")
    bus.reply(message, {("u", 1): 5, ("s", 2): "it's\x1b[31m", ("m", 3): {("U", 4): [1, 2]}, ("a", 5): bytes(15) + b"\1"})
    if message.command == 0xfe0107:
        for number in range(3):
            bus.send(message.sender, None, {("u", 1): number})


class Remote(tunnelbox.TunnelTest):
    def setUp(self):
        super().setUp()
        self.service(24, sample)

    def run_program(self, *arguments, password=tunnelbox.PASSWORD, stdin=""):
        environment = {key: value for key, value in os.environ.items() if key != "TN_PASSWORD"}
        if password is not None:
            environment["TN_PASSWORD"] = password
        return subprocess.run([PROGRAM, *arguments], env=environment, input=stdin, capture_output=True, text=True,
                              timeout=harness.PATIENCE, check=False)

    def expect(self, status, output, *arguments, **keywords):
        done = self.run_program(*arguments, **keywords)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (status, output, ""))

    def expect_trouble(self, status, reason, *arguments, **keywords):
        done = self.run_program(*arguments, **keywords)
        self.assertEqual((done.returncode, done.stdout), (status, ""))
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
        self.assertRegex(done.stderr, f"^tn-remote: {reason}")

    def test_calls(self):
        tree = "u1: 5\ns2: 'it\\'s\\x1b[31m'\nm3:\n  U4: [1,2]\na5: ::1\n"
        self.expect(0, tree, self.url, "call", "24/1", "get")
        self.expect(0, tree, self.url[len("http://"):], "call", "0x18/1", "0xfe0102", "{s1:'x'}")
        line = "{u1:5,s2:'it\\'s\\x1b[31m',m3:{U4:[1,2]},a5:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1]}\n"
        self.expect(0, line, "-j", self.url, "call", "24/1", "get")
        self.expect(0, line, "-jb", self.url, "call", "24/1", "get", "-", stdin="{ s1:'\\0' }\n")
        self.expect(0, "", "-q", self.url, "call", "24/1", "get")
        self.expect(0, "sff000a user: 'someone'\nuff000b policies: 80\nsfe0009 login text: 'admin'\n",
                    "-u", "someone", self.url, "login")

    def test_watch(self):
        done = self.run_program("-jn3", self.url, "watch", "24/1", "getAll")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.splitlines()[1:], ["{u1:0}", "{u1:1}", "{u1:2}"])

    def test_passwords(self):
        path = self.system.folder / "password"
        path.write_text(tunnelbox.PASSWORD + "\nsecond line\n")
        done = self.run_program("-p", path, self.url, "login", password="wrong")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.expect_trouble(1, "wrong user or password$", self.url, "login", password="wrong")
        self.expect_trouble(2, "/no such file: No such file", "-p", "/no such file", self.url, "login")

    def test_the_password_is_asked_for(self):
        ours, theirs = pty.openpty()
        environment = {key: value for key, value in os.environ.items() if key != "TN_PASSWORD"}
        process = subprocess.Popen([PROGRAM, self.url, "login"], env=environment, stdin=theirs, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, start_new_session=True)
        os.close(theirs)
        prompt = b""
        while not prompt.endswith(b": "):
            prompt += process.stderr.read(1)
        self.assertEqual(prompt, b"password of admin: ")
        os.write(ours, tunnelbox.PASSWORD.encode() + b"\n")
        output, errors = process.communicate(timeout=harness.PATIENCE)
        os.close(ours)
        self.assertEqual(process.returncode, 0, errors)
        self.assertIn(b"user: 'admin'", output)

    def test_what_goes_wrong(self):
        self.expect_trouble(1, "error 0x1234: not today\\\\n$", self.url, "call", "24/1", "2")
        self.expect_trouble(3, "error 0xfe000e: unreachable$", self.url, "call", "25/1", "get")
        self.expect_trouble(3, "127.0.0.1 cannot be reached: Connection refused$", f"127.0.0.1:{harness.free_port()}", "login")
        for arguments in ((), (self.url,), (self.url, "dance"), (self.url, "call"), (self.url, "call", "24"),
                          (self.url, "call", "x", "get"), (self.url, "call", "24/1", "gett"), ("-x", self.url, "login"),
                          (self.url, "call", "24/1", "get", "{u1:x}"), (self.url, "call", "24/1", "get", "{}", "{}"),
                          ("-t", "soon", self.url, "login"), ("-n", "3", self.url, "login")):
            self.expect_trouble(2, ".*tn-remote --help tells more", *arguments)
        self.expect_trouble(1, "ftp://x is no address", "ftp://x", "login")

    def test_files(self):
        self.login_service.behave = lambda bus, message: bus.reply(message, tunnelbox.grant(0xffffffff & ~0x4000))
        folder = self.system.folder
        content = os.urandom(300000)
        (folder / "data").write_bytes(content)
        self.expect(0, "", self.url, "put", folder / "data")
        self.expect(0, "", self.url, "upload", folder / "data", "folder/by form")
        for name in ("data", "folder/by form"):
            self.assertEqual(self.system.path("/rw/disk/" + name).read_bytes(), content)
            self.expect(0, "", self.url, "get", name, folder / "back")
            self.assertEqual((folder / "back").read_bytes(), content)
        self.system.write("/rw/disk/text", "a text\n")
        self.expect(0, "a text\n", self.url, "get", "text", "-")
        self.expect_trouble(1, "there is no such file$", self.url, "get", "none", folder / "none")
        self.expect_trouble(1, "not allowed$", self.url, "get", "x.key", folder / "none")
        self.expect_trouble(1, "not allowed$", self.url, "put", folder / "data", "../x")
        self.expect_trouble(1, "not allowed$", self.url, "upload", folder / "data", "../x")
        self.expect_trouble(2, ".*No such file", self.url, "put", "/no such file")
        self.expect_trouble(2, ".*No such file", self.url, "get", "data", "/no such folder/x")
        self.assertEqual([name for name in os.listdir(folder) if name.endswith(".part") or name == "none"], [])

    def test_help(self):
        done = self.run_program("--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn("tn-remote URL call PATH COMMAND [MESSAGE]", done.stdout)

    def test_a_service_that_says_nothing(self):
        self.service(25, lambda bus, message: None)
        begun = time.monotonic()
        self.expect_trouble(3, "no answer within 1 s$", "-t", "1", self.url, "call", "25/1", "get")
        self.assertGreaterEqual(time.monotonic() - begun, 1)


class NoTunnel(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a"}

    def test_it_is_told(self):
        port = self.system.serve("http")
        done = subprocess.run([PROGRAM, f"127.0.0.1:{port}", "login"], env={**os.environ, "TN_PASSWORD": "x"},
                              capture_output=True, text=True, timeout=harness.PATIENCE, check=False)
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stderr, "^tn-remote: .*tunnel.*\n$")


class KeptConnections(unittest.TestCase):
    """A server that answers once on a connection, and hangs up when it is asked again."""

    def setUp(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(self.listener.close)
        self.asked = []
        threading.Thread(target=self.serve, daemon=True).start()
        self.tunnel = tunnelbox.tunnel.Tunnel(f"http://127.0.0.1:{self.listener.getsockname()[1]}")
        self.addCleanup(self.tunnel.close)

    def serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.answer, args=(connection,), daemon=True).start()

    def answer(self, connection):
        with connection:
            self.asked.append(connection.recv(65536))
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")
            connection.recv(65536)

    def test_a_request_that_meets_the_end_of_a_kept_connection_is_made_again(self):
        for _ in range(2):
            self.assertEqual(self.tunnel.request("POST", "/x", b"body")[2], b"ok")
        self.assertEqual([request[:6] for request in self.asked], [b"POST /"] * 2)

    def test_one_whose_body_cannot_be_read_again_has_a_connection_of_its_own(self):
        self.tunnel.request("GET", "/x")
        self.assertEqual(self.tunnel.request("POST", "/x", iter([b"body"]), {"Content-Length": "4"})[2], b"ok")
        self.assertEqual([request[:6] for request in self.asked], [b"GET /x", b"POST /"])


if __name__ == "__main__":
    unittest.main()
