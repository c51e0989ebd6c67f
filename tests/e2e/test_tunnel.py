"""The tunnel on the wire: key exchange, login, calls, polls, the end of a session, and every kind of bad input."""

import os
import unittest

import harness
import rawhttp
import tarnbus
import tunnelbox
from tunnelbox import messages, tunnel

COMMAND = ("u", 0xff0007)
KEX_BYTES = 40


def echo(bus, message):
    """Answers with what came, header fields of the bus moved to where they can be looked at."""
    answer = {("m", 1): {key: value for key, value in message.fields.items() if key != tarnbus.REQUEST_NUMBER}}
    bus.reply(message, answer)


class Walk(tunnelbox.TunnelTest):
    """What a browser does on a good day, in both forms."""

    forms = (False, True)

    def test_the_first_answer_is_a_public_value(self):
        box = self.meet()
        status, headers, body = box.request("POST", "/jsproxy", tunnel.bytes_to_text(bytes(8) + b"\x05" * 32))
        self.assertEqual(status, 200)
        self.assertNotIn("content-type", headers)
        self.assertNotIn(b"\0", body)
        answer = tunnel.text_to_bytes(body)
        self.assertEqual(len(answer), KEX_BYTES)
        self.assertEqual(int.from_bytes(answer[:4], "big"), box.id + 1)
        self.assertEqual(answer[4:8], bytes(4))

    def test_wrong_and_right_password(self):
        for binary in self.forms:
            box = self.meet(binary=binary)
            with self.assertRaises(tunnel.Refused):
                box.log_in("admin", "wrong")
            # The session ended with it.
            with self.assertRaises(tunnel.SessionLost):
                box.log_in("admin", tunnelbox.PASSWORD)
            self.system.wait_for_line("www", f"no session {box.id:x}")
            answer = self.log_in(binary=binary).exchange({messages.DESTINATION: []})
            self.assertEqual(tarnbus.error_of(answer), (0xfe000e, "unreachable"))

    def test_what_the_login_service_is_told(self):
        box = self.meet()
        answer = box.log_in("admin", tunnelbox.PASSWORD)
        self.assertEqual(answer, {messages.DESTINATION: [box.id], messages.USER: "admin", messages.POLICIES: 0x50,
                                  tunnel.LOGIN_TEXT: "admin"})
        request = self.login_service.seen[-1]
        self.assertEqual(request.command, 1)
        self.assertEqual(request.sender, [self.system.bus_id("www"), 100, box.id])
        for key, value in {("b", 8): True, ("u", 7): 5, ("s", 1): "admin", ("s", 3): tunnelbox.PASSWORD,
                           ("a", 0xff0013): bytes(10) + b"\xff\xff" + bytes([127, 0, 0, 1])}.items():
            self.assertEqual(request.fields[key], value)

    def test_calls(self):
        self.service(24, echo)
        value = {("u", 1): 5, ("s", 2): "it's\r\n \\ \u20ac", ("Q", 3): [2 ** 64 - 1, 0], ("b", 4): True,
                 ("r", 5): bytes(range(256)), ("a", 6): bytes(range(16)), ("m", 7): {("S", 1): ["", "x"]},
                 ("M", 8): [{}, {("q", 1): 2 ** 63}], ("A", 9): [bytes(16)], ("R", 10): [b"", b"x"], ("B", 11): [True, False]}
        for binary in self.forms:
            box = self.log_in(binary=binary)
            answer = box.call([24, 1], 7, value)[("m", 1)]
            for key, expected in value.items():
                self.assertEqual(answer[key], expected)
            self.assertEqual(answer[COMMAND], 7)

    def test_both_forms_on_one_session(self):
        self.service(24, echo)
        box = self.log_in()
        for binary in (True, False, False, True):
            box.binary = binary
            self.assertEqual(box.call([24, 1], 9)[("m", 1)][COMMAND], 9)

    def test_two_browsers_at_once(self):
        self.service(24, echo)
        boxes = [self.log_in(user) for user in ("one", "two")]
        for _ in range(3):
            for box, user in zip(boxes, ("one", "two")):
                self.assertEqual(box.call([24, 1])[("m", 1)][messages.USER], user)

    def test_pushes(self):
        service = self.service(24, echo)
        box = self.log_in()
        sender = box.call([24, 1])[("m", 1)][messages.SENDER]
        path = [self.system.bus_id("www"), *sender]
        self.assertEqual(sender, [100, box.id])
        # Before a poll, and while two are waiting.
        for number in (1, 2):
            service.bus.send(path, None, {("u", 1): number})
        self.assertEqual([box.poll()[("u", 1)] for _ in (1, 2)], [1, 2])
        waiting = [self.in_background(box.poll), self.in_background(box.poll)]
        for number in (3, 4):
            service.bus.send(path, None, {("u", 1): number})
        self.assertEqual({wait()[("u", 1)] for wait in waiting}, {3, 4})

    def test_the_end_of_a_session_is_told(self):
        watcher = self.system.bus(name="watcher")
        watcher.join_group(tunnelbox.END_GROUP)
        for binary in self.forms:
            box = self.log_in(binary=binary)
            number = box.id
            waiting = [self.park_poll(box), self.park_poll(box)]
            box.end()
            for connection in waiting:
                self.assertEqual(connection.read_response().status, 410)
            notice = watcher.receive()
            self.assertEqual(notice.command, tunnelbox.END_OF_SESSION)
            self.assertEqual(notice.sender, [self.system.bus_id("www"), 100, number])
        # Nothing is told of one that never logged in.
        box = self.meet()
        with self.assertRaises(tunnel.Refused):
            box.log_in("admin", "wrong")
        self.log_in().end()
        self.assertEqual(watcher.receive().sender[2], box.id + 1)


