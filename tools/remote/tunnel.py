"""A client of the enciphered tunnel (docs/tunnel.md): log in to a box over plain http and talk to its services.

    with tunnel.Tunnel("http://10.0.0.1:8080") as box:
        box.log_in("admin", password)
        print(box.call([24, 1], 0xfe0102))

Messages are dictionaries as in messages.py. What goes wrong is a TunnelError with one line for a person.

The tunnel keeps listeners out. It does not prove to the client who the box is: whoever can change packets on the way can
stand between the two.
"""

import hashlib
import http.client
import itertools
import os
import shutil
import threading
import time
import urllib.parse

import messages

PATH = "/jsproxy"
PADDING = b" " * 8
HEADER_BYTES = 8
LEAST_FRAME = HEADER_BYTES + len(PADDING)
MAX_BODY = 131072
# As text a frame grows by half, give or take a little.
MAX_TEXT_PAYLOAD = 86000
# A time limit that is none.
FOREVER = float("inf")
DISCARDED = 768
END_OF_SESSION = 0xfe0014
# The server closes a connection that is silent for two seconds.
CONNECTION_LIFE = 1.0

LOGIN_TEXT = ("s", 0xfe0009)


class TunnelError(Exception):
    """Something went wrong; the text says what in one line."""


class Unreachable(TunnelError):
    """There is no box, no tunnel on it, or no answer in time."""


class Refused(TunnelError):
    """The box said no: wrong user or password, or not allowed."""


class SessionLost(TunnelError):
    """The session has ended on the box, or the frame did not suit it."""


class ServiceError(TunnelError):
    """A service answered with an error; its code and text."""

    def __init__(self, code, text):
        super().__init__(f"error {code:#x}" + (f": {messages.printable(text)}" if text else ""))
        self.code, self.text = code, text


# ---- Crypto

PRIME = 2 ** 255 - 19


def multiply(scalar, u):
    """X25519 on integers: the u-coordinate of the scalar's multiple of a point (RFC 7748, 5). Not in constant time:
    whoever can measure this process has its memory, too."""
    u %= PRIME
    x2, z2, x3, z3, swapped = 1, 0, u, 1, 0
    for at in reversed(range(255)):
        bit = scalar >> at & 1
        if bit != swapped:
            x2, x3, z2, z3 = x3, x2, z3, z2
        swapped = bit
        a, b, c, d = x2 + z2, x2 - z2, x3 + z3, x3 - z3
        aa, bb, da, cb = a * a % PRIME, b * b % PRIME, d * a % PRIME, c * b % PRIME
        e = aa - bb
        x3, z3 = (da + cb) ** 2 % PRIME, u * (da - cb) ** 2 % PRIME
        x2, z2 = aa * bb % PRIME, e * (aa + 121665 * e) % PRIME
    if swapped:
        x2, z2 = x3, z3
    return x2 * pow(z2, PRIME - 2, PRIME) % PRIME


def clamp(scalar):
    return scalar & (1 << 255) - 8 | 1 << 254


class Keystream:
    """An RC4 keystream from position 1 on, behind the bytes that are discarded. Frames may use it in any order, each
    part of it once."""

    def __init__(self, key):
        self._state = list(range(256))
        self._i = self._j = 0
        j = 0
        for i in range(256):
            j = (j + self._state[i] + key[i % len(key)]) & 255
            self._state[i], self._state[j] = self._state[j], self._state[i]
        self._generate(DISCARDED)
        self._held = bytearray()
        self._first = 1  # position of the first byte held
        self._used = {}  # parts used behind it: start to length

    def _generate(self, count):
        state, i, j = self._state, self._i, self._j
        out = bytearray(count)
        for at in range(count):
            i = (i + 1) & 255
            a = state[i]
            j = (j + a) & 255
            b = state[j]
            state[i], state[j] = b, a
            out[at] = state[(a + b) & 255]
        self._i, self._j = i, j
        return out

    def cipher(self, position, data):
        """Enciphers or deciphers bytes that begin at a position."""
        begin = position - self._first
        missing = begin + len(data) - len(self._held)
        if missing > 0:
            self._held += self._generate(missing)
        if begin < 0:
            raise SessionLost("an answer came twice")
        key = self._held[begin:begin + len(data)]
        result = int.from_bytes(data, "big") ^ int.from_bytes(key, "big")
        self._used[position] = len(data)
        while self._first in self._used:
            length = self._used.pop(self._first)
            del self._held[:length]
            self._first += length
        return result.to_bytes(len(data), "big")


def session_keys(master):
    """The browser's receiving and its sending key: the asymmetric start keys of RFC 3079, 16 bytes each."""
    receiving = b"On the client side, this is the receive key; on the server side, it is the send key."
    sending = b"On the client side, this is the send key; on the server side, it is the receive key."
    return tuple(hashlib.sha1(master + bytes(40) + text + b"\xf2" * 40).digest()[:16] for text in (receiving, sending))


