"""The one text that the server never comes back from, under the supervisor: the hung server is seen, started again, and
everything is as before but for the sessions."""

import os
import unittest

import harness
import rawhttp
import tunnelbox
from tunnelbox import tunnel


class Hang(tunnelbox.BoxTest):
    def setUp(self):
        super().setUp()
        self.system.write("/tarn/etc/programs", "busd /bin/busd\nsermgr /bin/sermgr\nwww /bin/www\n")
        self.system.start("tnrun")
        harness.wait_until(lambda: "sermgr" in self.system.tn("list").stdout, "sermgr to join the bus")
        self.use_port(harness.free_port())
        self.system.tn("call", "68/1", "set", f"{{s1:'http',u2:{self.port}}}")
        harness.wait_until(lambda: rawhttp.answers(self.port, "/a.txt"), "the page")
        self.start_login_service()

    def test_a_stray_character_in_a_list_of_addresses(self):
        old = self.system.bus_id("www")
        bystander = self.log_in()
        box = self.log_in()
        # Cut off; or, asked again, told by the new server that it knows nothing of the session.
        with self.assertRaises((tunnel.Unreachable, tunnel.SessionLost)):
            box._post(tunnel.bytes_to_text(box.frame(b"{A1:[x]}")), binary=False)
        self.system.wait_for_line("tnrun", "tnrun: www does not answer and is killed")
        harness.wait_until(lambda: rawhttp.answers(self.port, "/a.txt"), "the page again")
        harness.wait_until(lambda: self.system.bus_id("www") != old, "the new server to join")
        # Sessions do not outlive the server; whoever had one logs in again.
        with self.assertRaises(tunnel.SessionLost):
            bystander.exchange({})
        self.log_in().end()


if __name__ == "__main__":
    unittest.main()
