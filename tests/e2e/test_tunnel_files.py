"""Files of the user's store through the tunnel: who may read and write what, and every way in which it can go wrong."""

import io
import os
import socket
import stat
import subprocess
import unittest

import harness
import rawhttp
import tunnelbox
from tunnelbox import tunnel

READ, WRITE, SENSITIVE = 0x50, 0x90, 0x4000
BOUNDARY = "xyz"
FORM = f"multipart/form-data; boundary={BOUNDARY}"


class FilesTest(tunnelbox.TunnelTest):
    def session(self, policies, text="admin"):
        """A session of a user with these policies."""
        self.login_service.behave = lambda bus, message: bus.reply(message, tunnelbox.grant(policies, text))
        return self.log_in()

    def get(self, box, name):
        """Status and body of a GET for a name."""
        status, _, body = box.request("GET", "/jsproxy" + box.query(name.encode() if isinstance(name, str) else name))
        return status, body

    def status(self, box, name):
        return self.get(box, name)[0]

    def put(self, box, name, content=b"content"):
        name = name.encode() if isinstance(name, str) else name
        return box.request("POST", "/jsproxy/put" + box.query(name), content)[0]

    def form(self, name="a.txt", data=b"data", boundary=BOUNDARY):
        disposition = 'form-data; name="f"' + (f'; filename="{name}"' if name is not None else "")
        return (f"--{boundary}\r\nContent-Disposition: {disposition}\r\n\r\n".encode() + data
                + f"\r\n--{boundary}--\r\n".encode())

    def upload(self, box, body, content_type=FORM):
        headers = {"Content-Type": content_type} if content_type is not None else {}
        return box.request("POST", "/jsproxy/upload" + box.query(), body, headers)[0]

    def stored(self, name):
        return self.system.path("/rw/disk/" + name).read_bytes()

    def all_stored(self):
        root = self.system.path("/rw/disk")
        return sorted(str(path.relative_to(root)) for path in root.rglob("*") if not path.is_dir())


