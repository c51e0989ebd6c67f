"""Requests that are forwarded over the bus: what the service is told, what becomes of its answers, good and bad."""

import os
import select
import socket
import threading
import unittest

import forwarding
import harness
import rawhttp
import tarnbus
from forwarding import (BODY, CACHEABLE, LINES, LOCAL, LOCAL_LISTENER, LOCAL_PORT, METHOD, ORIGINAL, ORIGINAL_PORT, PATH,
                        PEER, PEER_PORT, QUERY, STATUS, STATUS_TEXT, TAG, TARGET, TLS, VERSION)

SERVICE, NOBODY, OFTEN = 200, 201, 202
DOCUMENTS = {"a.xml": '<www><server name="http"><servlet type="dir" path="/" root="/home/web"/>'
                      f'<servlet type="remote" path="/r" target="{SERVICE},7"/>'
                      f'<servlet type="remote" path="/nobody" target="{NOBODY},7"/>'
                      f'<servlet type="remote" path="/often" target="{OFTEN},7"/>'
                      '<servlet type="remote" path="/nowhere"/></server></www>'}


class Remote(unittest.TestCase):
    """One system and one service for all tests of a class, each of which answers all that it asks for."""

    @classmethod
    def setUpClass(cls):
        cls.system = harness.System(DOCUMENTS, {"a.txt": b"a"})
        cls.addClassCleanup(cls.system.close)
        cls.port = cls.system.serve("http")
        cls.service = cls.system.bus(id=SERVICE, name="service")

    def connect(self):
        connection = rawhttp.Connection.tcp(self.port)
        self.addCleanup(connection.close)
        return connection

    def forwarded(self, *arguments, **keywords):
        """Sends a request; the connection, and what the service is given."""
        connection = self.connect()
        connection.request(*arguments, **keywords)
        return connection, self.service.receive()

    def answered(self, fields, method="GET"):
        """The response to a request that the service answers like this."""
        payload = tarnbus.encode(fields)  # which may take its time, before that of the request begins
        connection, request = self.forwarded("/r", method=method)
        head = tarnbus.encode({tarnbus.DESTINATION: request.sender[1:], tarnbus.IS_REPLY: True,
                               tarnbus.REQUEST_NUMBER: request.fields[tarnbus.REQUEST_NUMBER]})
        self.service.send_payload(request.peer, head + payload[len(tarnbus.encode({})):])
        return connection.read_response() if method != "HEAD" else connection.read_head()