def bytes_to_text(data):
    """Each byte as one character of UTF-8, 0 as U+0100."""
    return "".join(chr(byte or 256) for byte in data).encode()


def text_to_bytes(text):
    try:
        return bytes(ord(character) & 255 for character in text.decode())
    except UnicodeDecodeError:
        raise SessionLost("the box sent an answer that is no text") from None


# ---- The session

class Tunnel:
    """One session. Requests may be made from several threads at once; a frame is numbered when it is made."""

    def __init__(self, url, binary=False, timeout=20.0, path=PATH):
        self.binary, self.timeout, self.path = binary, timeout, path
        parts = urllib.parse.urlsplit(url if "//" in url else f"http://{url}")
        if parts.scheme not in ("http", "https") or not parts.hostname:
            raise TunnelError(f"{url} is no address such as http://10.0.0.1:8080")
        self._class = http.client.HTTPSConnection if parts.scheme == "https" else http.client.HTTPConnection
        try:
            self._address = parts.hostname, parts.port
        except ValueError:
            raise TunnelError(f"{url} has a port that is none") from None
        self._lock = threading.Lock()
        self._idle = []  # connections that wait for the next request, and since when
        self.id = 0
        self.logged_in = False
        self._next_position = 1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.end()
        except TunnelError:
            pass
        self.close()

    def close(self):
        """Lets go of all connections. The session on the box ends by itself after a minute."""
        with self._lock:
            while self._idle:
                self._idle.pop()[0].close()

    # HTTP

    def _take_connection(self, timeout, may_be_kept):
        """A connection, and whether it was used before."""
        timeout = None if timeout == FOREVER else timeout
        with self._lock:
            while may_be_kept and self._idle:
                connection, since = self._idle.pop()
                if time.monotonic() - since < CONNECTION_LIFE:
                    connection.sock.settimeout(timeout)
                    return connection, True
                connection.close()
        return self._class(*self._address, timeout=timeout), False

    def request(self, method, target, body=None, headers=None, timeout=None, out=None):
        """One request; status, headers and body of its answer. With `out`, the body of a good answer is written there
        as it comes and not kept."""
        timeout = self.timeout if timeout is None else timeout
        # A kept connection may end as it is used again, and a body that is read as it is sent cannot be sent again.
        connection, is_kept = self._take_connection(timeout, may_be_kept=isinstance(body, (bytes, type(None))))
        try:
            try:
                response = self._ask(connection, method, target, body, headers or {})
            except (http.client.RemoteDisconnected, ConnectionResetError):
                # Nothing was taken; and if it was, a frame is not taken twice.
                if not is_kept:
                    raise
                connection.close()
                connection = self._class(*self._address, timeout=None if timeout == FOREVER else timeout)
                response = self._ask(connection, method, target, body, headers or {})
            if out is not None and response.status == 200:
                shutil.copyfileobj(response, out)
                self._require_whole(response)
            result = response.status, response.headers, response.read()
        except TimeoutError:
            connection.close()
            raise Unreachable(f"no answer within {timeout:g} s") from None
        except (OSError, http.client.HTTPException) as trouble:
            connection.close()
            reason = getattr(trouble, "strerror", None) or str(trouble) or type(trouble).__name__
            raise Unreachable(f"{self._address[0]} cannot be reached: {reason}") from None
        if response.will_close:
            connection.close()
        else:
            with self._lock:
                self._idle.append((connection, time.monotonic()))
        return result

    @staticmethod
    def _ask(connection, method, target, body, headers):
        try:
            connection.request(method, target, body, headers)
        except (BrokenPipeError, ConnectionResetError):
            # Whoever answers before the whole body was sent does not take the rest.
            pass
        return connection.getresponse()

    @staticmethod
    def _require_whole(response):
        if response.length:
            raise http.client.IncompleteRead(b"", response.length)

    def _post(self, body, binary, timeout=None):
        content_type = "msg" if binary else "text/plain"
        status, _, answer = self.request("POST", self.path, body, {"Content-Type": content_type}, timeout)
        if status == 200:
            return answer
        if not self.id:
            raise Unreachable(f"there is no tunnel at {self.path}: the answer is {status}")
        if status == 403:
            raise Refused("wrong user or password")
        if status == 410:
            raise SessionLost("the session has ended")
        raise SessionLost(f"the box answered {status}: the session has ended, or the request did not suit it")

    # Frames

    def connect(self):
        """Exchanges keys: from now on there is a session, which has to log in."""
        self.id = 0
        scalar = clamp(int.from_bytes(os.urandom(32), "big"))
        public = multiply(scalar, 9).to_bytes(32, "big")
        answer = self._post(bytes_to_text(bytes(HEADER_BYTES) + public), binary=False)
        try:
            answer = text_to_bytes(answer)
        except SessionLost:
            answer = b""
        if len(answer) != HEADER_BYTES + 32:
            raise Unreachable(f"there is no tunnel at {self.path}: the answer is something else")
        master = multiply(scalar, int.from_bytes(answer[HEADER_BYTES:], "big")).to_bytes(32, "big")
        receiving, sending = session_keys(master)
        self.id = int.from_bytes(answer[:4], "big")
        self._receiving, self._sending = Keystream(receiving), Keystream(sending)
        self._next_position = 1
        self.logged_in = False

    def frame(self, payload):
        """The next frame to the box."""
        data = payload + PADDING
        with self._lock:
            position = self._next_position
            self._next_position += len(data)
            enciphered = self._sending.cipher(position, data)
        return self.id.to_bytes(4, "big") + position.to_bytes(4, "big") + enciphered

    def open(self, frame):
        """The payload of a frame of the box."""
        if len(frame) < LEAST_FRAME or int.from_bytes(frame[:4], "big") != self.id:
            raise SessionLost("the box sent an answer that belongs to no frame")
        with self._lock:
            data = self._receiving.cipher(int.from_bytes(frame[4:HEADER_BYTES], "big"), frame[HEADER_BYTES:])
        if not data.endswith(PADDING):
            raise SessionLost("the box sent an answer that does not decipher")
        return data[:-len(PADDING)]

    def exchange(self, fields, timeout=None):
        """Sends a message and returns the one that is the answer, errors of services included."""
        if not self.id:
            self.connect()
        payload = messages.flatten(fields) if self.binary else messages.write_json(fields)
        # Before there is a frame: one that is made has to be sent.
        if len(payload) > (MAX_BODY - LEAST_FRAME if self.binary else MAX_TEXT_PAYLOAD):
            raise TunnelError("the message is longer than the tunnel takes")
        frame = self.frame(payload)
        answer = self._post(frame if self.binary else bytes_to_text(frame), self.binary, timeout)
        if not answer:
            raise TunnelError("the answer is too long for the binary form")
        try:
            if self.binary:
                return messages.unflatten(self.open(answer))
            return messages.read_json(self.open(text_to_bytes(answer)))
        except messages.MessageError as trouble:
            raise SessionLost(f"the box sent an answer that is no message: {trouble}") from None

    # What a user wants

    def log_in(self, user, password):
        """Logs in; what the box says of the user."""
        answer = self.exchange({("s", 1): user, ("s", 3): password})
        self.logged_in = True
        return answer

    def call(self, path, command=None, fields=None, timeout=None):
        """Sends a message to a service, and returns its answer without the fields that only carried it here."""
        message = dict(fields or {})
        message[messages.DESTINATION] = list(path)
        if command is not None:
            message[messages.COMMAND] = command
        answer = self.exchange(message, timeout)
        if messages.ERROR_CODE in answer:
            raise ServiceError(answer[messages.ERROR_CODE], answer.get(messages.ERROR_TEXT, ""))
        for key in (messages.DESTINATION, messages.SENDER, messages.REQUEST_NUMBER, messages.IS_REPLY):
            answer.pop(key, None)
        return answer

    def poll(self, timeout=None):
        """Waits for the next message that a service sends by itself."""
        return self.exchange({}, timeout)

    def end(self):
        """Ends the session on the box."""
        if not self.logged_in:
            return
        self.logged_in = False
        self.exchange({messages.COMMAND: END_OF_SESSION})

    # Files of the user's store

    def query(self, payload=b""):
        """A frame as the query of a request: it says which session asks, and which file is meant."""
        if not self.id:
            self.connect()
        return "?" + urllib.parse.quote_from_bytes(bytes_to_text(self.frame(payload)), safe="")

    def _expect(self, status, wanted):
        if status == wanted:
            return
        reasons = {403: "not allowed", 404: "there is no such file", 400: "the box did not understand the upload",
                   507: "the store is full"}
        kind = Refused if status in reasons else SessionLost
        raise kind(reasons.get(status, f"the box answered {status}"))

    def get(self, name, out):
        """Writes a file of the store to a binary file object."""
        status, _, _ = self.request("GET", self.path + self.query(messages.to_bytes(name)), out=out)
        self._expect(status, 200)

    def put(self, name, file, length):
        """Stores `length` bytes of a binary file object under a name."""
        target = f"{self.path}/put{self.query(messages.to_bytes(name))}"
        status, _, _ = self.request("POST", target, file, {"Content-Length": str(length)})
        self._expect(status, 200)

    def upload(self, name, file, length):
        """The same as a browser's form does it."""
        boundary = os.urandom(16).hex()
        disposition = f'form-data; name="file"; filename="{name}"'
        begin = messages.to_bytes(f"--{boundary}\r\nContent-Disposition: {disposition}\r\n"
                                  "Content-Type: application/octet-stream\r\n\r\n")
        end = f"\r\n--{boundary}--\r\n".encode()
        headers = {"Content-Type": f"multipart/form-data; boundary={boundary}",
                   "Content-Length": str(len(begin) + length + len(end))}
        body = itertools.chain([begin], iter(lambda: file.read(65536), b""), [end])
        status, _, _ = self.request("POST", f"{self.path}/upload{self.query()}", body, headers)
        self._expect(status, 303)
