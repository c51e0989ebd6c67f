"""What goes before a request on the local listener of a server, and a service that answers forwarded requests."""

import socket
import struct
import threading

import harness
import tarnbus

REQUEST = 0x50001

# Fields of a forwarded request and of its answer (docs/forwarded-requests.md).
METHOD, TARGET, QUERY, VERSION, LINES = ("u", 1), ("s", 2), ("s", 3), ("u", 4), ("S", 5)
PEER, PEER_PORT, LOCAL, LOCAL_PORT = ("a", 6), ("u", 7), ("a", 8), ("u", 9)
ORIGINAL, ORIGINAL_PORT, TLS, LOCAL_LISTENER, TAG, PATH = ("a", 10), ("u", 11), ("b", 12), ("b", 13), ("u", 14), ("s", 15)
BODY = ("s", 30)
STATUS, STATUS_TEXT, CACHEABLE = ("u", 1), ("s", 2), ("b", 16)


def mapped(host):
    """The 16 bytes that stand for an IPv4 address."""
    return bytes(10) + b"\xff\xff" + socket.inet_aton(host)


def header(system, peer=("10.1.2.3", 4000), local=("10.0.0.1", 80), original=("192.0.2.1", 8080), tag=0):
    """The 88 bytes, for the processor that www runs on: the family of an address is in its byte order."""
    order = ">" if harness.is_foreign(system.root / "bin/www") else "<"

    def address(host, port):
        if ":" in host:
            return (struct.pack(order + "H", socket.AF_INET6) + struct.pack("!HI", port, 0)
                    + socket.inet_pton(socket.AF_INET6, host) + bytes(4))
        return struct.pack(order + "H", socket.AF_INET) + struct.pack("!H4s8x", port, socket.inet_aton(host)) + bytes(12)
    return address(*peer) + address(*local) + address(*original) + struct.pack("!I", tag)


class Answerer:
    """A service on a bus client of its own that answers every request with what `make(request)` gives: fields, or None
    for no answer at all."""

    def __init__(self, system, make, id=200):
        self.client = system.bus(id=id, name="service")
        self.make = make
        self.requests = []
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while True:
            try:
                request = self.client.receive(timeout=3600)
                if request.command == tarnbus.ASK_FOR_RECORDS:
                    continue  # by a server that is slow to get its record, of which the hotspot service may know more
                self.requests.append(request)
                fields = self.make(request)
                if fields is not None:
                    self.client.reply(request, fields)
            except (OSError, ValueError, tarnbus.BusError):
                return

    def close(self):
        """Leaves the bus, whatever waits for an answer."""
        self.client.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.client.close()
