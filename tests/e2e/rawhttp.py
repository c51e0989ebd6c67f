"""HTTP as bytes on a socket, for tests that care about each of them."""

import socket

LOOPBACK = "127.0.0.1"
# Generous: the machine may be busy, and programs emulated.
TIMEOUT = 60.0


class Response:
    """A response as it came: status line, header lines in order, body."""

    def __init__(self, head, body=b""):
        lines = head.decode("latin-1").split("\r\n")
        self.status_line = lines[0]
        self.version, status, *reason = lines[0].split(" ", 2)
        self.status = int(status)
        self.reason = reason[0] if reason else ""
        self.lines = lines[1:]
        self.body = body

    def all(self, name):
        """The values of all header lines of that name."""
        pairs = (line.split(":", 1) for line in self.lines)
        return [value.strip() for key, value in pairs if key.lower() == name.lower()]

    def header(self, name):
        """The value of a header that must be there at the most once; None when it is not."""
        values = self.all(name)
        if len(values) > 1:
            raise AssertionError(f"{name} comes {len(values)} times")
        return values[0] if values else None


class Connection:
    """One socket, with what was read and not used yet."""

    def __init__(self, sock):
        self.socket = sock
        self.socket.settimeout(TIMEOUT)
        self.held = b""

    @classmethod
    def tcp(cls, port, host=LOOPBACK):
        return cls(socket.create_connection((host, port), timeout=TIMEOUT))

    @classmethod
    def unix(cls, port):
        """The local listener of a server: an abstract name, padded with NULs to its full length."""
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.connect((b"\0www-unix%d" % port).ljust(108, b"\0"))
        return cls(sock)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode("latin-1"))

    def read_more(self):
        """Reads once. False at the end, also when the peer cut the connection."""
        try:
            got = self.socket.recv(65536)
        except ConnectionError:
            return False
        self.held += got
        return bool(got)

    def read_until(self, mark):
        """Takes everything up to the mark, which is dropped."""
        while mark not in self.held:
            if not self.read_more():
                raise EOFError(f"the connection ended after {self.held!r}")
        found, self.held = self.held.split(mark, 1)
        return found

    def read_exactly(self, count):
        while len(self.held) < count:
            if not self.read_more():
                raise EOFError(f"the connection ended after {len(self.held)} of {count} bytes")
        found, self.held = self.held[:count], self.held[count:]
        return found

    def read_to_end(self):
        while self.read_more():
            pass
        found, self.held = self.held, b""
        return found

    def read_head(self):
        """A response without its body."""
        return Response(self.read_until(b"\r\n\r\n"))

    def read_response(self):
        """A response with the body that its length announces, or with everything up to the end."""
        response = self.read_head()
        length = response.header("content-length")
        response.body = self.read_to_end() if length is None else self.read_exactly(int(length))
        return response

    def request(self, target, *header_lines, method="GET", version="HTTP/1.1", body=b""):
        """Sends a well-formed request."""
        lines = [f"{method} {target} {version}", "Host: test", *header_lines]
        if body:
            lines.append(f"Content-Length: {len(body)}")
        self.send("\r\n".join(lines + ["", ""]).encode("latin-1") + body)

    def get(self, target, *header_lines):
        self.request(target, *header_lines)
        return self.read_response()


def get(port, target, *header_lines):
    """One GET over a connection of its own."""
    with Connection.tcp(port) as connection:
        return connection.get(target, *header_lines)


def answers(port, target="/"):
    """Whether a page comes. A record opens a listener anew, and whoever waited at the old one is sent away."""
    try:
        return get(port, target).status == 200
    except (OSError, EOFError):
        return False


def refuses(port):
    """Whether nobody listens on a port."""
    try:
        Connection.tcp(port).close()
    except ConnectionRefusedError:
        return True
    return False
