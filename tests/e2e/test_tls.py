"""https with the real TLS service: pages, certificates, peers that misbehave, and what ends in the middle."""

import contextlib
import os
import resource
import shutil
import socket
import ssl
import struct
import subprocess
import time
import unittest

import harness
import rawhttp
import tarnbus

STORE = "/rw/store/tls"
TLS = [12, 1]
RELOAD = 0x60001
# More than all queues between a server and a peer hold, and a file that a slow client of these tests gets through before
# the server takes it for dead.
BIG, LARGE = 12 << 20, 3 << 20
# Bytes of a slow download, and how many of them a second.
SLOW_PART, SLOW_PACE = 3 << 20, 400_000
HELLO_HEAD = b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"


class Https(harness.SystemTest):
    documents = {"a.xml": '<www><server name="https" ssl="yes"><servlet type="dir" path="/" root="/home/web"/>'
                          '</server></www>'}
    web = {"a.txt": b"a", "big.bin": bytes(range(256)) * (BIG // 256), "large.bin": os.urandom(LARGE)}

    def setUp(self):
        super().setUp()
        self.sockets = []
        self.system.start("busd", "tlsd")
        self.system.bus_id("tlsd")
        self.port = self.system.serve("https", tls_ref=1)
        self.assertEqual(self.page().body, b"a")  # the first one makes the programs grow what they keep anyway
        self.settle()
        self.idle = {name: self.system.programs[name].descriptors() for name in ("www", "tlsd")}

    def tearDown(self):
        for sock in self.sockets:
            sock.close()
        for name, count in self.idle.items():
            program = self.system.programs[name]
            # The server keeps the files open that it served last.
            spare = 2 if name == "www" else 0
            harness.wait_until(lambda p=program, c=count + spare: p.descriptors() <= c,
                               f"{name} to give descriptors back")

    # Clients

    def trust(self, version=None):
        context = ssl.create_default_context(cafile=self.system.path(STORE + "/certificate.pem"))
        if version is not None:
            context.minimum_version = context.maximum_version = version
        return context

    def plain(self, host="127.0.0.1"):
        self.sockets.append(socket.create_connection((host, self.port), timeout=rawhttp.TIMEOUT))
        return self.sockets[-1]

    def connect(self, context=None, host="127.0.0.1", name="localhost"):
        """A connection over TLS; an end without close_notify raises ssl.SSLEOFError."""
        sock = self.plain(host)
        sock = (context or self.trust()).wrap_socket(sock, server_hostname=name, suppress_ragged_eofs=False)
        self.sockets.append(sock)
        return rawhttp.Connection(sock)

    def page(self):
        with self.connect() as connection:
            return connection.get("/a.txt", "Connection: close")

    def memory_client(self):
        """TLS on memory, for those who care when what is sent: (object, its incoming bytes, its outgoing ones)."""
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        return self.trust().wrap_bio(incoming, outgoing, server_hostname="localhost"), incoming, outgoing

    # The services

    def state(self):
        client = self.system.bus()
        try:
            return client.request(TLS, tarnbus.GET).fields
        finally:
            client.close()

    def failures(self, kind):
        return next(entry[("q", 2)] for entry in self.state()[("M", 0x1a)] if entry[("s", 1)] == kind)

    def settle(self):
        """Waits until the service has no connections left."""
        harness.wait_until(lambda: not any(self.state()[("u", n)] for n in (0x11, 0x12, 0x13)), "connections to end")

    def manage(self, command, fields=None):
        with self.system.bus() as client:
            return client.request(TLS, command, fields)

    def make_pair(self, name, days="2"):
        """A certificate and key of somebody else's making, as texts."""
        key, certificate = self.system.folder / "key", self.system.folder / "certificate"
        for command in (["req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
                         f"/CN={name}", "-addext", "subjectAltName=DNS:localhost", "-keyout", key],
                        ["x509", "-in", certificate, "-signkey", key, "-days", days]):
            subprocess.run(["openssl", *command, "-out", certificate], check=True, capture_output=True)
        return certificate.read_text(), key.read_text()

    def put(self, certificate, key):
        self.system.write(STORE + "/certificate.pem", certificate)
        self.system.write(STORE + "/key.pem", key)

    def shown_name(self):
        """Whom the certificate that is shown is for."""
        with self.connect() as connection:
            return dict(entry[0] for entry in connection.socket.getpeercert()["subject"])["commonName"]


class Serving(Https):
    def test_every_version_and_address_with_a_certificate_that_fits(self):
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            for host, name in (("127.0.0.1", "127.0.0.1"), ("127.0.0.1", "localhost"), ("::1", "::1")):
                with self.subTest(version=version, name=name):
                    with self.connect(self.trust(version), host, name) as connection:
                        for _ in range(3):
                            self.assertEqual(connection.get("/a.txt").body, b"a")
        self.assertGreaterEqual(self.state()[("q", 0x16)] + self.state()[("q", 0x15)], 6)

    def test_large_downloads_with_curl(self):
        target = self.system.folder / "download"
        certificate = self.system.path(STORE + "/certificate.pem")
        urls = [part for _ in range(3) for part in ("-o", target, f"https://localhost:{self.port}/big.bin")]
        done = subprocess.run(["curl", "-sS", "--cacert", certificate, "-w", "%{http_code} %{num_connects}\n", *urls],
                              capture_output=True, text=True, timeout=8 * harness.PATIENCE, check=False)
        self.assertEqual((done.returncode, done.stdout), (0, "200 1\n200 0\n200 0\n"), done.stderr)
        self.assertEqual(target.read_bytes(), self.web["big.bin"])

    def test_a_reader_that_takes_its_time(self):
        with self.connect() as connection:
            connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
            connection.request("/large.bin", "Connection: close")
            head = connection.read_head()
            body = connection.held
            for _ in range(20):
                time.sleep(0.02)
                body += connection.socket.recv(16384)
            connection.held = b""
            body += connection.read_to_end()
            self.assertEqual(head.status, 200)
            self.assertEqual(body, self.web["large.bin"])

    def download_slowly(self):
        """What comes of a large file, whose first part is read at a pace."""
        with self.connect() as connection:
            connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
            connection.request("/big.bin")
            self.assertEqual(connection.read_head().status, 200)
            body = bytearray(connection.held)
            begun = time.monotonic()
            with contextlib.suppress(ConnectionError, ssl.SSLError):
                while len(body) < BIG and (piece := connection.socket.recv(16384)):
                    body += piece
                    if len(body) < SLOW_PART:
                        time.sleep(max(0, begun + len(body) / SLOW_PACE - time.monotonic()))
        return bytes(body)

    def test_a_slow_reader_of_a_large_file(self):
        """More than the kernel holds, at a pace at which a third of what it holds takes longer than a server waits."""
        # A machine that stands still for a second makes any reader one that takes nothing; it does not do so each time.
        self.assertTrue(any(self.download_slowly() == self.web["big.bin"] for _ in range(3)))

    def test_the_answer_to_a_peer_that_sends_no_more(self):
        client, incoming, outgoing = self.memory_client()
        sock = self.plain()
        received = b""
        state = "handshake"
        while state != "ended":
            try:
                if state == "handshake":
                    client.do_handshake()
                    client.write(b"GET /large.bin HTTP/1.1\r\nHost: test\r\n\r\n")
                    state = "closing"
                if state == "closing":
                    with contextlib.suppress(ssl.SSLWantReadError):
                        client.unwrap()  # says the end and does not wait for the other's
                    sock.sendall(outgoing.read())
                    state = "reading"
                data = client.read(65536)
                state = "reading" if data else "ended"
                received += data
            except ssl.SSLZeroReturnError:
                state = "ended"
            except ssl.SSLWantReadError:
                sock.sendall(outgoing.read())
                data = sock.recv(65536)
                self.assertTrue(data, "the stream ended without close_notify")
                incoming.write(data)
        head, body = received.split(b"\r\n\r\n", 1)
        self.assertTrue(head.startswith(b"HTTP/1.1 200"))
        self.assertEqual(body, self.web["large.bin"])

    def test_an_upload_that_is_answered_before_its_end(self):
        with self.connect() as connection:
            connection.send("POST /a.txt HTTP/1.1\r\nHost: test\r\nContent-Length: 50000000\r\n\r\n")
            with contextlib.suppress(OSError):
                for _ in range(64):
                    connection.send(bytes(65536))
            self.assertEqual(connection.read_head().status, 405)

    def test_a_ticket_makes_the_next_handshake_short(self):
        context = self.trust(ssl.TLSVersion.TLSv1_2)
        with self.connect(context) as connection:
            connection.get("/a.txt")
            session = connection.socket.session
        sock = context.wrap_socket(self.plain(), server_hostname="localhost", session=session)
        self.assertTrue(sock.session_reused)
        sock.close()


class Misbehaviour(Https):
    def ssl_errors(self):
        return [line for line in self.system.lines("www") if line.startswith("ssl error: ")]

    def test_peers_that_speak_something_else(self):
        sock = self.plain()
        sock.sendall(b"GET / HTTP/1.1\r\nHost: test\r\n\r\n")
        self.assertEqual(sock.recv(1), b"")
        self.system.wait_for_line("www", "ssl error: the peer does not speak TLS")
        for garbage in (bytes(300), b"\xff" * 300, os.urandom(3000)):
            sock = self.plain()
            with contextlib.suppress(ConnectionError):
                sock.sendall(garbage)
                sock.shutdown(socket.SHUT_WR)
                rawhttp.Connection(sock).read_to_end()
        harness.wait_until(lambda: len(self.ssl_errors()) == 4, "four errors")
        self.assertEqual(self.page().body, b"a")

    def test_peers_that_are_silent_or_half_done(self):
        begun = time.monotonic()
        silent = [self.plain() for _ in range(5)]
        half = [self.plain() for _ in range(5)]
        for sock in half:
            sock.sendall(HELLO_HEAD)
        self.assertEqual(self.page().body, b"a")
        for sock in silent + half:
            self.assertEqual(sock.recv(1), b"")
        self.assertGreater(time.monotonic() - begun, 3)
        self.system.wait_for_line("www", "ssl error: handshake timeout", 10)
        self.assertEqual(self.ssl_errors(), ["ssl error: handshake timeout"] * 10)

    def test_peers_that_leave_at_every_step(self):
        client, _, outgoing = self.memory_client()
        with contextlib.suppress(ssl.SSLWantReadError):
            client.do_handshake()
        hello = outgoing.read()
        for length in (0, 1, 5, 6, len(hello) // 2, len(hello) - 1, len(hello)):
            for hard in (False, True):
                sock = self.plain()
                sock.sendall(hello[:length])
                if hard:
                    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                sock.close()
        harness.wait_until(lambda: len(self.ssl_errors()) == 14, "an error for each")
        for said in (b"", b"GET /big.bin HTTP/1.1\r\n", b"GET /big.bin HTTP/1.1\r\nHost: test\r\n\r\n"):
            for orderly in (False, True):
                connection = self.connect()
                connection.send(said)
                if orderly:
                    with contextlib.suppress(ssl.SSLError, OSError):
                        connection.socket.settimeout(0.01)
                        connection.socket.unwrap()
                connection.close()
        self.settle()
        self.assertEqual(self.page().body, b"a")

    def test_garbage_after_the_handshake(self):
        connection = self.connect()
        os.write(connection.socket.fileno(), b"\x17\x03\x03\x00\x20" + bytes(32))
        with self.assertRaises(ssl.SSLError) as caught:
            connection.socket.recv(1)
        self.assertIn("ALERT", caught.exception.reason)
        self.assertEqual(self.failures("bad record"), 1)

    def test_a_peer_that_goes_in_the_middle_of_a_download(self):
        for hard in (False, True):
            connection = self.connect()
            connection.request("/big.bin")
            connection.read_exactly(100_000)
            if hard:
                connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            connection.close()
        self.settle()

    def test_a_thousand_slow_peers_beside_a_fast_one(self):
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        self.addCleanup(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))
        slow = []

        def are_enough():
            if self.state()[("u", 0x11)] > 900:
                return True
            # On a slow machine those of the beginning may have had their time before the last ones come.
            slow.extend(self.hand_over(200 if slow else 1000))
            return False
        harness.wait_until(are_enough, "a thousand handshakes that wait")
        for _ in range(3):
            self.assertEqual(self.page().body, b"a")
        for sock in slow:
            sock.close()
        # Those that are through, but do not read what they asked for.
        held = [self.connect() for _ in range(100)]
        for connection in held:
            connection.request("/big.bin")
        with self.connect() as connection:
            self.assertEqual(connection.get("/large.bin").body, self.web["large.bin"])
        for connection in held:
            connection.close()
        self.settle()

    def hand_over(self, count):
        """Hands connections over as a server does, without its listener's short queue; their other ends, on which a
        handshake has begun."""
        server, peers = self.system.bus(), []
        request = {("b", 1): True, tarnbus.REQUEST_NUMBER: 7}
        for i in range(count):
            ours, theirs = socket.socketpair()
            self.sockets.append(ours)
            ours.sendall(HELLO_HEAD)
            server.send(TLS[:1], 1, request, theirs.fileno())
            theirs.close()
            peers.append(ours)
            if i % 32 == 31:  # a queue of the broker holds no more descriptors than 64
                server.request(TLS, tarnbus.GET)
        return peers

    def test_more_connections_than_descriptors(self):
        tlsd = self.system.programs["tlsd"]
        limit = resource.prlimit(tlsd.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(tlsd.pid, resource.RLIMIT_NOFILE, (tlsd.descriptors() + 10, limit[1]))
        through, refused = [], 0
        for _ in range(20):
            try:
                # Asked at once: the server ends a connection that is idle for two seconds.
                through.append(self.connect())
                if through[-1].get("/a.txt").body != b"a":
                    refused += 1
            except (OSError, EOFError):
                refused += 1
        self.assertGreater(refused, 0)
        harness.wait_until(lambda: len(self.ssl_errors()) >= refused, "an error for each that was refused")
        for connection in through:
            connection.close()
        self.settle()
        resource.prlimit(tlsd.pid, resource.RLIMIT_NOFILE, limit)
        self.assertEqual(self.page().body, b"a")


class Deaths(Https):
    def restart_service(self):
        self.system.start("tlsd")
        self.system.bus_id("tlsd")

    def test_the_service_killed_in_every_state(self):
        waiting = [self.plain() for _ in range(3)]
        half = self.plain()
        half.sendall(HELLO_HEAD)
        busy = self.connect()
        busy.request("/big.bin", "Connection: close")
        busy.read_exactly(1000)
        idle = self.connect()
        harness.wait_until(lambda: self.state()[("u", 0x11)] == 4, "the handshakes to wait")
        idle.get("/a.txt")  # last: the server ends a connection that is idle for two seconds
        self.system.kill("tlsd")
        for sock in (*waiting, half):
            self.assertEqual(rawhttp.Connection(sock).read_to_end(), b"")
        # What is cut off is no clean end.
        for connection in (idle, busy):
            with self.assertRaises((ssl.SSLEOFError, ConnectionError)):
                while connection.socket.recv(65536):
                    pass
        # One that comes while nobody is there.
        self.assertEqual(rawhttp.Connection(self.plain()).read_to_end(), b"")
        self.system.wait_for_line("www", "ssl error: unreachable")
        self.restart_service()
        self.assertEqual(self.page().body, b"a")

    def test_the_server_killed_while_it_serves(self):
        connection = self.connect()
        connection.request("/big.bin", "Connection: close")
        connection.read_exactly(1000)
        handshake = self.plain()
        self.system.kill("www")
        body = b""
        with contextlib.suppress(ssl.SSLEOFError, ConnectionError):
            while data := connection.socket.recv(65536):
                body += data
        self.assertLess(len(body), BIG)
        handshake.close()
        self.system.start("www")
        self.system.send_record(tarnbus.record("https", self.port, tls_ref=1))
        self.assertEqual(self.page().body, b"a")

    def test_the_broker_started_again(self):
        kept = self.connect()
        half = self.plain()
        half.sendall(HELLO_HEAD)
        harness.wait_until(lambda: self.state()[("u", 0x11)] == 1, "the handshake to wait")
        self.assertEqual(kept.get("/a.txt").body, b"a")
        self.system.kill("busd")
        # What was with its server goes on; what was on its way is lost, and said so.
        self.assertEqual(kept.get("/a.txt").body, b"a")
        kept.close()
        self.system.start("busd")
        self.assertEqual(half.recv(1), b"")
        self.system.wait_for_line("www", "ssl error: unreachable")
        self.system.bus_id("tlsd")
        self.system.bus_id("www")
        self.assertEqual(self.page().body, b"a")


class Certificates(Https):
    def test_the_first_one_is_made_and_kept(self):
        key = self.system.path(STORE + "/key.pem")
        self.assertEqual(key.stat().st_mode & 0o777, 0o600)
        before = self.state()[("s", 2)]
        self.system.restart("tlsd")
        self.system.bus_id("tlsd")
        self.assertEqual(self.state()[("s", 2)], before)
        self.assertEqual(self.state()[("s", 7)], "files")

    def test_new_files_are_taken_without_losing_connections(self):
        pair = self.make_pair("copied")
        kept = self.connect()
        self.put(*pair)
        # The server ends a connection that is idle for two seconds.
        harness.wait_until(lambda: kept.get("/a.txt").body == b"a" and "CN=copied" in self.state()[("s", 1)],
                           "the files to be read")
        self.assertEqual(kept.get("/large.bin").body, self.web["large.bin"])
        self.assertEqual(self.shown_name(), "copied")

    def test_new_files_that_do_not_fit_are_refused(self):
        before = self.state()[("s", 2)]
        old = self.system.path(STORE + "/certificate.pem").read_text()
        certificate, key = self.make_pair("copied")
        self.system.write(STORE + "/certificate.pem", certificate)
        self.assertEqual(tarnbus.error_of(self.manage(RELOAD)),
                         (0xfe0010, "the key does not belong to the certificate"))
        self.system.wait_for_line("tlsd", "certificate: the key does not belong to the certificate; the one in use stays")
        self.assertEqual(self.state()[("s", 2)], before)
        self.system.write(STORE + "/certificate.pem", old)
        self.assertEqual(self.page().body, b"a")
        self.put(certificate, key)
        self.assertFalse(tarnbus.is_error(self.manage(RELOAD)))
        self.assertEqual(self.shown_name(), "copied")

    def test_a_pair_is_installed_and_replaced_over_the_bus(self):
        certificate, key = self.make_pair("installed")
        mixed = self.manage(tarnbus.SET, {("s", 1): certificate, ("s", 2): self.make_pair("other")[1]})
        self.assertEqual(tarnbus.error_of(mixed), (0xfe0010, "the key does not belong to the certificate"))
        kept = self.connect()
        self.assertFalse(tarnbus.is_error(self.manage(tarnbus.SET, {("s", 1): certificate, ("s", 2): key})))
        self.assertEqual(kept.get("/a.txt").body, b"a")
        self.assertEqual(self.shown_name(), "installed")
        self.assertFalse(tarnbus.is_error(self.manage(0xfe0104)))
        self.assertNotEqual(self.shown_name(), "installed")

    def test_bad_files_at_the_start_are_left_and_a_temporary_one_used(self):
        good = self.system.folder / "good"
        shutil.copytree(self.system.path(STORE), good)
        expired = self.make_pair("expired", "-1")
        for what in ("missing", "damaged", "expired"):
            with self.subTest(what):
                self.system.stop("tlsd")
                if what == "missing":
                    self.system.path(STORE + "/key.pem").unlink()
                elif what == "damaged":
                    self.put("damaged", "damaged")
                else:
                    self.put(*expired)
                self.system.start("tlsd")
                self.system.bus_id("tlsd")
                state = self.state()
                self.assertEqual(state[("s", 7)], "files" if what == "expired" else "temporary")
                self.assertEqual(("s", 8) in state, what != "expired")
                insecure = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
                insecure.check_hostname = False
                insecure.verify_mode = ssl.CERT_NONE
                with self.connect(insecure) as connection:
                    self.assertEqual(connection.get("/a.txt").body, b"a")
        self.system.wait_for_line("tlsd", "certificate: it has expired; browsers will not take it")
        shutil.copytree(good, self.system.path(STORE), dirs_exist_ok=True)
        self.assertFalse(tarnbus.is_error(self.manage(RELOAD)))
        self.assertEqual(self.page().body, b"a")


if __name__ == "__main__":
    unittest.main()
