"""Server records over the real bus: listeners open, move and close as the records say."""

import socket
import struct
import unittest

import harness
import rawhttp
import tarnbus

TWO_SERVERS = {
    "a.xml": '<www><server name="http"><servlet type="dir" path="/" root="/home/web"/></server></www>',
    "b.xml": '<www><server name="http" ssl="yes"><servlet type="dir" path="/more" root="/home/web"/>'
             '<servlet type="nothing" path="/x"/></server>'
             '<server name="other" ssl="true"><servlet type="dir" path="/"/></server></www>',
    "c.xml": "<www><server name='broken'><servlet></www>",
}

IPV4 = ("u", 1)
IPV4_MASK = ("u", 2)
IPV6 = ("a", 3)
IPV6_LENGTH = ("u", 4)

# What a request is answered that nobody is there to answer: it was understood and forwarded.
NOBODY_THERE = 502


class Listeners(harness.SystemTest):
    documents = TWO_SERVERS
    web = {"a.txt": b"a"}

    def setUp(self):
        super().setUp()
        self.system.start("busd", "www")

    def record(self, command=tarnbus.SET, **fields):
        return self.system.send_record(tarnbus.record(**fields), command)

    def test_what_the_configuration_says_is_logged(self):
        self.system.wait_for_line("www", "adding servlet ssl dir, path=/")
        lines = self.system.lines("www")
        self.assertEqual([line for line in lines if line.startswith("adding")], [
            "adding server http, ssl=0", "adding servlet dir, path=/", "adding servlet dir, path=/more",
            "adding server other, ssl=1", "adding servlet ssl dir, path=/"])
        self.assertEqual(len([line for line in lines if line.startswith("configuration: ") and "c.xml:1:" in line]), 1)

    def test_settings_are_asked_for_once(self):
        self.system.wait_for_line("www", "no settings, asking sermgr and hotspot")
        self.assertEqual(self.system.lines("www").count("no settings, asking sermgr and hotspot"), 1)

    def test_listener_moves_and_closes(self):
        first, second = harness.free_port(), harness.free_port()
        self.assertFalse(tarnbus.is_error(self.record(name="http", port=first)))
        self.assertEqual(rawhttp.get(first, "/a.txt").body, b"a")
        self.assertFalse(tarnbus.is_error(self.record(name="http", port=second)))
        self.assertTrue(rawhttp.refuses(first))
        self.assertEqual(rawhttp.get(second, "/a.txt").body, b"a")
        self.assertFalse(tarnbus.is_error(self.record(name="http", port=second)))
        self.assertEqual(rawhttp.get(second, "/a.txt").body, b"a")
        self.assertFalse(tarnbus.is_error(self.record(name="http", port=second, disabled=True)))
        self.assertTrue(rawhttp.refuses(second))
        self.system.wait_for_line("www", f"set http enabled=1 port={second}", 2)
        self.system.wait_for_line("www", f"set http enabled=0 port={second}")
        self.system.wait_for_line("www", f"creating tcp socket on port {second}", 2)

    def test_other_command_codes_set_too(self):
        for command in (0x30001, 0x30002):
            port = harness.free_port()
            self.assertFalse(tarnbus.is_error(self.record(command, name="http", port=port)))
            self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")

    def test_unknown_server(self):
        reply = self.record(name="nobody", port=harness.free_port())
        self.assertEqual(tarnbus.error_of(reply), (0xfe0006, "no such service"))
        self.system.wait_for_line("www", "failed to set server nobody: unknown server")
        reply = self.record(tarnbus.REMOVE_OBJ, name="nobody")
        self.assertEqual(tarnbus.error_of(reply), (0xfe0006, "no such service"))
        self.system.wait_for_line("www", "failed to remove server nobody: unknown server")

    def test_remove_and_set_again(self):
        port = harness.free_port()
        self.record(name="http", port=port)
        self.assertFalse(tarnbus.is_error(self.record(tarnbus.REMOVE_OBJ, name="http")))
        self.assertTrue(rawhttp.refuses(port))
        self.system.wait_for_line("www", "disabling server http")
        self.record(name="http", port=port)
        self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")

    def test_port_in_use(self):
        with socket.socket(socket.AF_INET6, socket.SOCK_STREAM) as other:
            port = harness.free_port()
            other.bind(("::", port))
            other.listen()
            reply = self.record(name="http", port=port)
            self.assertEqual(tarnbus.error_of(reply), (0xfe000c, "cannot bind service connection"))
            self.system.wait_for_line("www", "error while binding: Address already in use")
        self.assertFalse(tarnbus.is_error(self.record(name="http", port=port)))
        self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")

    def test_added_server_forwards_and_has_both_listeners(self):
        port = harness.free_port()
        self.assertFalse(tarnbus.is_error(self.record(tarnbus.ADD_OBJ, name="guests", port=port)))
        self.system.wait_for_line("www", "adding server guests, ssl=0")
        service = self.system.bus(id=63, name="hotspot")
        for unix in (True, False):
            with rawhttp.Connection.unix(port) if unix else rawhttp.Connection.tcp(port) as connection:
                if unix:
                    connection.send(forward_header())
                connection.send(b"GET /login HTTP/1.1\r\nConnection: close\r\n\r\n")
                request = service.receive()
                self.assertEqual(request.fields[tarnbus.DESTINATION], [15])
                self.assertEqual((request.command, request.fields["s", 2]), (0x50001, "/login"))
                self.assertEqual(request.fields.get(("b", 13), False), unix)
                service.reply(request, {("u", 1): 200, ("s", 30): "welcome"})
                self.assertEqual(connection.read_response().body, b"welcome")

    def test_added_tls_server_has_the_local_listener_alone(self):
        port = harness.free_port()
        self.record(tarnbus.ADD_OBJ, name="secure", port=port, tls_ref=7)
        self.system.wait_for_line("www", "adding server secure, ssl=1")
        self.system.wait_for_line("www", f"creating unix socket on port {port}")
        self.assertTrue(rawhttp.refuses(port))
        rawhttp.Connection.unix(port).close()

    def test_adding_a_configured_server_sets_it(self):
        port = harness.free_port()
        self.record(tarnbus.ADD_OBJ, name="http", port=port)
        self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")
        self.assertEqual(self.system.lines("www").count("adding server http, ssl=0"), 1)

    def test_prefixes(self):
        port = harness.free_port()
        loopback4 = {IPV4: 0x7F000000, IPV4_MASK: 0xFF000000}
        loopback6 = {IPV6: socket.inet_pton(socket.AF_INET6, "::1"), IPV6_LENGTH: 128}
        elsewhere = {IPV4: 0x0A000000, IPV4_MASK: 0xFF000000}
        for prefixes, four, six in (([elsewhere], False, False), ([elsewhere, loopback4], True, False),
                                    ([loopback6], False, True), ([], True, True), ([{}], True, True)):
            with self.subTest(prefixes=prefixes):
                self.record(name="http", port=port, allowed=prefixes)
                for host, admitted in (("127.0.0.1", four), ("::1", six)):
                    with rawhttp.Connection.tcp(port, host) as connection:
                        connection.request("/a.txt", "Connection: close")
                        if admitted:
                            self.assertEqual(connection.read_response().body, b"a")
                        else:
                            self.assertEqual(connection.read_to_end(), b"")

    def test_records_with_wrong_types(self):
        port = harness.free_port()
        self.record(name="http", port=port)
        client = self.system.bus()
        www = self.system.bus_id("www")
        for fields in ({}, {("u", 1): 5}, {("s", 2): "x"}, {("U", 1): [1, 2]}, {("m", 6): {}}, {("M", 6): [{("s", 1): "x"}]}):
            with self.subTest(fields=fields):
                reply = client.request([www, 1], tarnbus.SET, fields)
                self.assertEqual(tarnbus.error_of(reply), (0xfe0006, "no such service"))
        for number in (65536 + port, 0xFFFFFFFF):
            reply = client.request([www, 1], tarnbus.SET, {("s", 1): "http", ("u", 2): number})
            self.assertEqual(tarnbus.error_of(reply), (0xfe000c, "cannot bind service connection"))
        self.record(name="http", port=port)
        self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")

    def test_connections_outlive_their_listener(self):
        port = harness.free_port()
        self.record(name="http", port=port)
        # All is at hand, so that the connection is not idle for long.
        bus, www = self.system.bus(), self.system.bus_id("www")
        record = tarnbus.record("http", harness.free_port())
        with rawhttp.Connection.tcp(port) as connection:
            connection.get("/a.txt")
            self.assertFalse(tarnbus.is_error(bus.request([www, 1], tarnbus.SET, record)))
            self.assertEqual(connection.get("/a.txt").body, b"a")
        self.assertTrue(rawhttp.refuses(port))


