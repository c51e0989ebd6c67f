"""The status service on a real bus: its figures are the kernel's, and its subscribers are told of changes as long as they are there."""

import contextlib
import os
import socket
import time
import unittest

import harness
import tarnbus
import tunnelbox
from tunnel import Refused, ServiceError

STATUS = [24, 1]
GET_OBJ, SUBSCRIBE, UNSUBSCRIBE, PUSH = 0xfe0002, 0x20011, 0x20012, 0x20013
END_GROUP, END_OF_SESSION = 0xff0001, 0xfe0014
NUMBER, LIST, INTERVAL, OBJECTS = ("u", 0xfe0001), ("M", 1), ("u", 2), ("U", 1)
SYSTEM, MEMORY, STORAGE, INTERFACES, PROCESSES = range(1, 6)
USER_MARK, POLICIES_MARK = ("s", 0xff000a), ("u", 0xff000b)
NOT_THERE, NOT_ALLOWED, BAD, TOO_MUCH = 0xfe0006, 0xfe0009, 0xfe0010, 0xfe0012


class StatusTest(harness.SystemTest):
    documents = {}
    web = {}

    def setUp(self):
        super().setUp()
        self.system.start("busd", "sysd")
        self.system.bus_id("sysd")
        self.bus = self.system.bus()

    def object(self, number):
        reply = self.bus.request(STATUS, GET_OBJ, {NUMBER: number})
        self.assertIsNone(tarnbus.error_of(reply))
        self.assertEqual(reply.fields[NUMBER], number)
        return reply.fields

    def subscribe(self, objects, path=(7,), bus=None, error=None, **more):
        """Subscribes as the path below a program; the objects in the answer by number."""
        reply = (bus or self.bus).request(STATUS, SUBSCRIBE, {OBJECTS: objects, INTERVAL: 500, tarnbus.SENDER: list(path),
                                                              **more})
        self.assertEqual((tarnbus.error_of(reply) or [None])[0], error)
        return {found[NUMBER]: found for found in reply.fields.get(LIST, [])}

    def push(self, bus=None):
        """The next push: its path below the program, and the objects by number."""
        message = (bus or self.bus).receive()
        self.assertEqual(message.command, PUSH)
        return message.fields[tarnbus.DESTINATION], {found[NUMBER]: found for found in message.fields[LIST]}

    def sent_by_service(self):
        """How many frames the service has sent since it joined."""
        members = self.bus.control(tarnbus.STATISTICS)[("M", 4)]
        return next(member[("q", 5)] for member in members if member[("s", 3)] == "sysd")

    @staticmethod
    def use_loopback():
        """Sends 200000 bytes to nobody."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
            one.bind(("127.0.0.1", 0))
            for _ in range(20):
                one.sendto(bytes(10000), one.getsockname())

    def is_silent(self):
        """Whether nothing is sent for longer than the interval of those who subscribed."""
        before = self.sent_by_service()
        time.sleep(1.2)
        return self.sent_by_service() == before

    def assert_silent(self):
        """Nothing is sent for longer than the interval of those who subscribed."""
        before = self.sent_by_service()
        with self.assertRaises(TimeoutError):
            self.bus.receive(timeout=1.2)
        self.assertEqual(self.sent_by_service(), before)


class Figures(StatusTest):
    def test_they_are_the_kernels(self):
        system = self.object(SYSTEM)
        names = os.uname()
        self.assertEqual(system[("s", 1)], socket.gethostname())
        self.assertEqual(system[("s", 2)], self.system.path("/tarn/etc/version").read_text().strip())
        self.assertEqual((system[("s", 3)], system[("s", 4)]), (f"{names.sysname} {names.release}", names.machine))
        with open("/proc/uptime", encoding="ascii") as file:
            self.assertLessEqual(system[("q", 5)], round(float(file.read().split()[0]) * 1000))
        self.assertLessEqual(system[("q", 0xa)], system[("q", 0xb)])
        with open("/proc/meminfo", encoding="ascii") as file:
            total = int(next(line for line in file if line.startswith("MemTotal")).split()[1]) * 1024
        memory = self.object(MEMORY)
        self.assertEqual(memory[("q", 1)], total)
        self.assertLess(memory[("q", 2)], total)
        root = next(part for part in self.object(STORAGE)[LIST] if part[("s", 1)] == "/")
        status = os.statvfs(self.system.root)
        self.assertEqual(root[("q", 4)], status.f_blocks * status.f_frsize)
        processes = self.object(PROCESSES)
        self.assertGreaterEqual(processes[("u", 2)], len(processes[LIST]))
        self.assertIn(self.system.programs["sysd"].pid, [part[("u", 1)] for part in processes[LIST]])

    def test_interfaces_have_addresses_and_counters_that_grow(self):
        def loopback():
            return next(part for part in self.object(INTERFACES)[LIST] if part[("s", 1)] == "lo")
        before = loopback()
        self.assertTrue(before[("b", 0x11)] and before[("b", 3)])
        self.assertEqual(before[("u", 2)], socket.if_nametoindex("lo"))
        index = before[("A", 7)].index(bytes(10) + b"\xff\xff\x7f\0\0\1")
        self.assertEqual(before[("U", 8)][index], 8)
        self.use_loopback()
        harness.wait_until(lambda: loopback()[("q", 9)] >= before[("q", 9)] + 200000, "the counters to grow")

    def test_all_come_at_once(self):
        found = self.bus.request(STATUS, tarnbus.GET_ALL).fields[LIST]
        self.assertEqual([one[NUMBER] for one in found], [SYSTEM, MEMORY, STORAGE, INTERFACES])

    def test_the_command_line_shows_them(self):
        result = self.system.tn("call", "24/1", "getAll")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn(f"s1 host: '{socket.gethostname()}'", result.stdout)
        self.assertIn("::ffff:127.0.0.1", result.stdout)

    def test_bad_input_is_told(self):
        for path, command, fields, code in (
                (STATUS, GET_OBJ, {}, NOT_THERE), (STATUS, GET_OBJ, {NUMBER: 6}, NOT_THERE), (STATUS, 1, {}, 0xfe0007),
                ([24, 4], GET_OBJ, {NUMBER: 1}, NOT_THERE), ([24, 1, 1], GET_OBJ, {NUMBER: 1}, NOT_THERE),
                (STATUS, SUBSCRIBE, {}, BAD), (STATUS, SUBSCRIBE, {OBJECTS: []}, BAD),
                (STATUS, SUBSCRIBE, {OBJECTS: [1] * 60000}, BAD), (STATUS, SUBSCRIBE, {OBJECTS: [0]}, NOT_THERE),
                (STATUS, SUBSCRIBE, {OBJECTS: [1], INTERVAL: 0}, BAD),
                (STATUS, SUBSCRIBE, {OBJECTS: [1], INTERVAL: 0xffffffff}, BAD),
                (STATUS, SUBSCRIBE, {OBJECTS: [1], tarnbus.SENDER: [1] * 64}, None)):
            with self.subTest(command=hex(command), fields=str(fields)[:60]):
                # The answer to the last one would lead to a path that nobody has.
                if code is None:
                    self.bus.send(path, command, fields)
                else:
                    self.assertEqual(tarnbus.error_of(self.bus.request(path, command, fields))[0], code)
        for marks in ({USER_MARK: "bob", POLICIES_MARK: 0}, {USER_MARK: "bob", POLICIES_MARK: 0x40}, {USER_MARK: "bob"}):
            reply = self.bus.request(STATUS, GET_OBJ, {NUMBER: 1, **marks})
            self.assertEqual(tarnbus.error_of(reply), (NOT_ALLOWED, "not allowed"))
        reply = self.bus.request(STATUS, GET_OBJ, {NUMBER: 1, USER_MARK: "bob", POLICIES_MARK: 0x10})
        self.assertIsNone(tarnbus.error_of(reply))


class Subscribers(StatusTest):
    def test_they_are_told_of_changes(self):
        first = self.subscribe([SYSTEM, STORAGE], path=[100, 7])
        self.assertEqual(set(first), {SYSTEM, STORAGE})
        for _ in range(2):
            path, changed = self.push()
            self.assertEqual(path, [100, 7])
            self.assertGreater(changed[SYSTEM][("q", 5)], first[SYSTEM][("q", 5)])
            first = changed

    def test_each_has_its_own(self):
        other = self.system.bus()
        self.subscribe([SYSTEM], path=[100, 7, 1])
        self.subscribe([INTERFACES], path=[100, 7, 2])
        self.subscribe([SYSTEM, INTERFACES], path=[100, 7], bus=other)
        self.use_loopback()  # or nothing of the interfaces might change
        seen = set()
        while len(seen) < 2:
            path, changed = self.push()
            seen.add((tuple(path), *changed))
        self.assertEqual(seen, {((100, 7, 1), SYSTEM), ((100, 7, 2), INTERFACES)})
        self.assertEqual(self.push(other)[0], [100, 7])

    def test_they_end_it(self):
        self.subscribe([SYSTEM])
        self.push()
        self.assertIsNone(tarnbus.error_of(self.bus.request(STATUS, UNSUBSCRIBE, {tarnbus.SENDER: [7]})))
        self.bus.waiting.clear()
        self.assert_silent()

    def test_a_session_that_ended_is_forgotten(self):
        for path in ([100, 7], [100, 7, 5]):
            self.subscribe([SYSTEM], path=path)
        self.bus.send([END_GROUP], END_OF_SESSION, {tarnbus.SENDER: [100, 7]})
        self.bus.request(STATUS, GET_OBJ, {NUMBER: STORAGE})
        self.bus.waiting.clear()
        self.assert_silent()

    def test_a_program_that_is_gone_is_forgotten(self):
        other = self.system.bus()
        for session in range(20):
            self.subscribe([SYSTEM], path=[100, session], bus=other)
        other.close()
        # Its pushes come back once, and then there are none. There may have been some before it went.
        harness.wait_until(lambda: self.sent_by_service() >= 40, "pushes to a program that is gone")
        harness.wait_until(self.is_silent, "the pushes to end")

    def test_a_new_broker_knows_no_subscribers(self):
        self.subscribe([SYSTEM])
        self.system.restart("busd")
        self.system.bus_id("sysd")
        self.bus = self.system.bus()
        self.object(STORAGE)
        self.assert_silent()
        self.subscribe([SYSTEM])
        self.push()

    def test_a_new_service_is_subscribed_to_again(self):
        self.subscribe([SYSTEM])
        self.system.restart("sysd")
        self.system.bus_id("sysd")
        self.bus.waiting.clear()
        self.subscribe([SYSTEM])
        self.push()

    def test_there_are_not_too_many(self):
        for index in range(8):
            self.subscribe([STORAGE], path=[100, 1, index])
        self.subscribe([STORAGE], path=[100, 1, 8], error=TOO_MUCH)
        self.subscribe([STORAGE], path=[100, 1, 0])
        for session in range(2, 250):
            self.subscribe([STORAGE], path=[100, session])
        self.subscribe([STORAGE], path=[100, 999], error=TOO_MUCH)

    def test_one_that_does_not_read_holds_up_nobody(self):
        deaf = tarnbus.Client(str(self.system.bus_path))
        with contextlib.closing(deaf):
            for session in range(50):
                deaf.send(STATUS, SUBSCRIBE, {OBJECTS: [PROCESSES, SYSTEM], INTERVAL: 500, tarnbus.SENDER: [100, session],
                                              tarnbus.REQUEST_NUMBER: session + 1})
            self.subscribe([SYSTEM])
            for _ in range(3):
                self.push()
            self.assertEqual(self.object(MEMORY)[NUMBER], MEMORY)


class ThroughTheTunnel(tunnelbox.BoxTest):
    """Server, users and status together, as a browser meets them."""

    def setUp(self):
        super().setUp()
        self.use_port(self.system.serve("http"))
        self.system.start("userd", "sysd")
        for name in ("userd", "sysd"):
            self.system.bus_id(name)
        self.bus = self.system.bus()
        self.password = self.system.path("/rw/store/first-login").read_text().split()[-1]

    def sent_by_status(self):
        members = self.bus.control(tarnbus.STATISTICS)[("M", 4)]
        return next(member[("q", 5)] for member in members if member[("s", 3)] == "sysd")

    def test_a_session_watches_the_system_until_it_ends(self):
        with self.assertRaises(Refused):
            self.log_in(password="wrong")
        box = self.log_in(password=self.password)
        first = box.call(STATUS, SUBSCRIBE, {OBJECTS: [SYSTEM], INTERVAL: 500, tarnbus.SENDER: [9]})
        self.assertEqual(first[LIST][0][("s", 1)], socket.gethostname())
        push = box.poll()
        self.assertEqual((push[tarnbus.DESTINATION], push[tarnbus.COMMAND]), ([9], PUSH))
        self.assertGreater(push[LIST][0][("q", 5)], first[LIST][0][("q", 5)])
        self.bus.join_group(END_GROUP)
        box.end()
        # Once the end is told here, it has been told to the service as well, before what it is asked now.
        self.assertEqual(self.bus.receive().command, END_OF_SESSION)
        self.bus.request(STATUS, GET_OBJ, {NUMBER: STORAGE})
        before = self.sent_by_status()
        with self.assertRaises(TimeoutError):
            self.bus.receive(timeout=1.2)
        self.assertEqual(self.sent_by_status(), before)

    def test_a_session_has_the_rights_of_its_user(self):
        users, login = [13, 2], [13, 4]
        new = {("s", 1): "bob", ("s", 3): "a good password", ("s", 18): "guests"}
        self.log_in(password=self.password).call(users, tarnbus.ADD_OBJ, new)
        box = self.log_in("bob", "a good password")
        self.assertEqual(box.call(users, tarnbus.GET)[("s", 1)], "bob")
        self.assertEqual(box.call(STATUS, GET_OBJ, {NUMBER: MEMORY})[NUMBER], MEMORY)
        for path, command, fields in ((users, tarnbus.GET_ALL, {}), (users, tarnbus.REMOVE_OBJ, {("s", 1): "admin"}),
                                      (login, 1, {("s", 1): "admin", ("s", 3): self.password})):
            with self.assertRaises(ServiceError) as refused:
                box.call(path, command, fields)
            self.assertEqual(refused.exception.code, NOT_ALLOWED)


if __name__ == "__main__":
    unittest.main()
