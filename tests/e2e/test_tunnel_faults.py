"""The tunnel between browsers that go away and services that are silent, late, dead, or say too much."""

import time
import unittest

import harness
import rawhttp
import tarnbus
import tunnelbox
from tunnelbox import messages, tunnel

TIMEOUT = (0xfe000d, "timeout")
UNREACHABLE = (0xfe000e, "unreachable")


class Kept:
    """A service that answers nothing by itself; a test answers what it wants."""

    def __init__(self, test, number):
        self.service = test.service(number, lambda bus, message: None)

    def next(self, count=1):
        harness.wait_until(lambda: len(self.service.seen) >= count, f"message {count} to arrive")
        return self.service.seen[count - 1]

    def reply(self, message, fields):
        self.service.bus.reply(message, fields)


class Silence(tunnelbox.TunnelTest):
    def test_six_seconds_for_everything(self):
        """Login and relay that nobody answers, and their answers when they come too late."""
        relays = Kept(self, 24)
        box = self.log_in()
        calls = [self.in_background(box.exchange, {messages.DESTINATION: [24, n]}) for n in (1, 2)]
        relays.next(2)
        self.login_service.behave = lambda bus, message: None
        begun = time.monotonic()
        late = self.meet()
        login = self.in_background(late.log_in, "admin", "right")
        with self.assertRaises(tunnel.Refused):
            login()
        self.assertGreaterEqual(time.monotonic() - begun, 5.9)
        for call in calls:
            self.assertEqual(tarnbus.error_of(call()), TIMEOUT)
        for message in relays.service.seen:
            relays.reply(message, {("u", 1): 1})
        login_request = self.login_service.seen[-1]
        self.login_service.bus.reply(login_request, tunnelbox.grant())
        # Nothing of it reaches anybody: the session that was refused is gone, the other goes on.
        with self.assertRaises(tunnel.SessionLost):
            late.exchange({})
        again = self.in_background(box.exchange, {messages.DESTINATION: [24, 3]})
        relays.reply(relays.next(3), {("u", 1): 3})
        self.assertEqual(again()[("u", 1)], 3)


class Replies(tunnelbox.TunnelTest):
    def setUp(self):
        super().setUp()
        self.relays = Kept(self, 24)
        self.box = self.log_in()

    def call(self, box=None, path=(24, 1)):
        return self.in_background((box or self.box).exchange, {messages.DESTINATION: list(path)})

    def test_in_another_order(self):
        calls = [self.call(path=(24, n)) for n in range(1, 6)]
        self.relays.next(5)
        for message in reversed(self.relays.service.seen):
            self.relays.reply(message, {("u", 1): message.fields[messages.DESTINATION][0]})
        self.assertEqual([call()[("u", 1)] for call in calls], [1, 2, 3, 4, 5])

    def test_twice(self):
        call = self.call()
        for number in (1, 2):
            self.relays.reply(self.relays.next(), {("u", 1): number})
        self.assertEqual(call()[("u", 1)], 1)
        # The second one is no message for the session either.
        self.relays.service.bus.send([self.system.bus_id("www"), 100, self.box.id], None, {("u", 1): 3})
        self.assertEqual(self.box.poll()[("u", 1)], 3)

    def test_by_a_stranger(self):
        call = self.call()
        request = self.relays.next()
        stranger = self.system.bus(name="stranger")
        for number in range(1, 50):
            stranger.send([request.peer, 100], None,
                          {tarnbus.REQUEST_NUMBER: number, tarnbus.IS_REPLY: True, ("u", 1): 666})
        stranger.send([request.peer, 100], None, {**{tarnbus.IS_REPLY: True, ("u", 1): 666},
                                                  tarnbus.REQUEST_NUMBER: request.fields[tarnbus.REQUEST_NUMBER]})
        stranger.control(tarnbus.LIST)
        self.relays.reply(request, {("u", 1): 1})
        self.assertEqual(call()[("u", 1)], 1)

    def test_errors(self):
        call = self.call()
        self.relays.service.bus.reply_error(self.relays.next(), 0x1234, "a text\r\nof two lines")
        self.assertEqual(tarnbus.error_of(call()), (0x1234, "a text\r\nof two lines"))
        self.assertEqual(tarnbus.error_of(self.box.exchange({messages.DESTINATION: [999, 1]})), UNREACHABLE)

    def test_a_service_that_dies(self):
        self.call()
        self.relays.next()
        self.relays.service.stop()
        harness.wait_until(lambda: tarnbus.error_of(self.box.exchange({messages.DESTINATION: [24, 1]})) == UNREACHABLE,
                           "the service to be gone")

    def test_megabytes(self):
        texts = ["x" * 60000] * 20
        binary = self.log_in(binary=True)
        calls = [self.call(), self.call(binary)]
        self.relays.next(2)
        for message in self.relays.service.seen:
            self.relays.reply(message, {("S", 1): texts})
        self.assertEqual(calls[0]()[("S", 1)], texts)
        with self.assertRaisesRegex(tunnel.TunnelError, "too long for the binary form"):
            calls[1]()
        harness.wait_until(lambda: len(self.log_lines("putEncrypted too long msg 12")) == 1, "the message to be told")
        # The keystream did not move.
        again = self.call(binary)
        self.relays.reply(self.relays.next(3), {("u", 1): 3})
        self.assertEqual(again()[("u", 1)], 3)

    def test_a_flood(self):
        """Messages that nobody polls are kept, in order; one after the other is fetched."""
        path = [self.system.bus_id("www"), 100, self.box.id]
        for number in range(3000):
            self.relays.service.bus.send(path, None, {("u", 1): number, ("s", 2): "x" * 100})
        self.assertEqual([self.box.poll()[("u", 1)] for _ in range(1000)], list(range(1000)))
        self.box.end()

    def test_the_session_ends_under_way(self):
        calls = [self.call(), self.call()]
        self.relays.next(2)
        self.box.end()
        for message in self.relays.service.seen:
            self.relays.reply(message, {("u", 1): 1})
        for call in calls:
            with self.assertRaisesRegex(tunnel.SessionLost, "answered 500"):
                call()

    def test_the_session_ends_while_it_logs_in(self):
        self.login_service.behave = lambda bus, message: None
        box = self.meet()
        seen = len(self.login_service.seen)
        logins = [self.in_background(box.log_in, name, "x") for name in ("one", "two")]
        harness.wait_until(lambda: len(self.login_service.seen) == seen + 2, "both logins to arrive")
        first, second = self.login_service.seen[seen:]
        self.login_service.bus.reply_error(second, 1, "no")
        self.login_service.bus.reply(first, tunnelbox.grant())
        self.system.wait_for_line("www", "session has disappeared")
        outcomes = set()
        for login in logins:
            with self.assertRaises(tunnel.TunnelError) as caught:
                login()
            outcomes.add(type(caught.exception))
        self.assertEqual(outcomes, {tunnel.Refused, tunnel.SessionLost})


