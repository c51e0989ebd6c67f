"""Every system call of the services fails, as test_calls.py does it with the server and the broker: whatever fails, the
service goes on, what it keeps stands or is changed as it said, and no descriptor stays open."""

import contextlib
import ssl
import time
import unittest
import unittest.mock

import faultbox
import harness
import rawhttp
import tarnbus
import test_calls

SERVICE_MANAGER, USERS, LOGIN, STATUS, FILES, PORTAL = [68, 1], [13, 2], [13, 4], [24, 1], [24, 2], [63, 15]
SET_PASSWORD, MOVE_OBJ = 0x20001, 0xfe010b
PASSWORD = "a good password"
NUMBER, NAME = ("u", 0xfe0001), ("s", 1)


class ServiceCalls(test_calls.Calls):
    """One service; a subclass says which, and what it is put through."""

    documents = {"a.xml": '<www><server name="http"><servlet type="dir" path="/" root="/home/web"/></server>'
                          '<server name="https" ssl="yes"><servlet type="dir" path="/" root="/home/web"/></server></www>'}
    web = {"a.txt": b"a"}
    others = ("busd",)
    end_statuses = (1,)

    def setUp(self):
        super().setUp()
        self.faults = faultbox.Faults(self.system, self.name)
        self.system.start(*self.others)

    def begin(self):
        self.prepare()
        self.system.start(self.name)
        self.system.bus_id(self.name)
        self.bus = self.system.bus()
        for piece in self.course():
            piece()
        # A database opens its journal when it first needs it; and a client's end may be seen a little later.
        self.idle_descriptors = self.program().descriptors() + 2

    def prepare(self):
        pass

    def program(self):
        return self.system.programs[self.name]

    def ask(self, path, command, fields=None):
        reply = self.bus.request(path, command, fields or {}, timeout=self.limit)
        self.assertFalse(tarnbus.is_error(reply), reply)
        return tarnbus.fields_of(reply)

    def lose_session(self):
        """An answer that comes late is nobody's."""
        self.bus.close()
        self.bus = self.system.bus()

    def choices(self, uses):
        """What a service does costs more than what the server and the broker do, so fewer uses of a call fail."""
        return super().choices(uses if test_calls.EVERY_ERROR else {name: min(count, 2) for name, count in uses.items()})

    def recovered(self):
        self.comes_back(self.course()[0], "the service to do what it is asked")

    def started(self, program):
        if not self.faults.used().get("epoll_wait", 0):
            return False
        time.sleep(0.05)
        return True

    def recovered_from_start(self, _):
        for piece in self.course():
            self.comes_back(piece, "the service to do what it is asked")

    def test_while_it_serves(self):
        self.begin()
        self.every_fault()

    def test_at_its_start(self):
        self.begin()
        self.system.stop(self.name)
        self.faults.forget_uses()
        self.system.start(self.name)
        self.system.bus_id(self.name)
        self.system.stop(self.name)
        kept = self.kept()
        self.every_fault_at_the_start(self.name)
        self.system.start(self.name)
        self.recovered_from_start(self.name)
        self.assertEqual(self.kept(), kept)

    def kept(self):
        """What is kept, without what is on its way: databases by their names, all else as it is. Nothing is set aside, and
        nothing is made anew."""
        store = self.system.path("/rw/store")
        return {str(path.relative_to(store)): "a database" if path.suffix == ".db" else path.read_bytes()
                for path in store.rglob("*") if path.is_file() and not path.name.endswith(("-journal", ".new"))}


class ServiceManager(ServiceCalls, harness.SystemTest):
    name = "sermgr"
    calls = frozenset(("write", "send", "recvmsg", "epoll_wait", "open", "fstat", "stat", "fcntl", "unlink", "pread", "pwrite",
                       "fdatasync"))

    def course(self):
        return [self.change, self.list]

    def change(self):
        self.port = getattr(self, "port", 20000) % 30000 + 1
        self.ask(SERVICE_MANAGER, tarnbus.SET, tarnbus.record("http", self.port))

    def list(self):
        records = self.ask(SERVICE_MANAGER, tarnbus.GET_ALL)[("M", 1)]
        self.assertIn("http", [record[NAME] for record in records])


