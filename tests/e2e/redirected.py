"""Tests of redirected connections, to be run in a network namespace of their own: they change its firewall.

With --probe, only tries whether the kernel lets one do that.
"""

import fcntl
import shutil
import socket
import struct
import subprocess
import sys
import unittest

import harness
import rawhttp
import test_hotspot

# What nobody listens at: the firewall sends it elsewhere.
WANTED = ("127.9.9.9", 80)
WANTED_OF_FORWARDER = ("127.9.9.10", 80)
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1


def raise_loopback():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = struct.pack("16sh14x", b"lo", 0)
        flags = struct.unpack("16sh14x", fcntl.ioctl(any_socket, SIOCGIFFLAGS, request))[1]
        fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", flags | IFF_UP))


def redirect(wanted, port):
    """Has the firewall send connections for an address to a port of this machine."""
    rules = f"""add table ip test
add chain ip test out {{ type nat hook output priority -100; }}
add rule ip test out ip daddr {wanted[0]} tcp dport {wanted[1]} redirect to :{port}
"""
    subprocess.run([shutil.which("nft", path=test_hotspot.ADMIN_PATH), "-f", "-"], input=rules, text=True, check=True)


class Redirected(test_hotspot.Hotspot):
    def get(self, wanted, target="/"):
        with rawhttp.Connection.tcp(wanted[1], wanted[0]) as connection:
            return connection.get(target)

    def test_a_tcp_listener_knows_what_was_wanted(self):
        redirect(WANTED, self.port)
        page = test_hotspot.facts(self.get(WANTED))
        if harness.is_foreign(self.system.root / "bin/www"):
            # The emulator does not pass the question on: whoever is redirected seems to have come by itself.
            self.assertEqual(page.get("original", page["local"]), page["local"])
            self.assertEqual(self.get(WANTED, "/generate_204").status, 404)
            return
        self.assertEqual((page["original"], page["local"]), ("127.9.9.9:80", f"127.0.0.1:{self.port}"))
        # Whoever wanted something else is sent to the front page, until logged in.
        self.assertEqual(self.get(WANTED, "/generate_204").header("location"), "/")
        with rawhttp.Connection.tcp(WANTED[1], WANTED[0]) as connection:
            self.assertEqual(test_hotspot.post(connection, "/login", code=test_hotspot.CODE).status, 303)
            self.assertEqual(connection.get("/generate_204").status, 404)
        # One that came by itself wanted nothing else.
        page = test_hotspot.facts(rawhttp.get(self.port, "/"))
        self.assertEqual(page.get("original", page["local"]), page["local"])
        self.assertEqual(rawhttp.get(self.port, "/generate_204").status, 404)

    def test_the_forwarder_tells_what_was_wanted(self):
        port = harness.free_port()
        forwarder = test_hotspot.Forwarder(self.system, f"127.0.0.1:{port}", self.port, 5)
        self.addCleanup(forwarder.close)
        redirect(WANTED_OF_FORWARDER, port)
        page = test_hotspot.facts(self.get(WANTED_OF_FORWARDER))
        wanted = f"127.0.0.1:{port}" if harness.is_foreign(self.system.root / "bin/forwarder") else "127.9.9.10:80"
        self.assertEqual((page["original"], page["local"], page["tag"]), (wanted, f"127.0.0.1:{port}", "5"))


if __name__ == "__main__":
    raise_loopback()
    if "--probe" in sys.argv:
        redirect(WANTED, 1)
    else:
        unittest.main(verbosity=2)
