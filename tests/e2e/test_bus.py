"""The real broker: joining, messages, descriptors, groups, and what it does to programs that misbehave or do not read."""

import array
import os
import resource
import socket
import subprocess
import unittest

import harness
import tarnbus
from tarnbus import BOUNCED, CONTROL, HEADER, MESSAGE, OBSERVED

NOBODY = 65534
# The example of docs/bus-protocol.md, without the element of the destination that the frame takes.
EXAMPLE = {("U", 0xff0001): [1], ("u", 0xff0007): 3, ("s", 3): "www", ("b", 0xfe000a): True}
EXAMPLE_BYTES = bytes.fromhex("4d32 0100ff88 0100 01000000 0700ff09 03 03000021 03 777777 0a00fe01")
EVERY_TYPE = {
    ("b", 1): False, ("b", 2): True, ("u", 3): 0, ("u", 4): 255, ("u", 5): 256, ("u", 6): 0xffffffff,
    ("q", 7): 1 << 63, ("a", 8): bytes(range(16)), ("s", 9): "", ("s", 10): "x" * 256, ("m", 11): {("u", 1): 1},
    ("m", 12): {}, ("r", 13): bytes(range(256)), ("B", 14): [True, False], ("U", 15): [1, 0xffffffff],
    ("Q", 16): [1, 1 << 40], ("A", 17): [bytes(16), b"\xff" * 16], ("S", 18): ["a", ""], ("M", 19): [{}, {("s", 1): "in"}],
    ("R", 20): [b"", b"\0"], ("U", 21): [],
}


def frame(peer, payload=b"M2", kind=MESSAGE):
    return HEADER.pack(len(payload), peer, kind) + payload


def join_frame(name="raw"):
    return frame(0, tarnbus.encode({("u", 1): 1, ("u", 2): 0, ("s", 3): name}), CONTROL)


def message_of(size):
    """A flattened message of that many bytes: a raw array of random elements."""
    elements = []
    left = size - 8
    while left > 0:
        elements.append(os.urandom(min(left - 2, 65535)))
        left -= 2 + len(elements[-1])
    return tarnbus.encode({("R", 1): elements})


class BusTest(harness.SystemTest):
    def setUp(self):
        super().setUp()
        self.system.start("busd")

    def connect(self):
        """A connection without a join."""
        raw = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.addCleanup(raw.close)
        raw.settimeout(harness.PATIENCE)
        raw.connect(str(self.system.bus_path))
        return raw

    def assert_disconnected(self, raw):
        try:
            while raw.recv(65536):
                pass
        except ConnectionResetError:
            pass

    def assert_served(self):
        """Two new programs reach each other."""
        with tarnbus.Client(str(self.system.bus_path)) as one, tarnbus.Client(str(self.system.bus_path)) as other:
            one.send([other.id, 1], fields={("s", 1): "served"})
            self.assertEqual(other.receive().fields[("s", 1)], "served")

    def open_pipes(self):
        """The writing end of a pipe, and a function that tells whether all its copies are closed."""
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        os.set_blocking(reading, False)

        def all_closed():
            try:
                return os.read(reading, 1) == b""
            except BlockingIOError:
                return False
        return writing, all_closed


class Messages(BusTest):
    def test_the_example_of_the_document_has_these_bytes(self):
        self.assertEqual(tarnbus.encode(EXAMPLE), EXAMPLE_BYTES)
        self.assertEqual(tarnbus.decode(EXAMPLE_BYTES), EXAMPLE)

    def test_every_type_travels(self):
        one, other = self.system.bus(), self.system.bus()
        one.send_payload(other.id, tarnbus.encode(EVERY_TYPE))
        message = other.receive()
        self.assertEqual((message.kind, message.peer), (MESSAGE, one.id))
        self.assertEqual(message.fields, EVERY_TYPE)

    def test_a_request_is_answered(self):
        asking, answering = self.system.bus(), self.system.bus(id=68)
        asking.send([68, 1], 3, {tarnbus.REQUEST_NUMBER: 7, tarnbus.SENDER: [100, 5]})
        request = answering.receive()
        self.assertEqual(request.fields[tarnbus.DESTINATION], [1])
        self.assertEqual(request.sender, [asking.id, 100, 5])
        answering.reply(request, {("s", 1): "well"})
        reply = asking.receive()
        self.assertEqual(reply.peer, 68)
        self.assertEqual(reply.fields[tarnbus.DESTINATION], [100, 5])
        self.assertEqual(reply.fields[tarnbus.REQUEST_NUMBER], 7)
        self.assertTrue(reply.fields[tarnbus.IS_REPLY])

    def test_what_cannot_be_delivered_comes_back(self):
        client = self.system.bus()
        for absent in (0, 68, 4711):
            client.send_payload(absent, EXAMPLE_BYTES)
            message = client.receive()
            self.assertEqual((message.kind, message.peer, message.payload), (BOUNCED, absent, EXAMPLE_BYTES))
        self.assertEqual(tarnbus.error_of(client.request([68, 1], 3)), (0xfe000e, "unreachable"))

    def test_the_largest_payload_arrives_and_one_byte_more_does_not(self):
        one, other = self.system.bus(), self.system.bus()
        payload = message_of(tarnbus.MAX_PAYLOAD)
        self.assertEqual(len(payload), tarnbus.MAX_PAYLOAD)
        one.send_payload(other.id, payload)
        self.assertTrue(other.receive().payload == payload)
        raw = self.connect()
        raw.sendall(join_frame() + HEADER.pack(tarnbus.MAX_PAYLOAD + 1, other.id, MESSAGE))
        self.assert_disconnected(raw)
        self.assert_served()

    def test_groups_get_copies(self):
        sender, members = self.system.bus(), [self.system.bus() for _ in range(3)]
        for member in members:
            member.join_group(0xff0001)
        sender.join_group(0xff0001)
        members[2].leave_group(0xff0001)
        sender.send([0xff0001], 0xfe0014)
        for member in members[:2]:
            self.assertEqual(member.receive().command, 0xfe0014)
        for quiet in (sender, members[2]):
            quiet.send([quiet.id], 1)
            self.assertEqual(quiet.receive().command, 1)

    def test_a_join_byte_by_byte(self):
        raw = self.connect()
        for byte in join_frame():
            raw.sendall(bytes([byte]))
        self.assertEqual(HEADER.unpack(raw.recv(HEADER.size))[1:], (0, CONTROL))
        self.assert_served()