class Requests(Remote):
    def test_a_get_is_forwarded_whole(self):
        connection, request = self.forwarded("/r/a/b?c=d%20e", "X-Tab: a\tb", "cookie:  c ")
        self.assertEqual(request.command, forwarding.REQUEST)
        self.assertEqual(request.fields[tarnbus.DESTINATION], [7])
        fields = request.fields
        self.assertEqual([fields[key] for key in (METHOD, TARGET, QUERY, VERSION, PATH)],
                         [1, "/r/a/b?c=d%20e", "c=d%20e", 257, "a/b"])
        self.assertEqual(fields[LINES], ["Host: test", "X-Tab: a\tb", "cookie: c"])
        self.assertEqual((fields[PEER], fields[PEER_PORT]),
                         (forwarding.mapped("127.0.0.1"), connection.socket.getsockname()[1]))
        self.assertEqual((fields[LOCAL], fields[LOCAL_PORT]), (forwarding.mapped("127.0.0.1"), self.port))
        self.assertEqual((fields[TLS], fields[LOCAL_LISTENER], fields[TAG]), (False, False, 0))
        for absent in (ORIGINAL, ORIGINAL_PORT, BODY):
            self.assertNotIn(absent, fields)
        self.service.reply(request, {BODY: "ok"})
        self.assertEqual(connection.read_response().body, b"ok")

    def test_every_method_is_forwarded(self):
        for number, method in ((1, "GET"), (2, "HEAD"), (4, "OPTIONS"), (5, "PUT"), (6, "DELETE"), (7, "TRACE")):
            with self.subTest(method):
                connection, request = self.forwarded("/r", method=method)
                self.assertEqual(request.fields[METHOD], number)
                self.service.reply(request, {BODY: "four"})
                response = connection.read_head()
                self.assertEqual((response.status, response.header("content-length")), (200, "4"))
                rest = connection.read_exactly(4) if method != "HEAD" else b""
                self.assertEqual(rest, b"" if method == "HEAD" else b"four")

    def test_everything_below_the_path_and_nothing_beside_it(self):
        for target, path in (("/r", ""), ("/r/", ""), ("/r/x", "x"), ("/rx", "x"), ("/r//x", "/x")):
            with self.subTest(target):
                connection, request = self.forwarded(target)
                self.assertEqual(request.fields[PATH], path)
                self.service.reply(request)
                self.assertEqual(connection.read_response().status, 200)
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")

    def test_bodies(self):
        for length in (1, 4096, 4097, 65535):
            with self.subTest(length):
                body = bytes(n * n % 251 for n in range(length))
                connection, request = self.forwarded("/r", method="POST", body=body)
                self.assertEqual(request.fields[METHOD], 3)
                self.assertEqual(request.fields[BODY].encode("utf-8", "surrogateescape"), body)
                self.service.reply(request, {BODY: "ok"})
                self.assertEqual(connection.read_response().body, b"ok")
                self.assertEqual(connection.get("/a.txt").body, b"a")

    def test_an_empty_body_is_forwarded_at_once(self):
        connection, request = self.forwarded("/r", "Content-Length: 0", method="POST")
        self.assertEqual(request.fields[METHOD], 3)
        self.assertNotIn(BODY, request.fields)
        self.service.reply(request)
        self.assertEqual(connection.read_response().status, 200)

    def test_a_body_too_large_or_without_length_is_refused(self):
        for lines in (["Content-Length: 65536"], ["Content-Length: 4294967294"], []):
            with self.subTest(lines):
                connection = self.connect()
                connection.request("/r", *lines, method="POST")
                response = connection.read_response()
                self.assertEqual((response.status, response.header("connection")), (500, "close"))
        self.assert_nothing_arrived()

    def test_a_body_that_ends_early_is_not_forwarded(self):
        for sent in (b"", b"abc"):
            with self.subTest(sent):
                connection = self.connect()
                connection.request("/r", "Content-Length: 10", method="POST")
                connection.send(sent)
                connection.close()
        self.assert_nothing_arrived()

    def test_the_body_of_another_method_is_not_forwarded(self):
        connection, request = self.forwarded("/r", method="PUT", body=b"GET /a.txt HTTP/1.1\r\n\r\n")
        self.assertNotIn(BODY, request.fields)
        self.service.reply(request, {BODY: "ok"})
        response = connection.read_response()
        self.assertEqual((response.body, response.header("connection")), (b"ok", "close"))

    def assert_nothing_arrived(self):
        self.service.send([self.service.id], 1)  # behind everything that came before
        self.assertEqual(self.service.receive().command, 1)

    def test_a_request_without_version(self):
        connection = self.connect()
        connection.send(b"GET /r?x\n")
        request = self.service.receive()
        self.assertEqual([request.fields[key] for key in (VERSION, QUERY, LINES)], [9, "x", []])
        self.service.reply(request, {BODY: "ok"})
        self.assertTrue(connection.read_to_end().endswith(b"\r\n\r\nok"))

    def test_several_at_a_time_answered_in_any_order(self):
        waiting = [self.forwarded(f"/r/{n}") for n in range(20)]
        for n, (_, request) in reversed(list(enumerate(waiting))):
            self.service.reply(request, {BODY: str(n)})
        for n, (connection, _) in enumerate(waiting):
            self.assertEqual(connection.read_response().body, str(n).encode())

    def test_one_after_the_other_on_one_connection(self):
        connection = self.connect()
        for n in range(50):
            connection.request(f"/r/{n}")
            request = self.service.receive()
            self.assertEqual(request.fields[PATH], str(n))
            self.service.reply(request, {BODY: str(n), STATUS: 200 + n % 3})
            response = connection.read_response()
            self.assertEqual((response.status, response.body), (200 + n % 3, str(n).encode()))

    def test_clients_that_go_while_they_wait(self):
        www = self.system.programs["www"]
        connection, request = self.forwarded("/r")
        self.service.reply(request)
        connection.read_response()
        connection.close()
        idle = www.descriptors()
        waiting = [self.forwarded("/r") for _ in range(10)]
        for connection, _ in waiting:
            connection.close()
        for _, request in waiting:
            self.service.reply(request, {BODY: "x" * 65535})
        harness.wait_until(lambda: www.descriptors() <= idle, "descriptors to be given back")
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")