class Reading(FilesTest):
    def setUp(self):
        super().setUp()
        self.system.write("/rw/disk/a.txt", b"a file")
        self.system.write("/rw/disk/folder/b.json", b"{}")
        self.system.write("/rw/disk/box.backup", b"secret")
        self.system.write("/rw/disk/private/x", b"secret")
        self.system.write("/flash/c.txt", b"in flash")

    def test_what_is_read(self):
        box = self.session(READ)
        self.assertEqual(self.get(box, "a.txt"), (200, b"a file"))
        self.assertEqual(self.get(box, "/folder/b.json"), (200, b"{}"))
        self.assertEqual(self.get(box, "/flash/c.txt"), (200, b"in flash"))
        status, headers, body = box.request("GET", "/jsproxy" + box.query(b"folder/b.json"))
        self.assertEqual((headers["Content-Type"], headers["Content-Length"]), ("application/json", "2"))
        # Of the file as of any other: ranges, and the head alone (which ends the connection).
        status, headers, body = box.request("GET", "/jsproxy" + box.query(b"a.txt"), headers={"Range": "bytes=2-"})
        self.assertEqual((status, headers["Content-Range"], body), (200, "bytes 2-5/6", b"file"))
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.request("/jsproxy/below" + box.query(b"a.txt"), method="HEAD")
            head = connection.read_head()
            self.assertEqual((head.status, head.header("content-length")), (200, "6"))

    def test_who_may(self):
        for policies in (0, 0x10, 0x40, WRITE, 0xffffffff & ~0x50, SENSITIVE):
            box = self.session(policies)
            self.assertEqual(self.status(box, "a.txt"), 403, policies)
            self.assertEqual(self.status(box, "no such file"), 403, policies)
        for policies, expected in ((READ, 403), (READ | SENSITIVE, 200), (0xffffffff, 200)):
            box = self.session(policies)
            for name in ("box.backup", "private/x"):
                self.assertEqual(self.status(box, name), expected, (policies, name))
            self.assertEqual(self.status(box, "a.txt"), 200)
        self.assertEqual(self.status(self.meet(), "a.txt"), 403)

    def test_what_is_not_there(self):
        box = self.session(0xffffffff)
        os.mkfifo(self.system.path("/rw/disk/pipe"))
        for name in ("", "none", "folder", "folder/", "a.txt/x", "pipe", "../../etc/passwd", "./a.txt", "/", "//a.txt", "a\0.txt",
                     "a.txt\n", "x" * 300, "/flash/none", "/rw/disk/a.txt", b"\xff\xfe", "x/" * 200):
            self.assertEqual(self.status(box, name), 404, name)

    def test_links_that_leave_the_store(self):
        box = self.session(0xffffffff)
        disk = self.system.path("/rw/disk")
        self.system.write("/rw/store/secret", b"secret")
        (disk / "out").symlink_to("/rw/store")
        (disk / "file").symlink_to("/rw/store/secret")
        (disk / "up").symlink_to("..")
        (disk / "nowhere").symlink_to("/nowhere")
        (disk / "within").symlink_to("folder")
        for name in ("out/secret", "file", "up/store/secret", "nowhere", "nowhere/x"):
            self.assertEqual(self.status(box, name), 404, name)
            self.assertEqual(self.put(box, name), 403, name)
        self.assertEqual(self.get(box, "within/b.json"), (200, b"{}"))
        self.assertEqual(self.system.path("/rw/store/secret").read_bytes(), b"secret")
        self.assertFalse(self.system.path("/nowhere").exists())

    def test_skins(self):
        self.system.write("/rw/disk/skins/admin.json", b"of the store")
        self.system.write("/rw/disk/skins/other.json", b"another")
        nobody = self.session(0)
        self.assertEqual(self.get(nobody, "/skins/admin.json"), (200, b"of the store"))
        for name in ("/skins/other.json", "skins/admin.json", "/skins/admin.jso", "/skins/admin.json\0"):
            self.assertEqual(self.status(nobody, name), 403, name)
        self.assertEqual(self.status(self.session(0, "none"), "/skins/none.json"), 404)
        # One that came with the system wins over the store, one of a package does not.
        self.system.write("/rw/pckg/x/skins/admin.json", b"of a package")
        self.assertEqual(self.get(nobody, "/skins/admin.json"), (200, b"of the store"))
        self.system.write("/home/web/skins/admin.json", b"of the system")
        self.assertEqual(self.get(nobody, "/skins/admin.json"), (200, b"of the system"))
        # In the flash, on a box that has one.
        box = self.session(READ)
        self.system.write("/flash/skins/other.json", b"in flash")
        self.assertEqual(self.get(box, "skins/other.json"), (200, b"another"))
        self.system.path("/rw/pckg/flash").mkdir()
        self.assertEqual(self.get(box, "skins/other.json"), (200, b"in flash"))
        self.assertEqual(self.get(box, "/skins/other.json"), (200, b"another"))

    def test_queries(self):
        box = self.session(READ)
        query = box.query(b"a.txt")
        self.assertEqual(box.request("GET", "/jsproxy" + query)[::2], (200, b"a file"))
        # Used up.
        self.assertEqual(box.request("GET", "/jsproxy" + query)[0], 403)
        for bad in ("", "?", "?abc", "?%", "?" + "a" * 40 + "%4", "?" + "a" * 15, "?" + "%ff" * 40, "?" + "a" * 40 + "%c3", "?%00"):
            self.assertEqual(box.request("GET", "/jsproxy" + bad)[0], 404, bad)
        for unknown in ("?" + "a" * 16, "?" + "%zz" * 40):
            self.assertEqual(box.request("GET", "/jsproxy" + unknown)[0], 403, unknown)
        forged = box.query(b"a.txt")
        self.assertEqual(box.request("GET", "/jsproxy" + forged[:-1] + ("1" if forged[-1] != "1" else "2"))[0], 403)
        self.assertEqual(box.request("GET", "/jsproxy" + forged)[0], 200)
        self.expect_log(["bad seq", "bad padding"], "bad padding", "bad seq")


