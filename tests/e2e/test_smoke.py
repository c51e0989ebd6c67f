"""From a server record on the real bus to a page over TCP, and a server that moves while the system runs."""

import io
import tarfile
import unittest

import harness
import rawhttp


class Record(harness.SystemTest):
    def test_a_record_opens_a_listener_and_the_page_comes(self):
        port = self.system.serve("http")
        response = rawhttp.get(port, "/")
        self.assertEqual(response.status, 200)
        self.assertEqual(response.header("content-type"), "text/html")
        template = self.system.path("/home/web/index2.html").read_text()
        version = self.system.path("/tarn/etc/version").read_text().strip()
        for name, value in {"version": version, "host": rawhttp.LOOPBACK, "port": str(port), "user": "", "varnox": "/varnox/"}.items():
            self.assertIn(f"%{name}%", template)
            template = template.replace(f"%{name}%", value)
        self.assertEqual(response.body.decode(), template)
        self.assertEqual(rawhttp.get(port, "/index.html").body, response.body)

    def test_the_desktop_client_is_there(self):
        port = self.system.serve("http")
        self.assertIn(b'href="/varnox/tn-remote.tgz"', rawhttp.get(port, "/varnox/").body)
        packed = rawhttp.get(port, "/varnox/tn-remote.tgz").body
        with tarfile.open(fileobj=io.BytesIO(packed)) as archive:
            self.assertEqual(sorted(archive.getnames()), ["tn-remote/messages.py", "tn-remote/tn-remote", "tn-remote/tunnel.py"])
        self.assertIn(b"tn-remote:", rawhttp.get(port, "/varnox/list").body)

    def test_there_is_no_listener_before_the_record(self):
        port = harness.free_port()
        self.system.start("busd", "www")
        self.system.bus_id("www")
        self.assertTrue(rawhttp.refuses(port))
        self.system.serve("http", port)
        self.assertEqual(rawhttp.get(port, "/favicon.ico").status, 200)

    def test_every_file_of_the_shipped_tree_is_served(self):
        port = self.system.serve("http")
        tree = self.system.path("/home/web")
        files = sorted(path for path in tree.rglob("*") if path.is_file())
        self.assertGreater(len(files), 5)
        for file in files:
            target = "/" + str(file.relative_to(tree)).removesuffix(".gz")
            compressed = not (tree / target[1:]).exists()
            with self.subTest(target):
                response = rawhttp.get(port, target, "Accept-Encoding: gzip")
                self.assertEqual(response.status, 200)
                self.assertEqual(response.header("content-encoding"), "gzip" if compressed else None)
                self.assertEqual(response.body, (tree / target[1:]).read_bytes() if not compressed else file.read_bytes())


class Manager(harness.SystemTest):
    def test_tn_moves_the_listener_while_the_system_runs(self):
        first, second = harness.free_port(), harness.free_port()
        self.system.start("busd", "sermgr", "www")
        self.move(first)
        self.move(second)
        self.assertTrue(rawhttp.refuses(first))

    def test_what_was_moved_stays_there_after_a_restart(self):
        port = harness.free_port()
        self.system.start("busd", "sermgr", "www")
        self.move(port)
        for name in ("www", "sermgr", "busd"):
            self.system.stop(name)
        self.system.start("busd", "sermgr", "www")
        harness.wait_until(lambda: rawhttp.answers(port), "the page to be there again")

    def move(self, port):
        self.system.bus_id("sermgr")
        result = self.system.tn("call", "68/1", "set", f"{{s1:'http',u2:{port}}}")
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        # A server that asks for its record while it is told opens its listener twice.
        harness.wait_until(lambda: rawhttp.answers(port), f"the page on port {port}")


if __name__ == "__main__":
    unittest.main()