class Users(ServiceCalls, harness.SystemTest):
    name = "userd"
    impatience = 1.0
    address = 0
    calls = frozenset(("read", "send", "recvmsg", "epoll_wait", "open", "fstat", "stat", "fcntl", "unlink", "pread", "pwrite",
                       "fdatasync"))

    def choices(self, uses):
        """The one write of its loop is to a counter that is never full, which has no way to fail."""
        return super().choices({name: count for name, count in uses.items() if name != "write"})

    def course(self):
        return [self.log_in, self.password, self.users]

    def log_in(self):
        self.address += 1
        self.ask(LOGIN, 1, {NAME: "admin", ("s", 3): PASSWORD, ("u", 7): 5, ("b", 8): True,
                            ("a", 0xff0013): bytes(10) + b"\xff\xff\x0a" + self.address.to_bytes(3, "big")})

    def prepare(self):
        self.system.start("userd")
        self.system.bus_id("userd")
        with self.system.bus() as bus:
            bus.request(USERS, SET_PASSWORD, {NAME: "admin", ("s", 3): PASSWORD})
        self.system.stop("userd")

    def password(self):
        self.ask(USERS, SET_PASSWORD, {NAME: "admin", ("s", 3): PASSWORD})

    def users(self):
        """A user that a failure may have left behind is taken away first."""
        for user in self.ask(USERS, tarnbus.GET_ALL)[("M", 1)]:
            if user[NAME] == "guest":
                self.ask(USERS, tarnbus.REMOVE_OBJ, {NUMBER: user[NUMBER]})
        number = self.ask(USERS, tarnbus.ADD_OBJ, {NAME: "guest", ("s", 3): PASSWORD})[NUMBER]
        self.ask(USERS, tarnbus.REMOVE_OBJ, {NUMBER: number})


class Status(ServiceCalls, harness.SystemTest):
    name = "sysd"
    calls = frozenset(("send", "recvmsg", "epoll_wait", "open", "readdir", "fdopendir", "openat", "mkdirat", "renameat2",
                       "unlinkat"))

    def course(self):
        return [self.status, self.files]

    def status(self):
        """What the kernel does not tell is said to be missing; the answer comes."""
        self.ask(STATUS, tarnbus.GET_ALL)

    def files(self):
        """Directories that a failure may have left behind are taken away first."""
        for entry in self.ask(FILES, tarnbus.GET_ALL)[("M", 1)]:
            self.ask(FILES, tarnbus.REMOVE_OBJ, {NAME: entry[NAME]})
        self.ask(FILES, tarnbus.ADD_OBJ, {NAME: "one"})
        self.ask(FILES, MOVE_OBJ, {NAME: "one", ("s", 2): "other"})
        self.ask(FILES, tarnbus.GET)
        self.ask(FILES, tarnbus.REMOVE_OBJ, {NAME: "other"})


class Tls(ServiceCalls, harness.SystemTest):
    name = "tlsd"
    others = ("busd", "www")
    impatience = 0.5
    calls = frozenset(("send", "sendmsg", "recvmsg", "epoll_ctl", "epoll_wait", "setsockopt", "getsockopt", "fcntl", "shutdown",
                       "recv", "socketpair"))

    def prepare(self):
        self.port = harness.free_port()
        self.context = ssl.create_default_context()
        self.context.check_hostname = False
        self.context.verify_mode = ssl.CERT_NONE
        reply = self.system.send_record(tarnbus.record("https", self.port, tls_ref=1))
        self.assertFalse(tarnbus.is_error(reply))

    def course(self):
        return [self.page]

    def page(self):
        with rawhttp.Connection.tcp(self.port) as plain:
            plain.socket.settimeout(self.limit)
            with contextlib.closing(self.context.wrap_socket(plain.socket, suppress_ragged_eofs=False)) as sock:
                connection = rawhttp.Connection(sock)
                sock.settimeout(self.limit)
                self.assertEqual(connection.get("/a.txt", "Connection: close").body, b"a")
                self.shown = ssl.DER_cert_to_PEM_cert(sock.getpeercert(True))

    def recovered_from_start(self, name):
        """Another certificate than the one that is kept is for so long as that cannot be read."""
        super().recovered_from_start(name)
        kept = self.system.path("/rw/store/tls/certificate.pem").read_text()
        def is_shown():
            self.page()
            return self.shown == kept
        harness.wait_until(is_shown, "the certificate that is kept")


class Hotspot(ServiceCalls, harness.SystemTest):
    name = "hotspotd"
    calls = frozenset(("write", "send", "recvmsg", "epoll_wait", "open", "fsync", "rename"))
    others = ("busd", "www")

    def prepare(self):
        self.port = harness.free_port()
        self.system.write("/rw/store/hotspot.conf", "settings {s1:'Lobby',s2:'SECRET12',u3:60}\n"
                          f"server {{s1:'lobby',u2:{self.port},M6:[{{u1:0x7f000000,u2:0xff000000}}]}}\n")

    def begin(self):
        with unittest.mock.patch.object(self, "course", lambda: []):
            super().begin()
        harness.wait_until(lambda: not rawhttp.refuses(self.port), "the hotspot's server")
        for piece in self.course():
            piece()
        self.idle_descriptors = self.program().descriptors() + 2

    def course(self):
        return [self.page, self.settings]

    def page(self):
        with rawhttp.Connection.tcp(self.port) as connection:
            connection.socket.settimeout(self.limit)
            self.assertEqual(connection.get("/").status, 200)

    def settings(self):
        self.ask(PORTAL, tarnbus.SET, {NAME: "Lobby"})


if __name__ == "__main__":
    unittest.main()
