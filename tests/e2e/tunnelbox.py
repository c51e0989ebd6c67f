"""What the tests of the tunnel share: a box with a login service of its own, and services that behave as they are told.

    class Calls(tunnelbox.TunnelTest):
        def test_call(self):
            self.service(24, lambda bus, request: bus.reply(request, {("u", 1): 5}))
            self.assertEqual(self.log_in().call([24, 1]), {("u", 1): 5})
"""

import contextlib
import sys
import threading

import harness
import rawhttp
import tarnbus

sys.path.insert(0, str(harness.TREE / "tools" / "remote"))

import messages  # noqa: E402
import tunnel  # noqa: E402

LOGIN_PROGRAM, LOGIN_HANDLER = 13, 4
END_GROUP = 0xff0001
END_OF_SESSION = 0xfe0014
PASSWORD = "right"

DOCUMENT = ('<www><server name="http"><servlet type="jsproxy" path="/jsproxy"/>'
            '<servlet type="dir" path="/" root="/home/web"/></server></www>')


def grant(policies=0x50, text="admin", number=7, more=None):
    """What a login service answers when it lets a user in."""
    return {("u", 0xfe0001): number, ("u", 11): policies, ("s", 24): text, **(more or {})}


class Service:
    """A program on the bus that runs `behave(bus, message)` for each message, in a thread of its own."""

    def __init__(self, bus, behave):
        self.bus, self.behave = bus, behave
        self.seen = []
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        with contextlib.suppress(tarnbus.BusError, OSError, TimeoutError, ValueError):
            while True:
                message = self.bus.receive(timeout=3600)
                self.seen.append(message)
                self.behave(self.bus, message)

    def stop(self):
        """Leaves the bus; what is under way gets no answer."""
        with contextlib.suppress(OSError):
            self.bus.socket.shutdown(2)
        self.thread.join(harness.PATIENCE)


def check_password(bus, message, answer=None):
    """The login service of most tests."""
    if message.fields.get(("s", 3)) == PASSWORD:
        bus.reply(message, answer or grant())
    else:
        bus.reply_error(message, 0xfe0009, "no")


class BoxTest(harness.SystemTest):
    """A box whose server is not started yet."""

    documents = {"a.xml": DOCUMENT}
    web = {"a.txt": b"a"}

    def use_port(self, port):
        self.port = port
        self.url = f"http://127.0.0.1:{port}"

    def start_login_service(self):
        self.login_service = self.service(LOGIN_PROGRAM, check_password)

    def service(self, number, behave):
        """A service under a bus id; it ends with the test."""
        service = Service(self.system.bus(id=number, name="test"), behave)
        self.addCleanup(service.stop)
        return service

    def meet(self, **options):
        """A session that has not logged in."""
        box = tunnel.Tunnel(self.url, timeout=harness.PATIENCE, **options)
        self.addCleanup(box.close)
        box.connect()
        return box

    def log_in(self, user="admin", password=PASSWORD, **options):
        box = self.meet(**options)
        box.log_in(user, password)
        return box

    def expect_status(self, status, box, body, content_type="text/plain"):
        """Posts a body as it is; the answer's status, and nothing of a session in it."""
        self.assertEqual(box.request("POST", box.path, body, {"Content-Type": content_type})[0], status)

    def park_poll(self, box):
        """A connection with a poll that waits on the server."""
        connection = rawhttp.Connection.tcp(self.port)
        self.addCleanup(connection.close)
        body = messages.write_json({})
        connection.request(box.path, method="POST", body=tunnel.bytes_to_text(box.frame(body)))
        # What arrived is handled before a call that was sent later has gone over the bus and back.
        for _ in range(2):
            box.exchange({messages.DESTINATION: [999]})
        return connection

    def in_background(self, call, *arguments, **keywords):
        """Runs a call in a thread; a function that waits for it and gives its result, or raises what it raised."""
        outcome = {}

        def run():
            try:
                outcome["result"] = call(*arguments, **keywords)
            except Exception as trouble:  # handed to whoever waits
                outcome["trouble"] = trouble

        thread = threading.Thread(target=run, daemon=True)
        thread.start()

        def wait(patience=harness.PATIENCE):
            thread.join(patience)
            self.assertFalse(thread.is_alive(), "a call that does not come back")
            if "trouble" in outcome:
                raise outcome["trouble"]
            return outcome.get("result")

        return wait

    def log_lines(self, *texts):
        """The lines of www's log that begin with one of the texts."""
        return [line for line in self.system.lines("www") if line.startswith(texts)]

    def expect_log(self, expected, *texts):
        """Those lines have to be these; the log is written behind the answers."""
        harness.wait_until(lambda: len(self.log_lines(*texts)) >= len(expected), "the log of the answers")
        self.assertEqual(self.log_lines(*texts), expected)


class TunnelTest(BoxTest):
    """A box whose server serves the tunnel, and has a login service."""

    def setUp(self):
        super().setUp()
        self.use_port(self.system.serve("http"))
        self.start_login_service()