class GoneConnections(tunnelbox.TunnelTest):
    """Browsers that hang up at each step. Nothing is left of them but what the session keeps."""

    def send_and_leave(self, box, fields, await_message=None):
        body = tunnel.bytes_to_text(box.frame(messages.write_json(fields)))
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.request("/jsproxy", method="POST", body=body)
            if await_message:
                await_message()

    def descriptors(self):
        return self.system.programs["www"].descriptors()

    def test_at_each_step(self):
        relays = Kept(self, 24)
        box = self.log_in()
        box.exchange({messages.DESTINATION: [999]})
        box.close()
        before = self.descriptors()
        # While a relay is under way: the answer goes nowhere.
        self.send_and_leave(box, {messages.DESTINATION: [24, 1]}, relays.next)
        relays.reply(relays.next(), {("u", 1): 1})
        # While it polls: the message that comes is lost with it, the next one waits.
        self.park_poll(box).close()
        path = [self.system.bus_id("www"), 100, box.id]
        for number in (1, 2):
            relays.service.bus.send(path, None, {("u", 1): number})
        self.assertEqual(box.poll()[("u", 1)], 2)
        # While it logs in.
        self.login_service.behave = lambda bus, message: None
        seen = len(self.login_service.seen)
        other = self.meet()
        self.send_and_leave(other, {("s", 1): "x"},
                            lambda: harness.wait_until(lambda: len(self.login_service.seen) > seen, "the login"))
        self.login_service.bus.reply(self.login_service.seen[seen], tunnelbox.grant())
        # While it ends its session.
        self.send_and_leave(box, {messages.COMMAND: tunnelbox.END_OF_SESSION})
        box.close()
        other.close()
        harness.wait_until(lambda: self.descriptors() <= before, "all connections to be let go")


class Broker(tunnelbox.TunnelTest):
    def test_a_new_broker(self):
        """Sessions outlive the broker; a call while it is away is answered at once."""
        box = self.log_in()
        path = {messages.DESTINATION: [24, 1]}
        self.system.kill("busd")
        harness.wait_until(lambda: tarnbus.error_of(box.exchange(path)) == UNREACHABLE, "the broker to be missed")
        with self.assertRaises(tunnel.Refused):
            self.meet().log_in("admin", tunnelbox.PASSWORD)
        self.system.start("busd")
        service = self.service(24, lambda bus, message: bus.reply(message, {("u", 1): 1}))
        self.system.bus_id("www")
        harness.wait_until(lambda: ("u", 1) in box.exchange(path), "the service to be reached again")
        self.assertEqual(service.seen[-1].fields[messages.USER], "admin")


if __name__ == "__main__":
    unittest.main()