class Frames(tunnelbox.TunnelTest):
    """Frames that were tampered with; the session goes on after each."""

    def setUp(self):
        super().setUp()
        self.service(24, echo)
        self.box = self.log_in()

    def tearDown(self):
        self.assertEqual(self.box.call([24, 1], 3)[("m", 1)][COMMAND], 3)

    def post(self, frame):
        return self.box.request("POST", "/jsproxy", tunnel.bytes_to_text(frame))[0]

    def expect(self, frame, *lines):
        before = len(self.system.lines("www"))
        self.assertEqual(self.post(frame), 500)
        harness.wait_until(lambda: "decrypt failed" in self.system.lines("www")[before:], "the failure to be logged")
        told = [line for line in self.system.lines("www")[before:] if line != "acceptConnection"]
        self.assertEqual(told, [*lines, "decrypt failed"])

    def test_short(self):
        whole = self.box.frame(b"{}")
        for length in (8, 9, 15):
            self.expect(whole[:length])
        self.assertEqual(self.post(self.box.frame(b"{Uff0001:[24,1]}")), 200)

    def test_replayed(self):
        frame = self.box.frame(b"{Uff0001:[24,1]}")
        self.assertEqual(self.post(frame), 200)
        self.expect(frame, "bad seq")
        self.expect(frame[:4] + bytes(4) + frame[8:], "bad seq")

    def test_overlapping(self):
        early = self.box.frame(b"{Uff0001:[24,1]}")
        late = self.box.frame(b"{Uff0001:[24,1]}")
        self.assertEqual(self.post(late), 200)
        position = int.from_bytes(late[4:8], "big")
        self.expect(early[:4] + (position + 5).to_bytes(4, "big") + early[8:], "bad seq")
        self.expect(early + b"12345678", "bad seq")
        self.assertEqual(self.post(early), 200)

    def test_far_ahead(self):
        frame = self.box.frame(b"{Uff0001:[24,1]}")
        position = int.from_bytes(frame[4:8], "big")
        self.expect(frame[:4] + (position + 131073).to_bytes(4, "big") + frame[8:], "bad seq")
        self.expect(frame[:4] + b"\xff\xff\xff\xff" + frame[8:], "bad seq")
        self.assertEqual(self.post(frame), 200)

    def test_forged(self):
        frame = self.box.frame(b"{Uff0001:[24,1]}")
        forged = bytearray(frame)
        forged[-1] ^= 1
        self.expect(bytes(forged), "bad padding", f"<{bytes(forged[8:]).hex(' ')}>")
        # As it should have been it is taken after all.
        self.assertEqual(self.post(frame), 200)

    def test_a_changed_message_is_another_message(self):
        """The padding is all that is checked: what stands before it can be changed blindly."""
        frame = bytearray(self.box.frame(b"{Uff0001:[24,1]}"))
        frame[8] ^= 1
        self.assertEqual(self.post(bytes(frame)), 500)
        harness.wait_until(lambda: "bad json" in self.system.lines("www"), "the change to show")

    def test_of_another_session(self):
        other = self.meet()
        frame = other.frame(b"{}")
        forged = self.box.id.to_bytes(4, "big") + frame[4:]
        self.assertEqual(self.post(forged), 500)
        self.assertEqual(self.post((0xABCDEF).to_bytes(4, "big") + frame[4:]), 500)
        self.system.wait_for_line("www", "no session abcdef")

    def test_sent_crosswise(self):
        frames = [self.box.frame(b"{Uff0001:[24,1]}") for _ in range(6)]
        for index in (5, 0, 3, 1, 2, 4):
            self.assertEqual(self.post(frames[index]), 200)

    def test_a_gap_that_grew_too_large_is_given_up(self):
        lost = self.box.frame(b"{Uff0001:[24,1]}")
        self.assertEqual(self.post(self.box.frame(b"{Uff0001:[24,1],s1:'" + b"x" * 66000 + b"'}")), 200)
        self.expect(lost, "bad seq")


