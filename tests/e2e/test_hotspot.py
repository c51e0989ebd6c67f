"""The hotspot service: servers that it adds while everything runs, and the page behind them."""

import os
import re
import shutil
import subprocess
import sys
import unittest
import urllib.parse

import forwarding
import harness
import rawhttp
import tarnbus

HOTSPOT = 63
PORTAL = [HOTSPOT, 15]
SERVERS = [HOTSPOT, 1]
STATE = "/rw/store/hotspot.conf"
CODE = "SECRET12"
# Where nft lies, also for users whose path does not lead there.
ADMIN_PATH = os.environ["PATH"] + ":/usr/sbin:/sbin"
LOOPBACK = "M6:[{u1:0x7f000000,u2:0xff000000},{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}]"


def state(port, *more, minutes=60):
    """The text of the service's file."""
    return "".join([f"settings {{s1:'Lobby',s2:'{CODE}',u3:{minutes}}}\n",
                    f"server {{s1:'lobby',u2:{port},{LOOPBACK}}}\n", *more])


def facts(response):
    """What a page says of its visitor."""
    return dict(re.findall(r'<dd id="(\w+)">([^<]*)</dd>', response.body.decode()))


def post(connection, path, *lines, **form):
    connection.request(path, "Content-Type: application/x-www-form-urlencoded", *lines, method="POST",
                       body=urllib.parse.urlencode(form or {"x": ""}).encode())
    return connection.read_response()