class Answers(Remote):
    def test_the_answer_becomes_the_response(self):
        response = self.answered({STATUS: 201, STATUS_TEXT: "Made", BODY: "body", CACHEABLE: True,
                                  LINES: ["Content-Type: text/plain", "Set-Cookie: a=1", "Set-Cookie: b=2"]})
        self.assertEqual(response.status_line, "HTTP/1.1 201 Made")
        self.assertEqual(response.lines[:3], ["Content-Type: text/plain", "Set-Cookie: a=1", "Set-Cookie: b=2"])
        self.assertEqual(response.header("cache-control"), "max-age=31536000")
        self.assertEqual(response.body, b"body")

    def test_an_empty_answer_is_an_empty_document(self):
        response = self.answered({})
        self.assertEqual((response.status, response.body, response.header("content-length")), (200, b"", "0"))
        self.assertEqual(response.header("cache-control"), "no-store")

    def test_bodies_are_bytes(self):
        body = bytes(range(256)) * 256
        response = self.answered({BODY: body[:65535]})
        self.assertEqual(response.body, body[:65535])

    def test_an_error_status_brings_the_page_of_the_server(self):
        response = self.answered({STATUS: 404, STATUS_TEXT: "Not <here>", BODY: "own page",
                                  LINES: ["Content-Type: application/json", "Content-Encoding: gzip", "X: y"]})
        self.assertEqual(response.status_line, "HTTP/1.1 404 Not <here>")
        self.assertIn(b"<h1>Error 404: Not &lt;here&gt;</h1>", response.body)
        self.assertEqual((response.header("content-encoding"), response.header("x")), (None, "y"))

    def test_a_redirection(self):
        response = self.answered({STATUS: 303, LINES: ["Location: /login"]})
        self.assertEqual((response.status, response.header("location")), (303, "/login"))

    def test_statuses_without_a_body(self):
        for status in (204, 205):
            response = self.answered({STATUS: status, BODY: "x"})
            self.assertEqual((response.status, response.body), (status, b""))
        self.assertEqual(self.answered({STATUS: 304, BODY: "x"}).header("connection"), "close")

    def test_line_ends_do_not_reach_the_head(self):
        lines = ["A: b\r\nInjected: 1", "A: b\nInjected: 1", "A: b\rInjected: 1", "A\r\nInjected: 1", "\r\nInjected: 1",
                 "A: b\r\n\r\nInjected: 1", "A: \0b", "A: b\x7f", "A: b\tc", "", ":", ": b", "no colon", "A : b", " A: b",
                 "\u00e4: b", "Injected\u2028: 1", "Good: value \u00e4"]
        response = self.answered({STATUS_TEXT: "Fine\r\nInjected: 1\r\n\r\nbody", LINES: lines, BODY: "body"})
        self.assertEqual(response.status_line, "HTTP/1.1 200 Fine  Injected: 1    body")
        self.assertEqual(response.lines[0], "Good: value \u00e4".encode().decode("latin-1"))
        self.assertEqual(len(response.lines), 1 + 6)
        self.assertEqual((response.header("injected"), response.header("a"), response.body), (None, None, b"body"))

    def test_fields_of_the_server_are_its_own(self):
        lines = ["Content-Length: 1", "CONNECTION: x", "Transfer-Encoding: chunked", "Date: x", "Keep-Alive: x", "Upgrade: x",
                 "Expires: x", "Cache-Control: x", "Pragma: x", "Last-Modified: x", "Content-Range: x", "Trailer: x", "TE: x"]
        response = self.answered({LINES: lines, BODY: "body"})
        self.assertEqual((response.header("content-length"), response.header("connection")), ("4", "Keep-Alive"))
        names = [line.split(":")[0].lower() for line in response.lines]
        self.assertEqual(sorted(names), sorted(["content-length", "date", "pragma", "cache-control", "expires", "connection"]))

    def test_statuses_that_are_none(self):
        for status in (0, 99, 100, 101, 199, 600, 65736, 0xffffffff):
            with self.subTest(status):
                response = self.answered({STATUS: status, STATUS_TEXT: "Odd", LINES: ["A: b"], BODY: "x"})
                self.assertEqual(response.status_line, "HTTP/1.1 502 Bad Gateway")
                self.assertIsNone(response.header("a"))

    def test_errors(self):
        for code, status in ((0xfe0006, 502), (0xfe0009, 502), (0xfe000e, 502), (0xfe000d, 504), (0, 502)):
            with self.subTest(hex(code)):
                response = self.answered({tarnbus.ERROR_CODE: code, tarnbus.ERROR_TEXT: "secret", STATUS: 200, BODY: "x"})
                self.assertEqual(response.status, status)
                self.assertNotIn(b"secret", response.body)

    def test_header_blocks_that_are_too_large(self):
        line = "X: " + "x" * 1021
        fits = self.answered({LINES: [line] * 64})
        self.assertEqual((fits.status, len(fits.all("x"))), (200, 64))
        for lines in ([line] * 64 + ["Y: z"], [line * 60] * 2, ["a:"] * 40000):
            self.assertEqual(self.answered({LINES: lines}).status, 502)

    def test_enormous_messages(self):
        rest = {("r", number): bytes(65535) for number in range(100, 160)}
        self.assertEqual(self.answered({BODY: "ok", **rest}).body, b"ok")
        self.assertEqual(self.answered({LINES: ["" for _ in range(65535)], BODY: "ok"}).body, b"ok")

    def test_values_of_other_types(self):
        response = self.answered({("q", 1): 404, ("u", 2): 1, ("s", 5): "A: b", ("r", 30): b"x", ("u", 16): 1})
        self.assertEqual((response.status, response.body, response.header("a")), (200, b"", None))

    def test_answered_twice(self):
        connection, request = self.forwarded("/r")
        self.service.reply(request, {BODY: "one"})
        self.service.reply(request, {BODY: "two"})
        self.assertEqual(connection.read_response().body, b"one")
        connection.request("/r")
        second = self.service.receive()
        self.service.reply(request, {BODY: "two"})
        self.service.reply(second, {BODY: "three"})
        self.assertEqual(connection.read_response().body, b"three")

    def test_answers_of_others_are_none(self):
        connection, request = self.forwarded("/r")
        with tarnbus.Client(str(self.system.bus_path)) as other:
            other.reply(request, {BODY: "forged"})
            other.control(tarnbus.LIST)
        self.service.reply(request, {BODY: "true", tarnbus.DESTINATION: request.sender[1:]})
        self.assertEqual(connection.read_response().body, b"true")

    def test_nobody_there(self):
        self.assertEqual(rawhttp.get(self.port, "/nobody/x").status, 502)
        self.assertEqual(rawhttp.get(self.port, "/nowhere").status, 502)