class Writing(FilesTest):
    def test_put(self):
        box = self.session(WRITE)
        status, headers, body = box.request("POST", "/jsproxy/put" + box.query(b"a.txt"), b"content")
        self.assertEqual((status, headers["Content-Type"], body), (200, "text/plain", b"stored"))
        self.assertEqual(self.stored("a.txt"), b"content")
        self.assertEqual(self.put(box, "a.txt", b"less"), 200)
        self.assertEqual(self.stored("a.txt"), b"less")
        self.assertEqual(self.put(box, "/empty", b""), 200)
        self.assertEqual(self.stored("empty"), b"")
        large = os.urandom(3000001)
        self.assertEqual(self.put(box, "new/folder/large", large), 200)
        self.assertEqual(self.stored("new/folder/large"), large)
        self.assertEqual(self.put(box, "/flash/x", b"in flash"), 200)
        self.assertEqual(self.system.path("/flash/x").read_bytes(), b"in flash")

    def test_put_over_one_connection(self):
        box = self.session(WRITE)
        with rawhttp.Connection.tcp(self.port) as connection:
            for number in range(3):
                connection.request("/jsproxy/put" + box.query(b"n%d" % number), method="POST", body=b"%d" % number)
                self.assertEqual(connection.read_response().status, 200)
        self.assertEqual([self.stored(f"n{n}") for n in range(3)], [b"0", b"1", b"2"])

    def test_upload(self):
        box = self.session(WRITE)
        target = "/jsproxy/upload" + box.query()
        status, headers, _ = box.request("POST", target, self.form(), {"Content-Type": FORM})
        self.assertEqual((status, headers["Location"], headers["Content-Type"]),
                         (303, "/lorvan/uploader.html", "text/html"))
        self.assertEqual(self.stored("a.txt"), b"data")
        self.expect_log(['Content-Disposition: form-data; name="f"; filename="a.txt"'], "Content-Disposition")
        large = os.urandom(200001) + b"\r\n--xy" + b"\r\n-"
        self.assertEqual(self.upload(box, self.form(data=large)), 303)
        self.assertEqual(self.stored("a.txt"), large)
        self.assertEqual(self.upload(box, self.form(boundary=""), "multipart/form-data; boundary="), 303)
        self.assertEqual(self.stored("a.txt"), b"data")
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.request(target, method="POST", body=b"x")
            self.assertEqual(connection.read_response().reason, "Forbidden")

    def test_the_status_line_of_an_upload(self):
        box = self.session(WRITE)
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.request("/jsproxy/upload" + box.query(), f"Content-Type: {FORM}", method="POST", body=self.form())
            self.assertEqual(connection.read_response().status_line, "HTTP/1.1 303 Use Instead")

    def test_names_of_uploads(self):
        box = self.session(WRITE | SENSITIVE)
        for name, stored in (("C:\\dir\\a.txt", "a.txt"), (None, "upload"), ("", "upload"), ("new/b.txt", "new/b.txt"),
                             ("/c.txt", "c.txt"), ("\u00e4.txt", "\u00e4.txt"), ("x.key", "x.key")):
            self.assertEqual(self.upload(box, self.form(name)), 303, name)
            self.assertEqual(self.stored(stored), b"data")
        before = self.all_stored()
        for name in ("..", "../x", "a/../../x", "/../x", "x//y", "./x", ".", "folder/", "/", "new", "x" * 300,
                     "/rw/../../../etc/x"):
            self.assertEqual(self.upload(box, self.form(name)), 403, name)
            self.assertEqual(self.put(box, name), 403, name)
        self.assertEqual(self.put(box, b"a\0b"), 403)
        self.assertEqual(self.put(box, b""), 403)
        self.assertEqual(self.all_stored(), before)

    def test_who_may(self):
        self.system.write("/rw/disk/x.key", b"old")
        for policies in (0, 0x80, 0x10, READ, 0xffffffff & ~0x80, 0xffffffff & ~0x10):
            box = self.session(policies)
            self.assertEqual(self.put(box, "x"), 403, policies)
            self.assertEqual(self.upload(box, self.form()), 403, policies)
            # Before anybody asks whether it is a form at all.
            self.assertEqual(self.upload(box, b"x", None), 403, policies)
        box = self.session(WRITE)
        for name in ("x.key", "private/x", "y.PEM"):
            self.assertEqual(self.put(box, name), 403)
            self.assertEqual(self.upload(box, self.form(name)), 403)
        self.assertEqual(self.all_stored(), ["x.key"])
        self.assertEqual(self.stored("x.key"), b"old")
        self.assertEqual(self.put(self.session(WRITE | SENSITIVE), "private/x"), 200)

    def test_queries(self):
        box = self.session(WRITE)
        for path in ("put", "upload"):
            for bad in ("", "?", "?abc", "?%", "?" + "%ff" * 40, "?" + "a" * 15, "?" + "a" * 16):
                status = box.request("POST", f"/jsproxy/{path}{bad}", b"x", {"Content-Type": FORM})[0]
                self.assertEqual(status, 403, bad)
            query = box.query(b"a")
            box.request("POST", f"/jsproxy/{path}{query}", self.form(), {"Content-Type": FORM})
            status = box.request("POST", f"/jsproxy/{path}{query}", self.form(), {"Content-Type": FORM})[0]
            self.assertEqual(status, 403)

    def test_forms_that_are_none(self):
        box = self.session(WRITE)
        for content_type in (None, "", "text/plain", "multipart/form-data", "Multipart/form-data; boundary=xyz",
                             "multipart/form-data;boundary=xyz", "multipart/form-data; charset=x; boundary=xyz"):
            self.assertEqual(self.upload(box, self.form(), content_type), 400, content_type)
        for body in (b"x\r\n", b"--xyzz\r\n", b"--xyz--\r\n", b"\r\n--xyz\r\n"):
            self.assertEqual(self.upload(box, body + self.form()), 400, body)
        harness.wait_until(lambda: len(self.log_lines("bad boundary line")) == 4, "the bad lines to be told")
        for line in (b"no header", b"X : y", b": y", b"X" * 511 + b": y", b"X: " + b"y" * 600):
            body = b"--xyz\r\n" + line + b"\r\n\r\ndata\r\n--xyz--\r\n"
            self.assertEqual(self.upload(box, body), 400, line)
        self.assertEqual(self.upload(box, b"--" + b"x" * 4000 + b"\r\n\r\n", "multipart/form-data; boundary=" + "x" * 4000), 400)
        self.assertEqual(self.upload(box, b"--xyz\r\nX: " + b"y" * 1000000), 400)
        self.assertEqual(self.all_stored(), [])
        self.assertEqual(len(self.log_lines("bad boundary line")), 4)

    def test_uploads_that_end_before_their_file(self):
        """At every byte, with a length that fits: there is an answer, and only the whole one is good."""
        box = self.session(WRITE)
        body = self.form()
        whole = len(body) - len(b"--\r\n")
        with rawhttp.Connection.tcp(self.port) as connection:
            for length in range(1, len(body) + 1):
                connection.request("/jsproxy/upload" + box.query(), f"Content-Type: {FORM}", method="POST",
                                   body=body[:length])
                response = connection.read_response()
                self.assertEqual(response.status, 303 if length >= whole else 400, length)
                if response.header("connection") == "close":
                    connection.close()
                    connection = rawhttp.Connection.tcp(self.port)
                    self.addCleanup(connection.close)

    def test_connections_that_end_in_the_middle(self):
        box = self.session(WRITE)
        self.put(box, "warm")
        box.close()
        before = self.system.programs["www"].descriptors()
        body = self.form(data=b"d" * 30)
        for length in range(0, len(body) - len(b"--\r\n"), 3):
            with rawhttp.Connection.tcp(self.port) as connection:
                connection.send(f"POST /jsproxy/upload{box.query()} HTTP/1.1\r\nHost: x\r\nContent-Type: {FORM}\r\n"
                                f"Content-Length: {len(body)}\r\n\r\n".encode() + body[:length])
                connection.socket.shutdown(socket.SHUT_WR)
                self.assertEqual(connection.read_to_end(), b"", length)
        for length in (0, 1, 50):
            with rawhttp.Connection.tcp(self.port) as connection:
                connection.send(f"POST /jsproxy/put{box.query(b'half')} HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n"
                                .encode() + b"p" * length)
                connection.socket.shutdown(socket.SHUT_WR)
                self.assertEqual(connection.read_to_end(), b"", length)
            self.assertEqual(self.stored("half"), b"p" * length)
        harness.wait_until(lambda: self.system.programs["www"].descriptors() <= before, "files and sockets to be closed")

    def test_without_a_length(self):
        """The body goes on until the connection ends; the file holds it then, though nobody is there to be told."""
        box = self.session(WRITE)
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.send(f"POST /jsproxy/put{box.query(b'x')} HTTP/1.1\r\nHost: x\r\n\r\ncontent")
            connection.socket.shutdown(socket.SHUT_WR)
            self.assertEqual(connection.read_to_end(), b"")
        self.assertEqual(self.stored("x"), b"content")

    def test_what_stands_in_the_way(self):
        box = self.session(WRITE)
        disk = self.system.path("/rw/disk")
        (disk / "folder").mkdir()
        os.mkfifo(disk / "pipe")
        self.system.write("/rw/disk/file", b"file")
        for name in ("folder", "pipe", "file/below"):
            self.assertEqual(self.put(box, name), 403, name)
            self.assertEqual(self.upload(box, self.form(name)), 403, name)
        self.assertTrue(stat.S_ISFIFO(os.lstat(disk / "pipe").st_mode))
        self.assertEqual(self.stored("file"), b"file")