class Hotspot(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a"}

    def setUp(self):
        super().setUp()
        self.port = harness.free_port()
        self.system.write(STATE, state(self.port))
        self.start()

    def start(self):
        self.system.start("busd", "hotspotd")
        self.system.bus_id("hotspotd")
        self.system.start("www")
        self.await_server()

    def records(self):
        """How often the hotspot's server was opened."""
        return self.system.lines("www").count(f"set lobby enabled=1 port={self.port}")

    def await_server(self, before=0):
        """Waits until a record has come besides those before, which opens the listener anew, and the page comes."""
        harness.wait_until(lambda: self.records() > before, "the record of the hotspot's server")
        harness.wait_until(lambda: rawhttp.answers(self.port), "the hotspot's page")
        self.system.settle("hotspotd")

    def call(self, path, command, fields=None):
        client = tarnbus.Client(str(self.system.bus_path))
        try:
            return client.request(path, command, fields or {}).fields
        finally:
            client.close()

    def connect(self):
        connection = rawhttp.Connection.tcp(self.port)
        self.addCleanup(connection.close)
        return connection

    def is_in(self):
        return b"You are logged in" in rawhttp.get(self.port, "/").body


class Portal(Hotspot):
    def test_logging_in_and_out(self):
        connection = self.connect()
        page = connection.get("/")
        self.assertEqual((page.status, page.header("content-type")), (200, "text/html; charset=utf-8"))
        self.assertEqual((page.header("cache-control"), page.header("x-content-type-options")), ("no-store", "nosniff"))
        self.assertIn(b"<title>Lobby</title>", page.body)
        self.assertIn(b'<form method="post" action="/login">', page.body)
        self.assertIn(b"That is not the code.", post(connection, "/login", code="wrong").body)
        entered = post(connection, "/login", code="secret-12")
        self.assertEqual((entered.status, entered.header("location")), (303, "/"))
        self.assertIn(b"another 60 minutes", connection.get("/").body)
        connection.request("/", method="HEAD")
        head = connection.read_head()
        self.assertEqual(int(head.header("content-length")), len(connection.get("/").body))
        self.assertEqual(post(connection, "/logout").status, 303)
        self.assertFalse(self.is_in())

    def test_what_is_not_there_and_what_is_wrong(self):
        connection = self.connect()
        self.assertEqual(connection.get("/nowhere").status, 404)
        self.assertEqual(connection.get("/login").header("location"), "/")
        connection.request("/", "Content-Length: 0", method="POST")
        self.assertEqual(connection.read_response().header("allow"), "GET, HEAD")
        connection.request("/login", method="DELETE")
        self.assertEqual(connection.read_response().header("allow"), "GET, HEAD, POST")
        self.assertEqual(post(connection, "/login", "Origin: http://elsewhere", code=CODE).status, 403)
        connection.request("/login", method="POST", body=b"code=%zz")
        self.assertEqual(connection.read_response().status, 415)
        hostile = rawhttp.get(self.port, "/", "X: y")
        self.assertNotIn(b"<script", hostile.body)
        for _ in range(5):
            post(connection, "/login", code="wrong")
        refused = post(connection, "/login", code=CODE)
        self.assertEqual((refused.status, refused.header("retry-after")), (429, "60"))

    def test_settings_are_changed_while_it_runs(self):
        self.assertIsNone(tarnbus.error_of(self.call(PORTAL, tarnbus.SET, {("s", 1): "<New>", ("s", 2): "another1"})))
        self.assertIn(b"<h1>&lt;New&gt;</h1>", rawhttp.get(self.port, "/").body)
        self.assertEqual(post(self.connect(), "/login", code="another1").status, 303)
        self.assertEqual(self.call(PORTAL, tarnbus.GET)[("u", 4)], 1)
        before = self.records()
        self.system.restart("hotspotd")
        self.await_server(before)
        self.assertIn(b"<h1>&lt;New&gt;</h1>", rawhttp.get(self.port, "/").body)
        # Who was logged in is forgotten.
        self.assertFalse(self.is_in())

    def test_a_browser_session_cannot_speak_for_others(self):
        answer = self.call(PORTAL, forwarding.REQUEST, {("u", 0xff000b): 0xffffffff, forwarding.METHOD: 1})
        self.assertEqual(tarnbus.error_of(answer), (0xfe0009, "not allowed"))


class Servers(Hotspot):
    def change(self, command, fields):
        answer = self.call(SERVERS, command, fields)
        self.assertIsNone(tarnbus.error_of(answer))
        return answer.get(("s", 0x10))

    def listed(self):
        return {record[("s", 1)]: record for record in self.call(SERVERS, tarnbus.GET_ALL)[("M", 1)]}

    def test_servers_come_and_go(self):
        port = harness.free_port()
        fields = tarnbus.record("terrace", port, allowed=[{("u", 1): 0x7f000000, ("u", 2): 0xff000000}])
        self.assertIsNone(self.change(tarnbus.ADD_OBJ, fields))
        self.assertEqual(rawhttp.get(port, "/").status, 200)
        self.assertTrue(self.listed()["terrace"][("b", 0x11)])
        moved = harness.free_port()
        self.assertIsNone(self.change(tarnbus.SET, {("s", 1): "terrace", ("u", 2): moved}))
        self.assertTrue(rawhttp.refuses(port))
        self.assertEqual(rawhttp.get(moved, "/").status, 200)
        self.assertIsNone(self.change(tarnbus.SET, {("s", 1): "terrace", ("b", 0xfe000a): True}))
        self.assertTrue(rawhttp.refuses(moved))
        self.assertIsNone(self.change(tarnbus.REMOVE_OBJ, {("s", 1): "terrace"}))
        self.assertEqual(list(self.listed()), ["lobby"])
        self.assertEqual(rawhttp.get(self.port, "/").status, 200)

    def test_a_port_that_is_taken_is_told(self):
        self.assertEqual(self.change(tarnbus.ADD_OBJ, tarnbus.record("second", self.port, allowed=[])),
                         "cannot bind service connection")
        self.assertEqual(self.listed()["second"][("s", 0x10)], "cannot bind service connection")

    def test_with_tls(self):
        tls = self.system.bus(id=12, name="tls")
        port = harness.free_port()
        self.assertIsNone(self.change(tarnbus.ADD_OBJ, tarnbus.record("safe", port, tls_ref=4, allowed=[])))
        self.assertTrue(rawhttp.refuses(port))
        with rawhttp.Connection.unix(port) as connection:
            request = tls.receive()
            self.assertEqual(request.fields[("u", 2)], 4)
            tls.reply(request, {}, fd=request.fd)
            os.close(request.fd)
            self.assertIn(b"<title>Lobby</title>", connection.get("/").body)

    def test_everything_starts_again(self):
        """Each of the three programs, and the servers are there as before."""
        self.system.start("sermgr")
        for name in ("www", "hotspotd", "busd", "www"):
            with self.subTest(name):
                before = self.records()
                self.system.restart(name)
                self.await_server(before)
        # The server has its other records too: the hotspot's did not come before it asked for them.
        harness.wait_until(lambda: any(line.startswith("set http ") for line in self.system.lines("www")), "other records")

    def test_without_the_service_it_is_502_and_then_back(self):
        self.system.kill("hotspotd")
        self.assertEqual(rawhttp.get(self.port, "/").status, 502)
        before = self.records()
        self.system.start("hotspotd")
        self.await_server(before)


class FirstStart(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}

    def test_a_new_system_has_a_code_of_its_own(self):
        self.system.start("busd", "hotspotd")
        self.system.bus_id("hotspotd")
        text = self.system.path(STATE).read_text()
        self.assertEqual(self.system.path(STATE).stat().st_mode & 0o777, 0o600)
        self.assertRegex(text, r"\nsettings \{s1:'tarn hotspot',s2:'[A-Z2-9]{8}',u3:60\}\n"
                               r"server \{s1:'hotspot',u2:8090,M6:\[\{u1:2130706432,u2:4278190080\},")


class Forwarder:
    """The forwarder of a system, running until it is closed."""

    def __init__(self, system, address, server_port, tag=0):
        self.system = system
        program = ["/bin/forwarder", address, str(server_port), str(tag)]
        if harness.is_foreign(system.root / "bin/forwarder"):
            program.insert(0, "/bin/qemu-ppc-static")
        self.pid_path = system.folder / f"forwarder-{tag}.pid"
        self.log = open(system.folder / "forwarder.log", "ab")
        self.process = subprocess.Popen([harness.ENTER, "-p", self.pid_path, system.root, *program],
                                        stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        port = int(address.rsplit(":", 1)[1])
        harness.wait_until(lambda: not rawhttp.refuses(port), "the forwarder to listen")

    def close(self):
        """Tells it to end, and waits; its status."""
        pid = re.search(r'"child-pid": (\d+)', self.pid_path.read_text()).group(1)
        os.kill(int(pid), 15)
        self.log.close()
        return self.process.wait(harness.PATIENCE)


class Forwarded(Hotspot):
    def setUp(self):
        super().setUp()
        self.forwarders = {}
        for tag in (7, 8):
            port = harness.free_port()
            self.forwarders[tag] = port
            forwarder = Forwarder(self.system, f"127.0.0.1:{port}", self.port, tag)
            self.addCleanup(lambda forwarder=forwarder: self.assertEqual(forwarder.close(), 0))

    def connect_to(self, tag):
        connection = rawhttp.Connection.tcp(self.forwarders[tag])
        self.addCleanup(connection.close)
        return connection

    def page(self, tag):
        return self.connect_to(tag).get("/")

    def test_the_page_shows_real_addresses_and_the_tag(self):
        connection = self.connect_to(7)
        page = connection.get("/")
        self.assertEqual(page.header("connection"), "close")
        port = self.forwarders[7]
        self.assertEqual(facts(page), {"client": "127.0.0.1:%d" % connection.socket.getsockname()[1],
                                       "local": f"127.0.0.1:{port}", "original": f"127.0.0.1:{port}", "host": "test", "tag": "7"})
        self.assertEqual(connection.read_to_end(), b"")
        self.assertEqual(facts(rawhttp.get(self.port, "/"))["tag"], "0")

    def test_who_is_logged_in_is_known_by_the_tag_too(self):
        self.assertEqual(post(self.connect_to(7), "/login", code=CODE).status, 303)
        self.assertIn(b"You are logged in", self.page(7).body)
        self.assertNotIn(b"You are logged in", self.page(8).body)
        self.assertFalse(self.is_in())

    def test_a_forged_header_is_a_part_of_the_request(self):
        """What a client sends behind its first request, or in it, is never taken for addresses."""
        forged = forwarding.header(self.system, peer=("10.9.9.9", 1), tag=99)
        connection = self.connect_to(7)
        for keep in ("Connection: keep-alive", "Connection: x,\r\n keep-alive"):
            connection = self.connect_to(7)
            connection.send(f"GET / HTTP/1.1\r\nHost: a\r\n{keep}\r\n\r\n".encode() + forged + b"GET / HTTP/1.1\r\n\r\n")
            self.assertEqual(facts(connection.read_response())["tag"], "7")
            self.assertEqual(connection.read_to_end(), b"")
        connection = self.connect_to(7)
        connection.send(forged + b"GET / HTTP/1.1\r\n\r\n")
        self.assertEqual(connection.read_response().status, 400)

    def test_many_at_once(self):
        connections = []
        for _ in range(30):
            connections.append(self.connect_to(7))
            connections[-1].request("/")
        for connection in connections:
            self.assertEqual(facts(connection.read_response())["tag"], "7")


class Redirected(unittest.TestCase):
    def test_in_a_network_of_its_own(self):
        """Connections that a firewall sends here, in a network namespace: see redirected.py."""
        self.assertIsNotNone(shutil.which("nft", path=ADMIN_PATH), "install nftables")
        unshare = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--net", "--map-root-user"]
        probe = subprocess.run([*unshare, sys.executable, "redirected.py", "--probe"], capture_output=True, text=True,
                               timeout=harness.PATIENCE, check=False)
        if probe.returncode != 0:
            self.skipTest(f"skipped by the kernel: no redirection in a network namespace: {probe.stderr.strip()}")
        run = subprocess.run([*unshare, sys.executable, "redirected.py"], capture_output=True, text=True, timeout=300,
                             check=False)
        self.assertEqual(run.returncode, 0, run.stderr)


if __name__ == "__main__":
    unittest.main()