class Load:
    """Clients that ask for a page again and again, until they are told to stop."""

    def __init__(self, port, target):
        self.port, self.target = port, target
        self.stopping = threading.Event()
        self.seen = {200: 0, 502: 0, 504: 0}
        self.troubles = []
        self.clients = [threading.Thread(target=self._run) for _ in range(4)]
        for client in self.clients:
            client.start()

    def _run(self):
        while not self.stopping.is_set():
            try:
                self.seen[rawhttp.get(self.port, self.target).status] += 1
            except (OSError, EOFError, KeyError) as trouble:
                self.troubles.append(repr(trouble))

    def join(self):
        self.stopping.set()
        for client in self.clients:
            client.join()


class TimeOut(Remote):
    """One wait for all that never comes."""

    def await_more(self, load, status):
        """Waits until the load has seen more answers with a status."""
        before = load.seen[status]
        harness.wait_until(lambda: load.seen[status] > before + 1, f"answers with {status}")

    def test_what_is_not_answered_in_time(self):
        """Silence, answers that are no messages or for somebody else, and a service that dies, once and often."""
        load = Load(self.port, "/often")
        observer = self.system.bus()
        for _ in range(3):
            # The broker may be a little late to see that the one before has left.
            harness.wait_until(lambda: OFTEN not in dict(observer.list()), "the service to have left")
            service = forwarding.Answerer(self.system, lambda request: {BODY: "ok"}, id=OFTEN)
            self.await_more(load, 200)
            service.close()
            self.await_more(load, 502)
        load.stopping.set()
        cases = {"late": None, "number": None, "nonsense": None, "handler": None, "dead": None}
        for name in cases:
            cases[name] = self.forwarded(f"/r/{name}")
        by_name = {name: request for name, (_, request) in cases.items()}
        number = by_name["number"].fields[tarnbus.REQUEST_NUMBER]
        self.service.send(by_name["number"].sender, None,
                          {tarnbus.REQUEST_NUMBER: number + 1000, tarnbus.IS_REPLY: True, BODY: "x"})
        www = by_name["nonsense"].peer
        for payload in (b"", b"M", b"nonsense", b"M2\x01", tarnbus.encode({BODY: "x"})[:-1]):
            self.service.send_payload(www, payload)
        wrong = dict(by_name["handler"].fields)
        self.service.send([www, 1], None, {tarnbus.REQUEST_NUMBER: wrong[tarnbus.REQUEST_NUMBER], tarnbus.IS_REPLY: True})
        # Others are served meanwhile.
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")
        self.assertEqual(select.select([connection.socket for connection, _ in cases.values()], [], [], 0)[0], [])
        other = self.system.bus()
        self.service.close()
        for name, (connection, _) in cases.items():
            with self.subTest(name):
                response = connection.read_response()
                self.assertEqual((response.status_line, response.header("connection")),
                                 ("HTTP/1.1 504 Gateway Timeout", "Keep-Alive"))
        late = by_name["late"]
        other.send(late.sender, None, {tarnbus.REQUEST_NUMBER: late.fields[tarnbus.REQUEST_NUMBER], tarnbus.IS_REPLY: True,
                                       BODY: "late"})
        connection = cases["late"][0]
        self.assertEqual(connection.get("/a.txt").body, b"a")
        self.assertEqual(connection.get("/r").status, 502)
        load.join()
        self.assertEqual(load.troubles, [])
        self.system.kill("busd")
        self.assertEqual(connection.get("/r").status, 502)
        self.assertEqual(connection.get("/a.txt").body, b"a")