class FullStore(FilesTest):
    """A store that takes no more. A limit on the size of files stands in for a full disk: both fail the same write."""

    SIZE = 1 << 20

    def test_full(self):
        pid = self.system.programs["www"].pid
        subprocess.run(["prlimit", "--pid", str(pid), f"--fsize={self.SIZE}"], check=True)
        box = self.session(WRITE)
        self.assertEqual(self.put(box, "fits", b"x" * self.SIZE), 200)
        for answer in (self.put(box, "put", b"x" * (self.SIZE + 1)),
                       self.upload(box, self.form("form", b"x" * (self.SIZE + 100000)))):
            self.assertEqual(answer, 507)
        harness.wait_until(lambda: len(self.log_lines("write: File too large")) == 2, "both to be told")
        self.assertEqual(self.put(box, "again", b"x"), 200)

    def test_read_only(self):
        """Whoever is root writes where permissions forbid it; so the file is one that the kernel lets nobody write."""
        box = self.session(WRITE)
        # The server's own, or the emulator that runs it.
        name = os.path.basename(os.readlink(f"/proc/{self.system.programs['www'].pid}/exe"))
        os.link(self.system.path(f"/bin/{name}"), self.system.path("/rw/disk/program"))
        self.assertEqual(self.put(box, "program"), 403)
        self.assertEqual(self.upload(box, self.form("program")), 403)
        self.assertEqual(self.status(self.session(READ), "program"), 200)


if __name__ == "__main__":
    unittest.main()
