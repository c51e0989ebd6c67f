"""The start page that is made for each request, and the list of plug-ins."""

import contextlib
import os
import socket
import threading
import time
import unittest

import forwarding
import harness
import rawhttp
import tarnbus

DOCUMENTS = {"a.xml": '<www><server name="http"><servlet type="index" path="/"/>'
                      '<servlet type="dir" path="/" root="/home/web"/>'
                      '<servlet type="varnox" path="/plugins"/></server></www>'}
TEMPLATE = "/home/web/index2.html"
PLUGINS = "/home/web/varnox/"
# For how many seconds the server waits for the user service; a little less, to be sure.
USER_PATIENCE = 5.5
HIDDEN, DISABLED, NAME = ("b", 0x1c), ("b", 0xfe000a), ("s", 1)


class StartPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.system = harness.System(DOCUMENTS, {"a.txt": b"a"})
        cls.addClassCleanup(cls.system.close)
        cls.port = cls.system.serve("http")

    def page(self, template, host=rawhttp.LOOPBACK):
        self.system.write(TEMPLATE, template)
        with rawhttp.Connection.tcp(self.port, host) as connection:
            response = connection.get("/")
        self.assertEqual((response.status, response.header("content-type")), (200, "text/html"))
        return response.body

    def page_in_time(self, template):
        """The page; nothing when it took so long that the server may have given up waiting for the user service."""
        begun = time.monotonic()
        page = self.page(template)
        return page if time.monotonic() < begun + USER_PATIENCE else None

    def test_text_is_sent_as_it_is(self):
        for template in (b"<html>\0\xff\r\n</html>", b"x" * 300000):
            self.assertEqual(self.page(template), template)
        self.assertEqual(self.page("100%% 50%x %"), b"100% 50x ")

    def test_what_is_known_of_the_connection(self):
        self.assertEqual(self.page("http://%host%:%port%/"), b"http://127.0.0.1:%d/" % self.port)
        self.assertEqual(self.page("http://%host%:%port%/", "::1"), b"http://[::1]:%d/" % self.port)
        self.assertEqual(self.page("%varnox%"), b"/varnox/")
        version = self.system.path("/tarn/etc/version").read_bytes().strip()
        self.assertEqual(self.page("%version%"), version)
        self.system.write("/tarn/etc/version", "7.1rc2\nmore\n")
        self.assertEqual(self.page("%version%"), b"7.1rc2")

    def test_the_user_is_asked_for(self):
        service = forwarding.Answerer(self.system, lambda request: answer, id=13)
        self.addCleanup(service.close)
        for answer, expected in (({NAME: "ada"}, b"<ada>"), ({NAME: "ada", HIDDEN: True}, b"<>"),
                                 ({NAME: "ada", DISABLED: True}, b"<>"),
                                 ({NAME: "ada", DISABLED: False, HIDDEN: False}, b"<ada>"), ({}, b"<>"),
                                 ({("u", 1): 5}, b"<>"),
                                 ({tarnbus.ERROR_CODE: 0xfe0006, tarnbus.ERROR_TEXT: "no such user"}, b"<>")):
            page = harness.wait_until(lambda: self.page_in_time("<%user%>"), "a page before the server's patience ends")
            self.assertEqual(page, expected)
        fields = service.requests[0].fields
        self.assertEqual((fields[tarnbus.DESTINATION], service.requests[0].command, fields[("u", 0xfe0001)]),
                         ([1], 0xfe0002, 1))

    def test_without_a_user_service_the_page_comes_all_the_same(self):
        self.assertEqual(self.page("<%user%>"), b"<>")

    def test_methods(self):
        self.system.write(TEMPLATE, "page")
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.request("/", method="HEAD")
            head = connection.read_head()
            self.assertEqual((head.status, head.header("content-length")), (200, "4"))
            self.assertEqual(connection.get("/").body, b"page")
            connection.request("/", "Content-Length: 0", method="POST")
            refused = connection.read_response()
            self.assertEqual((refused.status, refused.header("allow")), (405, "GET, HEAD"))

    def test_it_goes_before_the_folder_and_stands_at_its_path_alone(self):
        self.system.write("/home/web/index.html", "the folder's")
        self.assertEqual(self.page("page"), b"page")
        self.assertEqual(rawhttp.get(self.port, "/?x=1").body, b"page")
        self.assertEqual(rawhttp.get(self.port, "/index.html").body, b"the folder's")
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")
        self.assertEqual(rawhttp.get(self.port, "/missing").status, 404)

    def test_templates_that_are_none(self):
        path = self.system.path(TEMPLATE)
        path.unlink(missing_ok=True)
        self.assertEqual(rawhttp.get(self.port, "/").status, 404)
        self.system.write("/rw/pckg/skin/home/web/index2.html", "of a package")
        self.assertEqual(rawhttp.get(self.port, "/").body, b"of a package")
        self.system.write(TEMPLATE, "")
        self.assertEqual(rawhttp.get(self.port, "/").status, 404)
        # What cannot be mapped stays open; that is known.
        self.await_open_templates(1)
        self.system.write(TEMPLATE, "of the system")
        self.assertEqual(rawhttp.get(self.port, "/").body, b"of the system")
        self.await_open_templates(1)

    def await_open_templates(self, count):
        """Once an answer has come, their number can only fall."""
        harness.wait_until(lambda: self.open_templates() == count, f"{count} open templates")

    def open_templates(self):
        folder = f"/proc/{self.system.programs['www'].pid}/fd"
        links = []
        for name in os.listdir(folder):
            with contextlib.suppress(FileNotFoundError):  # closed since
                links.append(os.readlink(f"{folder}/{name}"))
        return sum(link.endswith("/index2.html") for link in links)

    def test_plug_ins(self):
        folder = self.system.path(PLUGINS)
        self.assertEqual(rawhttp.get(self.port, "/plugins").status, 404)
        folder.mkdir()
        empty = rawhttp.get(self.port, "/plugins")
        self.assertEqual((empty.status, empty.header("content-type"), empty.body), (200, "text/plain", b""))
        for name, content in {"a.info": "one\ntwo\n", "b.info": "x" * 300, "c.info.bak": "no\n", ".d.info": "no\n",
                              "info": "no\n", "e.info": ""}.items():
            self.system.write(PLUGINS + name, content)
        body = rawhttp.get(self.port, "/plugins").body
        self.assertIn(body, (b"one\n" + b"x" * 255, b"x" * 255 + b"one\n"))
        self.assertEqual(rawhttp.get(self.port, "/plugins/").status, 404)


