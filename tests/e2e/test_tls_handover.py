"""The hand-over of a TLS server's sockets to a service that answers, refuses, stays silent, or dies."""

import os
import socket
import time
import unittest

import harness
import rawhttp
import tarnbus

DESCRIPTOR = ("u", 0xff0015)


class HandOver(harness.SystemTest):
    documents = {"a.xml": '<www><server name="https" ssl="yes"><servlet type="dir" path="/" root="/home/web"/>'
                          '</server></www>'}
    web = {"a.txt": b"a"}

    def setUp(self):
        super().setUp()
        self.port = self.system.serve("https", tls_ref=9)
        self.www = self.system.programs["www"]
        self.service = None
        # The first request makes the program grow what it keeps anyway.
        self.idle_descriptors = self.www.descriptors()

    def tearDown(self):
        harness.wait_until(lambda: self.www.descriptors() <= self.idle_descriptors + 1, "descriptors to be given back")

    def start_service(self):
        self.service = self.system.bus(id=12, name="tls")

    def client(self):
        connection = rawhttp.Connection.tcp(self.port)
        self.addCleanup(connection.close)
        return connection

    def hand_over(self):
        """The next hand-over request, with its descriptor."""
        request = self.service.receive()
        self.assertEqual(request.fields[("u", 0xff0007)], 1)
        self.assertEqual(request.fields[("b", 1)], True)
        self.assertEqual(request.fields[("u", 2)], 9)
        self.assertIsNotNone(request.fd)
        return request

    def test_the_socket_itself_comes_back(self):
        self.start_service()
        client = self.client()
        client.request("/a.txt")
        request = self.hand_over()
        self.service.reply(request, {}, fd=request.fd)
        os.close(request.fd)
        self.assertEqual(client.read_response().body, b"a")
        self.assertEqual(client.get("/a.txt").body, b"a")

    def test_one_end_of_a_pair_comes_back(self):
        self.start_service()
        self.client()
        request = self.hand_over()
        os.close(request.fd)
        ours, theirs = socket.socketpair()
        self.service.reply(request, {}, fd=theirs.fileno())
        theirs.close()
        with rawhttp.Connection(ours) as connection:
            self.assertEqual(connection.get("/a.txt").body, b"a")

    def test_nothing_is_served_before_the_answer(self):
        self.start_service()
        client = self.client()
        client.request("/a.txt")
        request = self.hand_over()
        client.socket.settimeout(0.3)
        with self.assertRaises(TimeoutError):
            client.socket.recv(1)
        client.socket.settimeout(rawhttp.TIMEOUT)
        self.service.reply(request, {}, fd=request.fd)
        os.close(request.fd)
        self.assertEqual(client.read_response().body, b"a")

    def test_refusal(self):
        self.start_service()
        client = self.client()
        request = self.hand_over()
        os.close(request.fd)
        self.service.reply_error(request, 0xfe0006, "no certificate")
        self.system.wait_for_line("www", "ssl error: no certificate")
        self.assertEqual(client.read_to_end(), b"")
        self.assertEqual(self.ssl_errors(), ["ssl error: no certificate"])

    def test_silence(self):
        self.start_service()
        begun = time.monotonic()
        client = self.client()
        request = self.hand_over()
        self.system.wait_for_line("www", "ssl error: timeout")
        self.assertGreater(time.monotonic() - begun, 4)
        # The answer that comes after all brings a descriptor that nobody wants.
        self.service.reply(request, {}, fd=request.fd)
        os.close(request.fd)
        self.assertEqual(client.read_to_end(), b"")
        self.assertEqual(self.ssl_errors(), ["ssl error: timeout"])

    def test_no_service(self):
        client = self.client()
        self.system.wait_for_line("www", "ssl error: unreachable")
        self.assertEqual(client.read_to_end(), b"")

    def test_service_that_dies(self):
        self.start_service()
        clients = [self.client() for _ in range(5)]
        for _ in clients:
            os.close(self.hand_over().fd)
        self.service.close()
        for client in clients:
            self.assertEqual(client.read_to_end(), b"")
        self.system.wait_for_line("www", "ssl error: timeout", 5)

    def test_answer_without_descriptor(self):
        self.start_service()
        client = self.client()
        request = self.hand_over()
        os.close(request.fd)
        self.service.reply(request, {})
        self.assertEqual(client.read_to_end(), b"")
        harness.wait_until(lambda: len(self.ssl_errors()) == 1, "the error to be told")

    def test_answer_with_a_number_in_the_descriptor_field(self):
        self.start_service()
        self.client()
        request = self.hand_over()
        os.close(request.fd)
        self.service.reply(request, {DESCRIPTOR: 0})
        harness.wait_until(lambda: len(self.ssl_errors()) == 1, "the error to be told")

    def test_answered_twice(self):
        self.start_service()
        client = self.client()
        client.request("/a.txt", "Connection: close")
        request = self.hand_over()
        self.service.reply(request, {}, fd=request.fd)
        self.service.reply(request, {}, fd=request.fd)
        os.close(request.fd)
        self.assertEqual(client.read_response().body, b"a")
        self.assertEqual(client.read_to_end(), b"")

    def test_answer_after_the_server_was_disabled(self):
        self.start_service()
        client = self.client()
        request = self.hand_over()
        self.system.send_record(tarnbus.record(name="https", port=self.port, disabled=True))
        self.service.reply(request, {}, fd=request.fd)
        os.close(request.fd)
        self.assertEqual(client.read_to_end(), b"")
        self.assertEqual(self.ssl_errors(), [])

    def test_client_gone_during_the_hand_over(self):
        self.start_service()
        client = self.client()
        request = self.hand_over()
        client.close()
        self.service.reply(request, {}, fd=request.fd)
        os.close(request.fd)

    def ssl_errors(self):
        return [line for line in self.system.lines("www") if line.startswith("ssl error")]


if __name__ == "__main__":
    unittest.main()
