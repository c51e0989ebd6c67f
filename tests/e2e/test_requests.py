"""The road of a request over real sockets: what is read, how it is answered, when a connection goes on and when it ends."""

import gzip
import os
import re
import socket
import time
import unittest
from email.utils import parsedate_to_datetime

import harness
import rawhttp
import tarnbus

PAGE = b"<!doctype html><title>page</title>"
THOUSAND = bytes(i % 251 for i in range(1000))


class Requests(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"index.html": PAGE, "a.bin": THOUSAND, "empty.txt": b"", "sub/index.html": b"below"}

    def setUp(self):
        super().setUp()
        self.port = self.system.serve("http")

    def connect(self):
        connection = rawhttp.Connection.tcp(self.port)
        self.addCleanup(connection.close)
        return connection

    def answer(self, request):
        """Everything that comes back for some bytes, up to the end of the connection."""
        connection = self.connect()
        connection.send(request)
        return connection.read_to_end()

    def test_page_with_its_headers(self):
        response = rawhttp.get(self.port, "/")
        self.assertEqual(response.status_line, "HTTP/1.1 200 OK")
        self.assertEqual(response.body, PAGE)
        self.assertTrue(response.header("content-type").startswith("text/html"))
        self.assertEqual(response.header("content-length"), str(len(PAGE)))
        self.assertEqual(response.header("connection"), "Keep-Alive")
        self.assertEqual(response.header("pragma"), "no-cache")
        self.assertEqual(response.header("cache-control"), "no-store")
        self.assertEqual(response.header("expires"), "0")
        now = parsedate_to_datetime(response.header("date")).timestamp()
        self.assertLess(abs(now - time.time()), 60)
        changed = parsedate_to_datetime(response.header("last-modified")).timestamp()
        self.assertEqual(int(changed), int(os.stat(self.system.path("/home/web/index.html")).st_mtime))

    def test_many_requests_on_one_connection(self):
        connection = self.connect()
        for _ in range(200):
            self.assertEqual(connection.get("/a.bin").body, THOUSAND)
        self.assertEqual(self.system.lines("www").count("acceptConnection"), 1)

    def test_one_byte_at_a_time(self):
        connection = self.connect()
        connection.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in b"GET /a.bin HTTP/1.1\r\nHost: x\r\nAccept: */*\r\n\r\n":
            connection.send(bytes([byte]))
        self.assertEqual(connection.read_response().body, THOUSAND)

    def test_bare_line_feeds(self):
        connection = self.connect()
        connection.send("GET /a.bin HTTP/1.1\nHost: x\n\n")
        self.assertEqual(connection.read_response().body, THOUSAND)

    def test_request_without_version(self):
        got = self.answer("GET /a.bin\r\n")
        head, body = got.split(b"\r\n\r\n", 1)
        self.assertIn(b"Connection: close", head)
        self.assertEqual(body, THOUSAND)

    def test_versions_and_keep_alive(self):
        for version, lines, kept in (
                ("HTTP/1.1", [], True),
                ("HTTP/1.1", ["Connection: close"], False),
                ("HTTP/1.1", ["Connection: Upgrade, CLOSE"], False),
                ("HTTP/1.0", [], False),
                ("HTTP/1.0", ["Connection: keep-alive"], True),
                ("HTTP/1.0", ["Connection: Keep-Alive, x"], True)):
            with self.subTest(version=version, lines=lines):
                connection = self.connect()
                connection.request("/a.bin", *lines, version=version)
                response = connection.read_response()
                self.assertEqual(response.header("connection"), "Keep-Alive" if kept else "close")
                if kept:
                    self.assertEqual(connection.get("/").body, PAGE)
                else:
                    self.assertEqual(connection.read_to_end(), b"")

    def test_ranges(self):
        for value, part in (
                ("bytes=0-99", (0, 99)), ("bytes=-100", (900, 999)), ("bytes=900-", (900, 999)),
                ("bytes=999-999", (999, 999)), ("bytes=0-1000", None), ("bytes=-1000", None), ("bytes=5-4", None),
                ("bytes=1000-", None), ("bytes=a-b", None), ("bytes=0-1,5-6", None), ("items=0-1", None),
                ("bytes=-", None), ("bytes=", None), ("bytes=-0", (1000, 999))):
            with self.subTest(value=value):
                response = rawhttp.get(self.port, "/a.bin", "Range: " + value)
                self.assertEqual(response.status, 200)
                first, last = part or (0, 999)
                self.assertEqual(response.body, THOUSAND[first:last + 1])
                self.assertEqual(response.header("content-range"), f"bytes {first}-{last}/1000" if part else None)

    def test_head_of_a_file_ends_the_connection(self):
        connection = self.connect()
        connection.request("/a.bin", method="HEAD")
        response = connection.read_head()
        self.assertEqual(response.header("content-length"), "1000")
        self.assertEqual(connection.read_to_end(), b"")
        self.system.wait_for_line("www", "write: Bad file descriptor")

    def test_head_of_an_error_goes_on(self):
        connection = self.connect()
        connection.request("/missing", method="HEAD")
        response = connection.read_head()
        self.assertEqual(response.status, 404)
        self.assertGreater(int(response.header("content-length")), 0)
        self.assertEqual(connection.get("/a.bin").body, THOUSAND)

    def test_error_page(self):
        response = rawhttp.get(self.port, "/missing")
        self.assertEqual(response.status_line, "HTTP/1.1 404 Not Found")
        self.assertEqual(response.body, b"<html>\n<head><title>Error 404: Not Found</title></head>\n<body>\n"
                                        b"<h1>Error 404: Not Found</h1>\n</body>\n</html>\n")
        self.assertIsNone(response.header("content-type"))
        self.assertEqual(response.header("cache-control"), "no-store")

    def test_what_cannot_be_parsed(self):
        for request, status in (
                ("GET / FTP/1.0\r\n\r\n", "503 unknown protocol"),
                ("GET / HTTP/2.0\r\n\r\n", "503 unknown protocol"),
                ("BREW / HTTP/1.1\r\n\r\n", "503 unknown method"),
                ("G@T / HTTP/1.1\r\n\r\n", "400 Bad Request"),
                ("GET /a b HTTP/1.1\r\n\r\n", "400 Bad Request"),
                ("\r\n\r\n", "400 Bad Request"),
                ("GET / HTTP/1.1\r\nno colon\r\n\r\n", "400 Bad Request"),
                ("GET / HTTP/1.1\r\nHost : x\r\n\r\n", "400 Bad Request"),
                ("GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", "400 Bad Request"),
                ("GET / HTTP/1.1\r\nA: b\r\n folded\r\n\r\n", "400 Bad Request"),
                ("GET / HTTP/1.1\r\nA: b\x00c\r\n\r\n", "400 Bad Request"),
                ("POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", "400 Bad Request"),
                ("POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", "400 Bad Request"),
                ("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "400 Bad Request")):
            with self.subTest(request=request):
                got = self.answer(request)
                self.assertTrue(got.startswith(f"HTTP/1.1 {status}\r\n".encode()), got)
                self.assertIn(b"Connection: close\r\n", got)

    def test_methods_without_a_meaning_here(self):
        for method in ("POST", "PUT", "DELETE", "TRACE", "OPTIONS"):
            with self.subTest(method=method):
                connection = self.connect()
                connection.request("/a.bin", method=method)
                response = connection.read_response()
                self.assertEqual(response.status, 405)
                self.assertEqual(response.header("allow"), "GET, HEAD")

    def test_header_block_of_exactly_the_limit(self):
        def block(total):
            lines = ["GET /a.bin HTTP/1.1"]
            left = total - len(lines[0])
            while left > 0:
                size = min(left, 2000) if left - min(left, 2000) in (0, *range(3, 20000)) else left - 3
                lines.append("a:" + "x" * (size - 2))
                left -= size
            self.assertEqual(sum(map(len, lines)), total)
            return lines

        bus, counters = self.system.bus(), [self.system.bus_id("www"), 2]

        def bytes_read():
            return bus.request(counters, tarnbus.GET).fields[("M", 1)][0][("q", 11)]

        # In pieces smaller than what may be held at once, each once the one before was read, so that only the sum decides.
        for total, status in ((16384, 200), (16385, 400)):
            with self.subTest(total=total):
                connection = self.connect()
                expected = bytes_read()
                for line in block(total):
                    connection.send(line + "\r\n")
                    expected += len(line) + 2
                    harness.wait_until(lambda: bytes_read() >= expected, "a piece to be read")
                connection.send("\r\n")
                self.assertEqual(connection.read_head().status, status)

    def test_line_without_end(self):
        got = self.answer(b"GET /" + b"a" * 9000)
        self.assertTrue(got.startswith(b"HTTP/1.1 400 "), got)

    def test_pipelined_request_is_lost(self):
        connection = self.connect()
        connection.send("GET /a.bin HTTP/1.1\r\nHost: x\r\n\r\nGET / HTTP/1.1\r\nHost: x\r\n\r\n")
        self.assertEqual(connection.read_response().body, THOUSAND)
        # What comes next answers the next request, and nothing comes after it.
        connection.request("/a.bin", "Connection: close")
        self.assertEqual(connection.read_response().body, THOUSAND)
        self.assertEqual(connection.read_to_end(), b"")

    def test_silence_ends_a_connection_after_two_seconds(self):
        connection = self.connect()
        begun = time.monotonic()
        connection.get("/a.bin")
        self.assertEqual(connection.read_to_end(), b"")
        self.assertGreater(time.monotonic() - begun, 1.5)

    def test_steady_header_bytes_do_not_keep_a_connection(self):
        begun = time.monotonic()
        connection = self.connect()
        connection.send("GET / HTTP/1.1\r\n")
        with self.assertRaises(OSError):
            for n in range(200):
                connection.send(f"h{n}: x\r\n")
                time.sleep(0.1)
        self.assertGreater(time.monotonic() - begun, 2.5)

    def test_half_closed_client_gets_its_answer(self):
        connection = self.connect()
        connection.request("/a.bin", "Connection: close")
        connection.socket.shutdown(socket.SHUT_WR)
        self.assertEqual(connection.read_response().body, THOUSAND)

    def test_absolute_target(self):
        self.assertEqual(rawhttp.get(self.port, "http://example.org/a.bin?x=1").body, THOUSAND)

    def test_query_is_no_part_of_the_path(self):
        self.assertEqual(rawhttp.get(self.port, "/a.bin?").body, THOUSAND)
        self.assertEqual(rawhttp.get(self.port, "/a.bin?x=/../y").body, THOUSAND)

    def test_empty_file_and_folder(self):
        connection = self.connect()
        self.assertEqual(connection.get("/empty.txt").body, b"")
        self.assertEqual(connection.get("/sub").body, b"below")
        self.assertEqual(connection.get("/sub/").body, b"below")

    def test_over_inet6(self):
        with rawhttp.Connection.tcp(self.port, "::1") as connection:
            self.assertEqual(connection.get("/a.bin").body, THOUSAND)

    def test_paths_that_are_refused(self):
        self.system.write("/secret", b"no")
        for path in ("/../secret", "/a/../../secret", "/.hidden", "/a/.b", "/a%20b", "/~x", "/a..b", "//etc/passwd",
                     "/%2e%2e/secret", "/a;b", "/a\\b"):
            with self.subTest(path=path):
                self.assertEqual(rawhttp.get(self.port, path).status, 404)

    def test_files_change_between_requests(self):
        connection = self.connect()
        target = self.system.path("/home/web/changing.txt")
        for n in range(120):
            content = b"%d " % n * (1 + n % 7)
            if n % 3 == 0:
                target.write_bytes(content)  # in place
            elif n % 3 == 1:
                other = target.with_name("other.txt")
                other.write_bytes(content)
                other.rename(target)
            else:
                target.unlink()
                self.assertEqual(connection.get("/changing.txt").status, 404)
                target.write_bytes(content)
            response = connection.get("/changing.txt")
            self.assertEqual((response.status, response.body), (200, content))


class CompressedAndPublic(harness.SystemTest):
    documents = {
        "a.xml": '<www><server name="http">'
                 '<servlet type="dir" path="/" root="/home/web"/>'
                 '<servlet type="dir" path="/kept" root="/home/web" cacheable="yes"/>'
                 '<servlet type="pubdir" path="/pub" root="/home/web/tree"/>'
                 '<servlet type="dir" path="/one" root="/home/web/one.txt"/>'
                 '</server></www>'}
    web = {"app.js.gz": gzip.compress(b"let a = 1;"), "both.css": b"plain", "both.css.gz": gzip.compress(b"packed"),
           "tree/closed/x.txt": b"closed", "tree/open/.public": b"", "tree/open/x.txt": b"open",
           "tree/open/deep/y.txt": b"deep", "one.txt": b"the one"}

    def setUp(self):
        super().setUp()
        self.port = self.system.serve("http")

    def test_only_the_compressed_variant(self):
        response = rawhttp.get(self.port, "/app.js", "Accept-Encoding: gzip, deflate")
        self.assertEqual(response.status, 200)
        self.assertEqual(response.header("content-encoding"), "gzip")
        self.assertTrue(response.header("content-type").startswith("text/javascript"))
        self.assertEqual(gzip.decompress(response.body), b"let a = 1;")
        self.assertEqual(rawhttp.get(self.port, "/app.js").status, 406)
        self.assertEqual(rawhttp.get(self.port, "/app.js", "Accept-Encoding: GZIP").status, 406)
        self.assertIsNone(rawhttp.get(self.port, "/app.js").header("content-encoding"))

    def test_plain_file_wins(self):
        response = rawhttp.get(self.port, "/both.css", "Accept-Encoding: gzip")
        self.assertEqual(response.body, b"plain")
        self.assertIsNone(response.header("content-encoding"))

    def test_public_folders(self):
        self.assertEqual(rawhttp.get(self.port, "/pub/open/x.txt").body, b"open")
        self.assertEqual(rawhttp.get(self.port, "/pub/open/deep/y.txt").body, b"deep")
        self.assertEqual(rawhttp.get(self.port, "/pub/closed/x.txt").status, 403)

    def test_exact_servlet_wins_over_the_longer_folder(self):
        self.assertEqual(rawhttp.get(self.port, "/one").body, b"the one")
        self.assertEqual(rawhttp.get(self.port, "/one/more").status, 404)

    def test_cacheable_servlet(self):
        response = rawhttp.get(self.port, "/kept/both.css")
        self.assertEqual(response.header("cache-control"), "max-age=31536000")
        self.assertIsNone(response.header("pragma"))
        expires = parsedate_to_datetime(response.header("expires")).timestamp()
        self.assertLess(abs(expires - time.time() - 31536000), 60)
        self.assertEqual(rawhttp.get(self.port, "/keptboth.css").body, b"plain")  # a prefix, not a folder's name
        self.assertEqual(rawhttp.get(self.port, "/kept/none").header("cache-control"), "no-store")

    def test_every_head_is_well_formed(self):
        for target in ("/app.js", "/both.css", "/none", "/pub/closed/x.txt"):
            response = rawhttp.get(self.port, target)
            for line in response.lines:
                self.assertRegex(line, re.compile(r"^[A-Za-z-]+: [\x20-\x7e]*$"))


if __name__ == "__main__":
    unittest.main()