class WithoutAddress(harness.SystemTest):
    documents = {"a.xml": '<www><server name="tls" ssl="yes"><servlet type="index" path="/"/></server></www>'}
    web = {"index2.html": b"%host%:%port%"}

    def test_what_the_tls_service_gives_back_may_have_none(self):
        port = self.system.serve("tls")
        service = self.system.bus(id=12, name="tls")
        with rawhttp.Connection.tcp(port):
            request = service.receive()
            os.close(request.fd)
            ours, theirs = socket.socketpair()
            service.reply(request, {}, fd=theirs.fileno())
            theirs.close()
            with rawhttp.Connection(ours) as connection:
                self.assertEqual(connection.get("/").body, b"[::]:0")


class SilentUser(harness.SystemTest):
    """A user service that does not answer holds up everything, for six seconds a page and no longer."""

    documents = DOCUMENTS
    web = {"a.txt": b"a", "index2.html": b"<%user%>"}

    def test_pages_come_and_the_bus_is_heard_in_between(self):
        port = self.system.serve("http")
        self.system.bus(id=13, name="silent")
        www = self.system.bus_id("www")
        probe = self.system.bus()
        order = []

        def ask():
            probe.request([www], 0xfe0101)
            order.append("answer")

        def read(connection, name):
            self.assertEqual(connection.read_response().body, b"<>")
            order.append(name)

        with rawhttp.Connection.tcp(port) as first, rawhttp.Connection.tcp(port) as second, \
                rawhttp.Connection.tcp(port) as other:
            for connection in (first, second):
                connection.request("/")
            time.sleep(0.2)
            other.request("/a.txt")
            threads = [threading.Thread(target=ask), threading.Thread(target=read, args=(first, "first")),
                       threading.Thread(target=read, args=(second, "second"))]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            # What the supervisor asks is answered between the two pages, long before it loses its patience.
            self.assertNotEqual(order[-1], "answer")
            self.assertEqual(len(order), 3)
            self.assertEqual(other.read_response().body, b"a")


if __name__ == "__main__":
    unittest.main()
