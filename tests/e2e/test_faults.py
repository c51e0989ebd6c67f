"""What breaks around the server: the broker under load, the reader of the log, hostile frames and documents."""

import fcntl
import os
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

import harness
import rawhttp
import tarnbus

F_SETPIPE_SZ = 1031


class Broker(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a"}

    def setUp(self):
        super().setUp()
        self.port = self.system.serve("http")

    def test_killed_and_started_again_under_load(self):
        """Pages go on without the broker, and records arrive again once it is back."""
        failures = []
        stop = threading.Event()

        def load():
            while not stop.is_set():
                try:
                    if rawhttp.get(self.port, "/a.txt").body != b"a":
                        failures.append("wrong body")
                except (OSError, EOFError) as trouble:
                    failures.append(repr(trouble))

        clients = [threading.Thread(target=load) for _ in range(3)]
        for client in clients:
            client.start()
        try:
            for _ in range(3):
                self.system.restart("busd")
                self.system.bus_id("www")
                time.sleep(0.2)
        finally:
            stop.set()
            for client in clients:
                client.join()
        self.assertEqual(failures, [])
        moved = harness.free_port()
        reply = self.system.send_record(tarnbus.record("http", moved))
        self.assertFalse(tarnbus.is_error(reply))
        self.assertEqual(rawhttp.get(moved, "/a.txt").body, b"a")

    def test_gone_for_a_while(self):
        self.system.kill("busd")
        www = self.system.programs["www"]
        ticks = www.processor_ticks()
        time.sleep(2)
        self.assertLess(www.processor_ticks() - ticks, 40)
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")
        self.system.start("busd")
        self.system.bus_id("www")

    def test_started_after_the_server(self):
        self.system.stop("www")
        self.system.stop("busd")
        self.system.programs["www"] = harness.Program(self.system, "www")
        time.sleep(0.5)
        self.system.start("busd")
        port = harness.free_port()
        self.system.send_record(tarnbus.record("http", port))
        self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")

    def raw(self):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.settimeout(rawhttp.TIMEOUT)
        sock.connect(str(self.system.bus_path))
        self.addCleanup(sock.close)
        return sock

    def test_hostile_frames(self):
        for frame in (struct.pack("<III", 0xFFFFFFFF, 0, 2), struct.pack("<III", (4 << 20) + 1, 0, 2),
                      struct.pack("<III", 2, 0, 9) + b"M2", struct.pack("<III", 2, 0, 0) + b"M2",
                      struct.pack("<III", 4, 0, 2) + b"XXXX", struct.pack("<III", 0, 0, 2)):
            with self.subTest(frame=frame):
                sock = self.raw()
                sock.sendall(frame)
                self.read_to_end(sock)
        self.assertTrue(self.system.bus_id("www"))

    @staticmethod
    def read_to_end(sock):
        """Returns once the broker has ended the connection."""
        try:
            while sock.recv(4096):
                pass
        except ConnectionResetError:
            pass

    def test_hostile_messages_to_the_server(self):
        """Whatever a program sends, the server answers others and keeps no descriptor."""
        www = self.system.bus_id("www")
        client = self.system.bus()
        descriptors = self.system.programs["www"].descriptors()
        read_end, write_end = os.pipe()
        try:
            for payload in (b"", b"M", b"M2", b"M2\x01", b"XX" + bytes(50), b"M2" + bytes([0xff] * 60),
                            b"M2" + struct.pack("<I", 0x88ff0001) + b"\xff\xff", b"M2" + bytes(60000)):
                client.send_payload(www, payload)
                client.send_payload(www, payload, fd=read_end)
            client.send([www, 1], tarnbus.SET, {("u", 0xff0015): 7})
            client.send([www, 1], tarnbus.SET, {("u", 0xff0015): 7}, fd=read_end)
            client.send([www, 77], tarnbus.SET, {("u", 0xff0015): 7}, fd=read_end)
            client.send([www], 0xfe010d, {("u", 0xff000b): 0})
        finally:
            os.close(read_end)
            os.close(write_end)
        reply = client.request([www, 1], 0x12345, {})
        self.assertEqual(tarnbus.error_of(reply), (0xfe0007, "unknown command"))
        reply = client.request([www, 77], 0x12345, {})
        self.assertEqual(tarnbus.error_of(reply)[0], 0xfe0006)
        self.assertEqual(self.system.programs["www"].descriptors(), descriptors)
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")

    def test_stopped_server_does_not_stop_the_bus(self):
        """A program that takes nothing fills its own queue and nobody else's."""
        www = self.system.programs["www"]
        www_id = self.system.bus_id("www")
        client = self.system.bus()
        other = self.system.bus(name="other")
        www.signal(signal.SIGSTOP)
        try:
            for _ in range(40):
                client.send([www_id, 1], tarnbus.SET, {("r", n): bytes(60000) for n in range(8)})
            self.assertEqual(other.list(), client.list())
        finally:
            www.signal(signal.SIGCONT)
        self.assertEqual(rawhttp.get(self.port, "/a.txt").body, b"a")


class Log(harness.SystemTest):
    documents = {"a.xml": harness.directory_server("http", "/home/web")}
    web = {"a.txt": b"a"}

    def test_stalled_reader_of_the_log(self):
        """Nobody reads the log: lines are dropped and counted, pages are served."""
        self.system.start("busd")
        read_end, write_end = os.pipe()
        fcntl.fcntl(write_end, F_SETPIPE_SZ, 4096)
        prefix = ["/bin/qemu-ppc-static"] if harness.is_foreign(self.system.root / "bin/www") else []
        process = subprocess.Popen([harness.ENTER, self.system.root, *prefix, "/bin/www"], stdout=write_end,
                                   stdin=subprocess.DEVNULL, start_new_session=True)
        os.close(write_end)
        try:
            port = harness.free_port()
            self.system.send_record(tarnbus.record("http", port))
            for _ in range(3000):
                self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")
            # The reader goes on: it gets whole lines, and is told how many it missed.
            os.set_blocking(read_end, False)
            text = b""

            def told():
                nonlocal text
                rawhttp.get(port, "/a.txt")
                try:
                    text += os.read(read_end, 65536)
                except BlockingIOError:
                    pass
                return b" lines dropped\n" in text

            harness.wait_until(told, "the count of dropped lines")
            allowed = ("acceptConnection", "adding ", "set http", "creating ", "using ", "log: ", "no settings")
            # The last one may still be on its way.
            for line in text[:text.rindex(b"\n")].decode().splitlines():
                self.assertTrue(line.startswith(allowed), line)
        finally:
            os.close(read_end)
            os.killpg(process.pid, signal.SIGTERM)
            process.wait()


class Documents(harness.SystemTest):
    BOMB = ('<?xml version="1.0"?><!DOCTYPE a [<!ENTITY a "aaaaaaaaaa">' +
            "".join(f'<!ENTITY {chr(98 + n)} "{("&" + chr(97 + n) + ";") * 10}">' for n in range(9)) + ']><a>&j;</a>')
    documents = {
        "bomb.xml": BOMB,
        "deep.xml": "<a>" * 100000,
        "empty.xml": "",
        "cut.xml": '<www><server name="http"><servlet type="dir" path="/" root="/home',
        "binary.xml": "\x01\x02\ufffe",
        "wrong.xml": "<www><server name='http'></www></server>",
        "entity.xml": "<www><server name='&undefined;'/></www>",
        "huge.xml": "<www><!--" + "x" * (3 << 20) + "--></www>",
        "zgood.xml": harness.directory_server("http", "/home/web"),
    }
    web = {"a.txt": b"a"}

    def test_each_is_reported_and_the_good_one_serves(self):
        self.system.path("/tarn/etc/www/folder.xml").mkdir()
        os.mkfifo(self.system.path("/tarn/etc/www/fifo.xml"))
        port = self.system.serve("http")
        self.assertEqual(rawhttp.get(port, "/a.txt").body, b"a")
        reports = [line for line in self.system.lines("www") if line.startswith("configuration: ")]
        names = [*self.documents, "folder.xml", "fifo.xml"]
        names.remove("zgood.xml")
        for name in names:
            with self.subTest(name):
                self.assertEqual(len([line for line in reports if "/" + name + ":" in line]), 1, reports)
        self.assertEqual(len(reports), len(names))


if __name__ == "__main__":
    unittest.main()