class Descriptors(BusTest):
    def test_a_descriptor_arrives_with_its_message(self):
        one, other = self.system.bus(), self.system.bus()
        writing, all_closed = self.open_pipes()
        one.send([other.id, 1], 1)
        one.send([other.id, 1], 2, fd=writing)
        one.send([other.id, 1], 3)
        os.close(writing)
        messages = [other.receive() for _ in range(3)]
        self.assertEqual([message.command for message in messages], [1, 2, 3])
        self.assertEqual([message.fd is not None for message in messages], [False, True, False])
        self.assertFalse(all_closed())
        os.close(messages[1].fd)
        harness.wait_until(all_closed, "all copies to be closed")

    def test_none_stays_in_the_broker(self):
        one, member = self.system.bus(), self.system.bus()
        member.join_group(0xff0001)
        broker = self.system.programs["busd"]
        before = broker.descriptors()
        for destination in (68, 0xff0001, 0, 0xff0002):
            writing, all_closed = self.open_pipes()
            one.send([destination, 1], 1, fd=writing)
            os.close(writing)
            harness.wait_until(all_closed, f"the descriptor for {destination:#x} to be closed")
        self.assertIsNone(member.receive().fd)
        self.assertEqual([one.receive().kind for _ in "12"], [BOUNCED, BOUNCED])
        self.assertEqual(broker.descriptors(), before)

    def test_a_program_that_breaks_the_rules_is_disconnected(self):
        writing, all_closed = self.open_pipes()
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [writing]))]
        two = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [writing, writing]))]
        several = self.connect()
        several.sendmsg([join_frame()], two)
        self.assert_disconnected(several)
        middle = self.connect()
        middle.sendall(join_frame() + frame(68, bytes(100))[:50])
        self.assertEqual(HEADER.unpack(middle.recv(HEADER.size))[1:], (0, CONTROL))
        middle.sendmsg([frame(68, bytes(100))[50:]], rights)
        self.assert_disconnected(middle)
        os.close(writing)
        harness.wait_until(all_closed, "all copies to be closed")
        self.assert_served()