class Bodies(tunnelbox.TunnelTest):
    """Sizes and encodings of bodies."""

    def post(self, length, body=None, content_type="text/plain"):
        with rawhttp.Connection.tcp(self.port) as connection:
            head = f"POST /jsproxy HTTP/1.1\r\nHost: x\r\nContent-Type: {content_type}\r\nContent-Length: {length}\r\n\r\n"
            connection.send(head.encode() + (body or b""))
            return connection.read_response()

    def test_lengths(self):
        for length in (0, 1, 7, 131073, 4294967294):
            response = self.post(length)
            self.assertEqual(response.status, 500, length)
            self.assertEqual(response.reason, "Internal Server Error")
        for length in (8, 39):
            self.assertEqual(self.post(length, tunnel.bytes_to_text(bytes(length))[:length]).status, 500)
        self.assertEqual(self.post(39, bytes(8) + b"x" * 31, "msg").status, 500)
        self.system.wait_for_line("www", "kex data too small", 3)
        told = [line for line in self.system.lines("www") if "small" in line]
        self.assertEqual(told, ["data too small"] * 3 + ["kex data too small"] * 3)
        for length in (40, 41, 131071, 131072):
            response = self.post(length, bytes(8) + b"x" * (length - 8), "msg")
            self.assertEqual(response.status, 200, length)
            self.assertEqual(len(tunnel.text_to_bytes(response.body)), KEX_BYTES)

    def test_without_a_length(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.send("POST /jsproxy HTTP/1.1\r\nHost: x\r\n\r\n")
            self.assertEqual(connection.read_response().status, 500)

    def test_a_body_that_stops_in_the_middle(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.send("POST /jsproxy HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\nhalf")
            connection.socket.shutdown(1)
            self.assertEqual(connection.read_to_end(), b"")
        self.assertEqual(self.meet().id, 1)

    def test_text_that_does_not_decode(self):
        for body in (b"\xff" * 60, b"x" * 59 + b"\xc3", b"\xc8\x80" * 30, b"\xe0\x80\x80" * 20, b"\xc3x" * 30):
            self.assertEqual(self.post(len(body), body).status, 500, body)
        self.assertEqual(self.meet().id, 1)

    def test_other_paths_and_methods(self):
        box = self.meet()
        for target in ("/jsproxy/x", "/jsproxy/upload/x", "/jsproxyx"):
            self.assertEqual(box.request("POST", target, b"x" * 20)[0], 404, target)
        for method in ("PUT", "DELETE", "OPTIONS"):
            status, headers, _ = box.request(method, "/jsproxy")
            self.assertEqual((status, headers["Allow"]), (405, "GET, HEAD, POST"))


class BadMessages(tunnelbox.TunnelTest):
    """Payloads that hold no message, and messages that say what a browser has no right to."""

    def test_json(self):
        box = self.log_in()
        bad = [b"", b"{", b"{}\n", b"{} x", b"{,u1:5}", b"{u1:5,,u2:6}", b"{u1:x}", b"{s1:'x", b"{s1:x}", b"{Q1:[-1]}",
               b"{m1:u1:5}}", b"{a1:[1,2]", b"{M1:[x]}", b"\t{}", b"{u:1}", b"{x1:5}", b"\xff\xfe", b"{U1:[1",
               b"{m1:" * 13 + b"}" * 13, b"[" * 80000, b"{A1:[[1]]"]
        for payload in bad:
            self.expect_status(500, box, tunnel.bytes_to_text(box.frame(payload)))
        harness.wait_until(lambda: self.system.lines("www").count("bad json") == len(bad), "all to be told")
        for payload in (b"{Uff0001:[1]}   ", b"Uff0001:[1]}", b"{Uff0001:[1],}", b"{Uff0001:[1]}\0junk",
                        b"{Uff0001:[1]," + b"m1:{" * 11 + b"}" * 12):
            self.expect_status(200, box, tunnel.bytes_to_text(box.frame(payload)))

    def test_binary(self):
        box = self.log_in(binary=True)
        bad = [b"", b"M", b"M3", b"M2\1", b"M2\1\0\0\x20\x05ab", b"M2\1\0\0\x78", b"M2\1\0\0\x88\xff\xff",
               b"M2\1\0\0\x28\x04\x00abcd", os.urandom(500), b"\0\x09M2"]
        for payload in bad:
            self.expect_status(500, box, box.frame(payload), "msg")
        harness.wait_until(lambda: self.system.lines("www").count("bad bin msg") == len(bad), "all to be told")
        payload = messages.flatten({messages.DESTINATION: [1]})
        self.expect_status(200, box, box.frame(payload), "msg")
        self.expect_status(200, box, box.frame(len(payload).to_bytes(2, "big") + payload[2:]), "msg")

    def test_what_a_browser_cannot_say(self):
        service = self.service(24, echo)
        for binary in (False, True):
            box = self.log_in(binary=binary)
            box.call([24, 1], 5, {
                ("u", 0xff0020): 1, ("b", 0xff0021): True, ("u", 0xff0022): 2, ("s", 0xff0023): "no",
                ("u", 0xff0015): 1, ("s", 0xff000a): "root", ("u", 0xff000b): 0xffffffff, ("u", 0xff0010): 1,
                ("U", 0xff0002): [68, 1]})
            request = service.seen[-1]
            fields = dict(request.fields)
            self.assertIsNone(request.fd)
            self.assertNotEqual(fields.pop(tarnbus.REQUEST_NUMBER), 1)
            self.assertEqual(request.sender, [self.system.bus_id("www"), 100, box.id, 68, 1])
            self.assertEqual(fields, {
                messages.DESTINATION: [1], messages.SENDER: [100, box.id, 68, 1], COMMAND: 5, messages.USER: "admin",
                ("u", 0xff0010): 7, messages.POLICIES: 0x50})

    def test_who_speaks_for_a_user_without_policies_reaches_no_session(self):
        service = self.service(24, echo)
        box = self.log_in()
        path = [self.system.bus_id("www"), 100, box.id]
        reply = self.system.bus(name="other").request(path, 1, {messages.POLICIES: 0})
        self.assertEqual(tarnbus.error_of(reply), (0xfe0009, ""))
        service.bus.send(path, 1, {messages.POLICIES: 1, ("u", 1): 5})
        self.assertEqual(box.poll()[("u", 1)], 5)


if __name__ == "__main__":
    unittest.main()