class AddedServers(unittest.TestCase):
    """Servers that a service adds at run time, with [63, 15] behind them."""

    @classmethod
    def setUpClass(cls):
        cls.system = harness.System({"a.xml": harness.directory_server("http", "/home/web")}, {"a.txt": b"a"})
        cls.addClassCleanup(cls.system.close)
        cls.system.start("busd", "www")
        cls.hotspot = forwarding.Answerer(cls.system, lambda request: {BODY: request.fields[TARGET]}, id=63)
        cls.addClassCleanup(cls.hotspot.close)

    def setUp(self):
        self.port = harness.free_port()
        self.hotspot.requests.clear()

    def add(self, **fields):
        reply = self.system.send_record(tarnbus.record(port=self.port, **fields), tarnbus.ADD_OBJ)
        self.assertFalse(tarnbus.is_error(reply))

    def test_every_request_is_forwarded(self):
        self.add(name="guests")
        for target in ("/", "/a.txt", "/a/b?c", "/%00", "/jsproxy"):
            self.assertEqual(rawhttp.get(self.port, target).body, target.encode())
        self.assertEqual([request.fields[tarnbus.DESTINATION] for request in self.hotspot.requests], [[15]] * 5)

    def test_over_the_local_listener_with_real_addresses(self):
        self.add(name="guests")
        with rawhttp.Connection.unix(self.port) as connection:
            for tag in (0, 7, 0xffffffff):
                connection.send(forwarding.header(self.system, tag=tag))
                self.assertEqual(connection.get("/x").body, b"/x")
                fields = self.hotspot.requests[-1].fields
                self.assertEqual([fields[key] for key in (PEER, LOCAL, ORIGINAL)],
                                 [forwarding.mapped(host) for host in ("10.1.2.3", "10.0.0.1", "192.0.2.1")])
                self.assertEqual([fields[key] for key in (PEER_PORT, LOCAL_PORT, ORIGINAL_PORT)], [4000, 80, 8080])
                self.assertEqual((fields[LOCAL_LISTENER], fields[TAG], fields[TLS]), (True, tag, False))
            connection.send(forwarding.header(self.system, peer=("fe80::1", 1), original=("::", 0)))
            connection.get("/x")
            fields = self.hotspot.requests[-1].fields
            self.assertEqual(fields[PEER], socket.inet_pton(socket.AF_INET6, "fe80::1"))
            self.assertEqual((fields[ORIGINAL], fields[ORIGINAL_PORT]), (bytes(16), 0))

    def test_with_tls_there_is_the_local_listener_alone(self):
        tls = self.system.bus(id=12, name="tls")
        self.add(name="safe", tls_ref=3)
        self.assertTrue(rawhttp.refuses(self.port))
        with rawhttp.Connection.unix(self.port) as connection:
            request = tls.receive()
            self.assertEqual((request.fields[("u", 2)], request.fields[("b", 1)]), (3, True))
            tls.reply(request, {}, fd=request.fd)
            os.close(request.fd)
            # What came back speaks plain bytes, and brings no header.
            self.assertEqual(connection.get("/x").body, b"/x")
            fields = self.hotspot.requests[-1].fields
            self.assertEqual((fields[TLS], fields[LOCAL_LISTENER], fields[PEER]), (True, True, bytes(16)))

    def test_removed_and_added_again(self):
        self.add(name="guests")
        self.assertFalse(tarnbus.is_error(self.system.send_record({("s", 1): "guests"}, tarnbus.REMOVE_OBJ)))
        self.assertTrue(rawhttp.refuses(self.port))
        self.assertFalse(self.takes_local_connections())
        self.add(name="guests")
        self.assertEqual(rawhttp.get(self.port, "/").status, 200)

    def test_a_configured_server_stays_what_it_is(self):
        self.add(name="http")
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")
        self.assertFalse(self.takes_local_connections())

    def takes_local_connections(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            return probe.connect_ex((b"\0www-unix%d" % self.port).ljust(108, b"\0")) == 0


if __name__ == "__main__":
    unittest.main()
