"""Sessions end after a minute without a sign of life, and others do not."""

import time
import unittest

import tarnbus
import tunnelbox
from tunnelbox import messages, tunnel

MINUTE = 60


class Expiry(tunnelbox.TunnelTest):
    def test_a_minute(self):
        service = self.service(24, lambda bus, message: bus.reply(message))
        watcher = self.system.bus(name="watcher")
        watcher.join_group(tunnelbox.END_GROUP)
        # The stranger first: what has been silent for longer is gone when the idle one is.
        stranger, idle, waiting, lively = self.meet(), self.log_in(), self.log_in(), self.log_in()
        numbers = {"idle": idle.id, "waiting": waiting.id, "lively": lively.id}
        poll = self.park_poll(waiting)
        www = self.system.bus_id("www")
        # A message that nobody fetches is no sign of life.
        service.bus.send([www, 100, idle.id], None, {("u", 1): 1})
        begun = time.monotonic()
        while time.monotonic() - begun < MINUTE - 5:
            lively.call([24, 1])
            time.sleep(5)
        notice = watcher.receive(timeout=MINUTE)
        self.assertEqual(notice.sender, [www, 100, numbers["idle"]])
        for gone in (idle, stranger):
            with self.assertRaises(tunnel.SessionLost):
                gone.exchange({})
        self.expect_log([f"no session {gone.id:x}" for gone in (idle, stranger)], "no session ")
        # The one that polls is there, and so is the one that called.
        service.bus.send([www, 100, numbers["waiting"]], None, {("u", 1): 5})
        self.assertEqual(messages.read_json(waiting.open(tunnel.text_to_bytes(poll.read_response().body)))[("u", 1)], 5)
        lively.call([24, 1])
        lively.end()
        waiting.end()
        ended = {watcher.receive().sender[2] for _ in range(2)}
        self.assertEqual(ended, {numbers["lively"], numbers["waiting"]})
        with self.assertRaises(TimeoutError):
            watcher.receive(timeout=0.2)
        self.assertEqual(tarnbus.error_of(self.log_in().exchange({messages.DESTINATION: [999]}))[1], "unreachable")


if __name__ == "__main__":
    unittest.main()
