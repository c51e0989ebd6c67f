"""The broker and each service without memory and without descriptors, while they are used.

With little they go on; with nothing they refuse, or end with a line that says why. With enough again all is as before.
"""

import itertools
import os
import resource
import unittest
from pathlib import Path

import harness
import tarnbus
import test_calls
import test_services

UNLIMITED = resource.RLIM_INFINITY
KIB = 1 << 10


class Scarcity:
    """What is tried with a program, beside which its class says what it is used for."""

    # Its system calls fail elsewhere.
    test_while_it_serves = test_while_it_carries = test_at_its_start = None
    test_a_listener_that_cannot_be_watched_again = None

    enough = 4096 * KIB  # of address space on top of what it has at rest, for everything that it is used for

    def limit_program(self, what, soft):
        hard = resource.prlimit(self.program().pid, what)[1]
        resource.prlimit(self.program().pid, what, (hard if soft == UNLIMITED else soft, hard))

    def address_space(self):
        return int(Path(f"/proc/{self.program().pid}/statm").read_text().split()[0]) * resource.getpagesize()

    def number_above(self, spare):
        """The number of the descriptor that the program would get after so many more, wherever there is room for these."""
        taken = set(map(int, os.listdir(f"/proc/{self.program().pid}/fd")))
        free = (number for number in itertools.count() if number not in taken)
        return next(itertools.islice(free, spare, None))

    def use(self):
        """All of the course, as far as it goes; how much of it failed."""
        self.limit = self.impatience
        failures = 0
        for piece in self.course():
            if self.program().ended():
                break
            try:
                piece()
            except test_calls.TROUBLES:
                failures += 1
                self.lose_session_anyhow()
        self.limit = harness.PATIENCE
        return failures

    def lose_session_anyhow(self):
        try:
            self.lose_session()
        except test_calls.TROUBLES:
            pass

    def all_is_as_before(self):
        for piece in self.course():
            self.comes_back(piece, "it to do what it did")

    def test_with_little_memory(self):
        self.begin()
        self.limit_program(resource.RLIMIT_AS, self.address_space() + self.enough)
        for _ in range(3):
            for piece in self.course():
                piece()

    def test_without_memory(self):
        self.begin()
        failures = 0
        for spare in (0, 256, 1024):
            with self.subTest(spare=spare):
                self.limit_program(resource.RLIMIT_AS, self.address_space() + spare * KIB)
                failures += self.use()
                if self.program().ended():
                    program = self.system.programs.pop(self.name)
                    log = program.log_path.read_text()
                    self.assertEqual(program.wait(), 1, log)
                    self.assertIn(f"{self.name}: Cannot allocate memory", log.splitlines())
                    self.system.start(self.name)
                else:
                    self.limit_program(resource.RLIMIT_AS, UNLIMITED)
                self.all_is_as_before()
        self.assertGreater(failures, 0)

    def test_without_descriptors(self):
        self.begin()
        failures = 0
        for spare in range(3):
            with self.subTest(spare=spare):
                self.are_closed()
                self.limit_program(resource.RLIMIT_NOFILE, self.number_above(spare))
                failures += self.use()
                self.assertFalse(self.program().ended(), self.system.log(self.name))
                self.limit_program(resource.RLIMIT_NOFILE, UNLIMITED)
                self.all_is_as_before()
        self.assertGreater(failures, 0)


if "TARN_SANITIZED" in os.environ:
    # They have an allocator of their own, which ends the program in its own way.
    Scarcity.test_with_little_memory = Scarcity.test_without_memory = None


class Broker(Scarcity, test_calls.Broker):
    name = "busd"

    def lose_session(self):
        pass


class Service(Scarcity):
    def course(self):
        return [*super().course(), self.large_question]

    def large_question(self):
        """More than a service has at hand for a message."""
        number = next((number for number, name in self.bus.list() if name == self.name), 0)
        fields = {("r", field): bytes(60000) for field in range(1, 11)}
        answer = self.bus.request([number], tarnbus.GET_POLICIES, fields, timeout=self.limit)
        self.assertNotEqual(tarnbus.error_of(answer), tarnbus.UNREACHABLE)


class ServiceManager(Service, test_services.ServiceManager):
    pass


class Users(Service, test_services.Users):
    enough = 24576 * KIB  # hashing a password takes most of it


class Status(Service, test_services.Status):
    pass


class Tls(Service, test_services.Tls):
    pass


class Hotspot(Service, test_services.Hotspot):
    pass


if __name__ == "__main__":
    unittest.main()