class Joining(BusTest):
    def refusal(self, operation, fields=None):
        client = self.system.bus()
        with self.assertRaises(tarnbus.BusError) as caught:
            client.control(operation, fields)
        return str(caught.exception)

    def test_ids_and_names(self):
        first = self.system.bus(name="first")
        second = self.system.bus(id=68, name="se\ncond")
        self.assertEqual(first.id, 1000)
        self.assertEqual(second.id, 68)
        self.assertEqual(first.list(), [(68, "se?cond"), (1000, "first")])
        for wanted, text in ((68, "0xfe0020: id 68 is taken"), (1000, "0xfe0021: id 1000 cannot be asked for")):
            with self.assertRaises(tarnbus.BusError) as caught:
                self.system.bus(id=wanted)
            self.assertEqual(str(caught.exception), text)

    def test_fixed_ids_depend_on_the_user(self):
        # Whoever may act as another user does; anybody else is the broker's own user, who may have them.
        root = os.geteuid() == 0
        self.system.folder.chmod(0o711)
        if root:
            os.seteuid(NOBODY)
            self.addCleanup(os.seteuid, 0)
        try:
            answer = self.system.bus(id=68).id
        except tarnbus.BusError as error:
            answer = str(error)
        self.assertEqual(answer, "0xfe0009: id 68 is not allowed for this user" if root else 68)
        self.assertGreaterEqual(self.system.bus().id, 1000)

    def test_refusals(self):
        self.assertEqual(self.refusal(9), "0xfe0007: unknown command")
        self.assertEqual(self.refusal(tarnbus.JOIN), "0xfe0021: already joined")
        self.assertEqual(self.refusal(tarnbus.JOIN_GROUP, {("u", 2): 68}), "0xfe0021: no such group")

    def test_who_does_not_join_is_disconnected(self):
        silent, talking = self.connect(), self.connect()
        talking.sendall(frame(68))
        self.assert_disconnected(talking)
        self.assert_disconnected(silent)
        self.assert_served()

    def test_the_log_tells_who_comes_and_goes(self):
        self.system.bus(name="visitor").close()
        self.system.wait_for_line("busd", "listening on /run/tn/bus")
        self.system.wait_for_line("busd", f"visitor joined as 1000 (uid {os.geteuid()})")
        self.system.wait_for_line("busd", "visitor (1000) left: closed")
        raw = self.connect()
        raw.sendall(frame(68))
        self.system.wait_for_line("busd", f"a program (uid {os.geteuid()}) was refused: broke the framing")

    def test_a_monitor_sees_what_passes(self):
        one, other, monitor = self.system.bus(), self.system.bus(), self.system.bus()
        monitor.control(tarnbus.MONITOR)
        one.send_payload(other.id, EXAMPLE_BYTES)
        other.receive()
        message = monitor.receive()
        self.assertEqual((message.kind, message.peer), (OBSERVED, 0))
        self.assertEqual(message.payload, HEADER.pack(one.id, other.id, MESSAGE) + EXAMPLE_BYTES)


class Load(BusTest):
    def test_a_thousand_programs(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
        clients = [self.system.bus(name=f"p{n}") for n in range(1100)]
        self.assertEqual(len(clients[0].list()), 1100)
        for one, other in zip(clients, clients[1:]):
            one.send([other.id], 7)
        for other in clients[1:]:
            self.assertEqual(other.receive().command, 7)
        for client in clients:
            client.close()
        self.assert_served()

    def test_a_reader_that_stalls_holds_up_nobody(self):
        sender, stalled, other = self.system.bus(), self.system.bus(), self.system.bus()
        payload = tarnbus.encode({("r", n): bytes(60000) for n in range(16)})
        total = 14
        for number in range(total):
            sender.send_payload(stalled.id, payload)
            sender.send([other.id], number + 1)
            self.assertEqual(other.receive().command, number + 1)
        figures = other.control(tarnbus.STATISTICS)
        self.assertLessEqual(figures[("q", 10)], 16 << 20)
        bounced = figures[("q", 7)]
        self.assertGreater(bounced, 0)
        for _ in range(bounced):
            message = sender.receive()
            self.assertEqual((message.kind, message.peer), (BOUNCED, stalled.id))
        for _ in range(total - bounced):
            self.assertTrue(stalled.receive().payload == payload)
        self.assert_served()

    def test_noise_is_survived(self):
        for length in (1, 11, 12, 13, 500, 70000):
            raw = self.connect()
            raw.sendall(join_frame())
            try:
                raw.sendall(b"\xff" * length if length > 11 else bytes(length))
            except (BrokenPipeError, ConnectionResetError):
                pass
            raw.close()
        self.assert_served()
        self.assertFalse(self.system.programs["busd"].ended())


class OneBroker(BusTest):
    def second(self):
        """Another broker in the same image: its status and what it said."""
        prefix = ["/bin/qemu-ppc-static"] if harness.is_foreign(self.system.root / "bin/busd") else []
        done = subprocess.run([harness.ENTER, self.system.root, *prefix, "/bin/busd"], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=harness.PATIENCE, check=False)
        return done.returncode, done.stdout

    def test_a_second_broker_refuses_to_start(self):
        self.assertEqual(self.second(), (1, "cannot start: another broker serves /run/tn/bus\n"))
        self.assert_served()

    def test_a_broker_that_was_killed_leaves_nothing_in_the_way(self):
        client = self.system.bus()
        self.system.kill("busd")
        with self.assertRaises((tarnbus.BusError, OSError)):
            client.receive()
        self.assertTrue(self.system.bus_path.exists())
        self.system.start("busd")
        self.assert_served()

    def test_it_ends_cleanly_when_told_to(self):
        client = self.system.bus()
        self.system.stop("busd")
        self.assertFalse(self.system.bus_path.exists())
        self.assertEqual(self.system.lines("busd")[-1], "stopped")
        with self.assertRaises((tarnbus.BusError, OSError)):
            client.receive()


if __name__ == "__main__":
    unittest.main()
