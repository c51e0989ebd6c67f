"""Files that change as fast as they can, and requests that must see each change made before they were sent."""

import contextlib
import gzip
import os
import random
import shutil
import threading
import time
import unittest

import harness
import rawhttp

STEPS = 500
SWAPS = 1500
GZIP = "Accept-Encoding: gzip"
# After so many seconds without a request another connection is taken: the server ends one that is idle for two.
IDLE = 1


class Owner(threading.Thread):
    """Changes what has a name of its own in folders that it shares with others, and asks for it after each change."""

    def __init__(self, web, port, name):
        super().__init__(daemon=True)
        self.web, self.port, self.name = web, port, name
        self.random = random.Random(name)
        self.count = 0
        self.trouble = None
        self.connection, self.used = rawhttp.Connection.tcp(port), time.monotonic()
        self.places = [f"open/{name}", f"open/sub/{name}", f"open/{name}/index.html", f"public/{name}/page",
                       f"file-{name}"]

    def run(self):
        try:
            for _ in range(STEPS):
                place = self.random.choice(self.places)
                with contextlib.suppress(FileNotFoundError, FileExistsError, NotADirectoryError, IsADirectoryError,
                                         OSError):
                    self.change(self.web / place)
                for _ in range(self.random.randrange(1, 4)):
                    self.ask(self.random.choice([place, place, self.random.choice(self.places)]))
        except Exception as trouble:  # pylint: disable=broad-except
            self.trouble = trouble
        finally:
            self.connection.close()

    def content(self):
        self.count += 1
        return (f"{self.name} {self.count} " * self.random.randrange(1, 200)).encode()

    def change(self, path):
        """One completed change, of any kind."""
        other = path.with_name(path.name + "-other")
        packed = path.with_name(path.name + ".gz")
        way = self.random.randrange(14)
        if way in (0, 1):
            path.write_bytes(self.content())
        elif way in (2, 3):
            other.write_bytes(self.content())
            other.replace(path)
        elif way == 4:
            path.unlink()
        elif way == 5:
            os.truncate(path, self.random.randrange(0, 50))
        elif way == 6:
            with path.open("r+b") as file:
                file.write(self.content()[:20])
        elif way == 7:
            path.rename(other)
        elif way == 8:
            other.rename(path)
        elif way == 9:
            packed.write_bytes(gzip.compress(self.content()))
        elif way == 10:
            packed.unlink()
        elif way == 11:
            shutil.rmtree(path) if path.is_dir() else path.mkdir(parents=True)
        elif way == 12:
            (path / "index.html").write_bytes(self.content())
        else:
            self.change_folder(path.parent)

    def change_folder(self, folder):
        """Folders that are this owner's alone: the marker comes and goes, the folder is exchanged or goes."""
        if folder.name != self.name:
            return
        marker = folder / ".public"
        aside = folder.with_name(folder.name + "-aside")
        way = self.random.randrange(4)
        if way == 0:
            marker.unlink() if marker.exists() else marker.touch()
        elif way == 1:
            shutil.rmtree(folder)
        elif way == 2:
            folder.rename(aside)
        else:
            folder.mkdir(exist_ok=True)
            (folder / "page").write_bytes(self.content())
            marker.touch()

    def expected(self, place):
        """Status and body, by the rules of the server."""
        path = self.web / place
        if place.startswith("public/") and not any((up / ".public").exists() for up in (path.parent, path)):
            return 403, None
        while path.is_dir():
            path = path / "index.html"
        if path.exists():
            return 200, path.read_bytes()
        packed = path.with_name(path.name + ".gz")
        return (200, packed.read_bytes()) if packed.exists() else (404, None)

    def ask(self, place):
        status, body = self.expected(place)
        if time.monotonic() > self.used + IDLE:
            self.connection.close()
            self.connection = rawhttp.Connection.tcp(self.port)
        response = self.connection.get("/" + place, GZIP)
        self.used = time.monotonic()
        if response.status != status or (body is not None and response.body != body):
            raise AssertionError(f"{place}: {response.status} {response.body[:40]} instead of {status} {body and body[:40]}")


class Neighbour(threading.Thread):
    """Makes noise in the same folders."""

    def __init__(self, web):
        super().__init__(daemon=True)
        self.web = web
        self.over = threading.Event()

    def run(self):
        noise = [self.web / "open/noise", self.web / "noise", self.web / "public/noise"]
        while not self.over.is_set():
            for path in noise:
                path.write_bytes(b"noise")
                path.unlink()


class Fresh(harness.SystemTest):
    documents = {"a.xml": '<www><server name="http"><servlet type="dir" path="/open" root="/home/web/open"/>'
                          '<servlet type="pubdir" path="/public" root="/home/web/public"/>' + "".join(
                              f'<servlet type="dir" path="/file-{name}" root="/home/web/file-{name}"/>'
                              for name in "abc") + "</server></www>"}
    web = {"open/sub/x": b"", "public/x": b"", "swapped": b""}

    def setUp(self):
        super().setUp()
        self.port = self.system.serve("http")
        self.folder = self.system.path("/home/web")

    def test_every_change_is_seen_by_the_next_request(self):
        neighbour = Neighbour(self.folder)
        owners = [Owner(self.folder, self.port, name) for name in "abc"]
        neighbour.start()
        for owner in owners:
            owner.start()
        for owner in owners:
            owner.join()
        neighbour.over.set()
        neighbour.join()
        for owner in owners:
            if owner.trouble:
                raise owner.trouble

    def test_a_request_during_a_change_sees_one_of_the_two(self):
        path = self.folder / "open" / "swapped"
        versions = {b"a" * 3000: 1000000000, b"b" * 9000: 1100000000, b"c" * 40000: 1200000000}
        dates = dict(zip(versions, ["Sun, 09 Sep 2001 01:46:40 GMT", "Tue, 09 Nov 2004 11:33:20 GMT",
                                    "Thu, 10 Jan 2008 21:20:00 GMT"]))
        over = threading.Event()

        def swap():
            while not over.is_set():
                for body, when in versions.items():
                    fresh = path.with_name("fresh")
                    fresh.write_bytes(body)
                    os.utime(fresh, (when, when))
                    fresh.replace(path)

        changer = threading.Thread(target=swap, daemon=True)
        changer.start()
        harness.wait_until(path.exists, "the first version")
        seen = set()
        try:
            deadline = time.monotonic() + harness.PATIENCE
            with rawhttp.Connection.tcp(self.port) as connection:
                count = 0
                # More of them where the changer was not given its turn.
                while count < SWAPS or len(seen) < len(versions) and time.monotonic() < deadline:
                    response = connection.get("/open/swapped")
                    self.assertEqual(response.status, 200)
                    self.assertEqual(response.header("last-modified"), dates.get(response.body))
                    seen.add(response.body)
                    count += 1
        finally:
            over.set()
            changer.join()
        self.assertEqual(len(seen), len(versions))


if __name__ == "__main__":
    unittest.main()