def forward_header(tag=0):
    """The 88 bytes before a request on a local listener: peer, local and original address, and the tag."""
    def address(host, port):
        return struct.pack("=H", socket.AF_INET) + struct.pack("!H4s8x", port, socket.inet_aton(host)) + bytes(12)
    return address("10.1.2.3", 4000) + address("10.0.0.1", 80) + address("192.0.2.1", 8080) + struct.pack("!I", tag)


class LocalListener(harness.SystemTest):
    documents = TWO_SERVERS

    def setUp(self):
        super().setUp()
        self.system.start("busd", "www")
        self.port = harness.free_port()
        self.system.send_record(tarnbus.record(name="guests", port=self.port), tarnbus.ADD_OBJ)

    def test_every_request_brings_its_header(self):
        with rawhttp.Connection.unix(self.port) as connection:
            for n in range(3):
                connection.send(forward_header(n))
                connection.send(b"GET /%d HTTP/1.1\r\n\r\n" % n)
                self.assertEqual(connection.read_response().status, NOBODY_THERE)
            # A request without the header before it: its first 88 bytes are taken for one.
            connection.send(b"GET / HTTP/1.1\r\n\r\n".ljust(88, b"x") + b"nonsense\r\n")
            self.assertEqual(connection.read_response().status, 400)

    def test_header_in_pieces(self):
        with rawhttp.Connection.unix(self.port) as connection:
            for byte in forward_header() + b"GET / HTTP/1.1\r\nConnection: close\r\n\r\n":
                connection.send(bytes([byte]))
            self.assertEqual(connection.read_response().status, NOBODY_THERE)

    def test_half_a_header_is_nothing(self):
        with rawhttp.Connection.unix(self.port) as connection:
            connection.send(forward_header()[:87])
            self.assertEqual(connection.read_to_end(), b"")


if __name__ == "__main__":
    unittest.main()
