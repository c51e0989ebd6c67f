"""A program of a test's own on the message bus: the protocol of docs/bus-protocol.md in Python, standard library only.

Messages are dictionaries: the key is the type's letter and the field's id, as in {("u", 2): 8080, ("s", 1): "http"}.
Strings are text (UTF-8, with anything else kept as surrogates), raw values and addresses are bytes, nested messages are
dictionaries, and arrays are lists.
"""

import array
import collections
import os
import socket
import struct
import time

# Generous: the machine may be busy, and programs emulated.
TIMEOUT = 60.0

HEADER = struct.Struct("<III")
MESSAGE, BOUNCED, CONTROL, OBSERVED = range(4)
MAX_PAYLOAD = 4 << 20

DESTINATION = ("U", 0xff0001)
SENDER = ("U", 0xff0002)
COMMAND = ("u", 0xff0007)
DESCRIPTOR = ("u", 0xff0015)
REQUEST_NUMBER = ("u", 0xff0020)
IS_REPLY = ("b", 0xff0021)
ERROR_CODE = ("u", 0xff0022)
ERROR_TEXT = ("s", 0xff0023)

GET_POLICIES, GET, SET, GET_ALL, ADD_OBJ, REMOVE_OBJ = 0xfe0101, 0xfe0102, 0xfe0103, 0xfe0107, 0xfe0109, 0xfe010a
SERVER_RECORD, ASK_FOR_RECORDS = 0x30001, 0x30003

JOIN, JOIN_GROUP, LEAVE_GROUP, LIST, STATISTICS, MONITOR = range(1, 7)

# What a request comes to whose program is not there.
UNREACHABLE = (0xfe000e, "unreachable")

TYPES = "buqasmr"  # in the order of their codes
SHORT = 0x01000000


class BusError(Exception):
    """The broker refused, or the link was lost."""


def _bytes(value):
    return value.encode("utf-8", "surrogateescape") if isinstance(value, str) else bytes(value)


def _scalar(letter, value):
    """The payload of one element."""
    if letter == "b":
        return b"\1" if value else b"\0"
    if letter == "u":
        return struct.pack("<I", value)
    if letter == "q":
        return struct.pack("<Q", value)
    return encode(value) if letter == "m" else _bytes(value)


def _field(letter, number, value):
    if letter.isupper():
        code = 0x80000000 | TYPES.index(letter.lower()) << 27
        payload = struct.pack("<H", len(value))
        for element in value:
            data = _scalar(letter.lower(), element)
            payload += (struct.pack("<H", len(data)) if letter in "SMR" else b"") + data
        return struct.pack("<I", code | number) + payload
    code = TYPES.index(letter) << 27 | number
    if letter == "b":
        return struct.pack("<I", code | (SHORT if value else 0))
    if letter == "u" and value <= 255:
        return struct.pack("<IB", code | SHORT, value)
    data = _scalar(letter, value)
    if letter in "smr":
        short = len(data) <= 255
        length = struct.pack("<B" if short else "<H", len(data))
        return struct.pack("<I", code | (SHORT if short else 0)) + length + data
    return struct.pack("<I", code) + data


def encode(fields):
    """The flattened form of a message."""
    return b"M2" + b"".join(_field(letter, number, value) for (letter, number), value in fields.items())


class _Reader:
    def __init__(self, data):
        self.data, self.at = data, 0

    def take(self, count):
        piece = self.data[self.at:self.at + count]
        if len(piece) != count:
            raise ValueError("a message is cut short")
        self.at += count
        return piece

    def number(self, size):
        return int.from_bytes(self.take(size), "little")

    def scalar(self, letter, size=None):
        if letter == "b":
            return self.number(1) != 0
        if letter in "uq":
            return self.number(4 if letter == "u" else 8)
        data = self.take(16 if letter == "a" else size)
        if letter == "s":
            return data.decode("utf-8", "surrogateescape")
        return decode(data) if letter == "m" else data


def decode(data):
    """The fields of a flattened message."""
    reader = _Reader(bytes(data))
    if reader.take(2) != b"M2":
        raise ValueError("not a message")
    fields = {}
    while reader.at < len(data):
        header = reader.number(4)
        letter, number, short = TYPES[header >> 27 & 15], header & 0xffffff, bool(header & SHORT)
        if header & 0x80000000:
            letter = letter.upper()
            value = [reader.scalar(letter.lower(), reader.number(2) if letter in "SMR" else None)
                     for _ in range(reader.number(2))]
        elif letter == "b":
            value = short
        elif letter == "u" and short:
            value = reader.number(1)
        elif letter in "smr":
            value = reader.scalar(letter, reader.number(1 if short else 2))
        else:
            value = reader.scalar(letter)
        fields[letter, number] = value
    return fields


def fields_of(message):
    return message if isinstance(message, dict) else message.fields


def is_error(message):
    return ERROR_CODE in fields_of(message)


def error_of(message):
    """Code and text of an error; None for any other message."""
    fields = fields_of(message)
    return (fields[ERROR_CODE], fields.get(ERROR_TEXT, "")) if ERROR_CODE in fields else None


def record(name=None, port=None, disabled=None, tls_ref=None, allowed=None):
    """A server record; what is None is left out."""
    values = {("s", 1): name, ("b", 0xfe000a): disabled, ("u", 2): port, ("u", 5): tls_ref, ("M", 6): allowed}
    return {key: value for key, value in values.items() if value is not None}


class Incoming:
    """A message that came, with the descriptor that it brought. Whoever takes `fd` closes it."""

    def __init__(self, kind, peer, payload, fd):
        self.kind, self.peer, self.payload, self.fd = kind, peer, payload, fd
        self.fields = {} if kind == OBSERVED else decode(payload)

    @property
    def sender(self):
        """The path that a reply goes to."""
        return [self.peer, *self.fields.get(SENDER, [])]

    @property
    def command(self):
        return self.fields.get(COMMAND)


class Client:
    """One program on the bus. `id` 0 takes any free one."""

    def __init__(self, path, id=0, name="test", timeout=TIMEOUT):
        self.timeout = timeout
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(timeout)
        self.held = b""
        self.descriptors = []  # (offset in everything received, descriptor)
        self.received = 0
        self.waiting = collections.deque()
        self.last_number = 0
        try:
            self.socket.connect(path)
            answer = self.control(JOIN, {("u", 2): id, ("s", 3): name})
        except BaseException:
            self.socket.close()
            raise
        self.id = answer[("u", 2)]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()
        for _, fd in self.descriptors:
            os.close(fd)
        self.descriptors = []
        for message in self.waiting:
            if message.fd is not None:
                os.close(message.fd)
        self.waiting.clear()

    # Frames

    def send_payload(self, peer, payload, fd=None, kind=MESSAGE):
        """Sends one frame, whatever its payload is. The descriptor stays the caller's."""
        frame = HEADER.pack(len(payload), peer, kind) + payload
        sent = 0
        if fd is not None:
            sent = self.socket.sendmsg([frame], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [fd]))])
        self.socket.sendall(frame[sent:])

    def _read_more(self, deadline):
        self.socket.settimeout(max(0.001, deadline - time.monotonic()))
        try:
            data, ancillary, _, _ = self.socket.recvmsg(65536, socket.CMSG_SPACE(64), socket.MSG_CMSG_CLOEXEC)
        finally:
            self.socket.settimeout(self.timeout)
        for level, kind, content in ancillary:
            if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
                for fd in array.array("i", content[:len(content) // 4 * 4]):
                    self.descriptors.append((self.received + len(data), fd))
        self.received += len(data)
        if not data:
            raise BusError("the broker has ended the link")
        self.held += data

    def _next_frame(self, deadline):
        while len(self.held) < HEADER.size or len(self.held) < HEADER.size + HEADER.unpack_from(self.held)[0]:
            self._read_more(deadline)
        length, peer, kind = HEADER.unpack_from(self.held)
        begin = self.received - len(self.held)
        payload, self.held = self.held[HEADER.size:HEADER.size + length], self.held[HEADER.size + length:]
        end = begin + HEADER.size + length
        # A descriptor belongs to the last frame that starts within the bytes it came with.
        fd = None
        if self.descriptors and begin < self.descriptors[0][0] and not self._frame_starts_before(end):
            fd = self.descriptors.pop(0)[1]
        return Incoming(kind, peer, payload, fd)

    def _frame_starts_before(self, at):
        """Whether a frame that starts at `at` still started within the bytes of the oldest descriptor."""
        return at < self.descriptors[0][0]

    # Messages

    def send(self, path, command=None, fields=None, fd=None):
        """Sends a message to a path, program first, and wants no answer."""
        message = {DESTINATION: list(path[1:])}
        if command is not None:
            message[COMMAND] = command
        if fd is not None:
            message[DESCRIPTOR] = 0
        message.update(fields or {})
        self.send_payload(path[0], encode(message), fd)

    def request(self, path, command, fields=None, fd=None, timeout=None):
        """Sends a message and returns the reply; what else comes meanwhile waits for receive()."""
        self.last_number += 1
        self.send(path, command, {**(fields or {}), REQUEST_NUMBER: self.last_number}, fd)
        deadline = time.monotonic() + (timeout or self.timeout)
        while True:
            message = self._next_frame(deadline)
            if message.fields.get(REQUEST_NUMBER) == self.last_number:
                if message.kind == BOUNCED:
                    return dict(zip((ERROR_CODE, ERROR_TEXT), UNREACHABLE))
                if message.fields.get(IS_REPLY):
                    return message
            self.waiting.append(message)

    def receive(self, timeout=None):
        """The next message that came unasked."""
        if self.waiting:
            return self.waiting.popleft()
        return self._next_frame(time.monotonic() + (timeout or self.timeout))

    def reply(self, request, fields=None, fd=None):
        """Answers a message that receive() gave."""
        number = request.fields.get(REQUEST_NUMBER, 0)
        self.send(request.sender, None, {**(fields or {}), REQUEST_NUMBER: number, IS_REPLY: True}, fd)

    def reply_error(self, request, code, text):
        self.reply(request, {ERROR_CODE: code, ERROR_TEXT: text})

    # The broker

    def control(self, operation, fields=None):
        """Asks the broker itself; its answer's fields. What else comes meanwhile waits for receive()."""
        self.send_payload(0, encode({("u", 1): operation, **(fields or {})}), kind=CONTROL)
        deadline = time.monotonic() + self.timeout
        while True:
            message = self._next_frame(deadline)
            if message.kind == CONTROL:
                break
            self.waiting.append(message)
        if is_error(message):
            raise BusError("%#x: %s" % error_of(message))
        return message.fields

    def list(self):
        """The programs on the bus: (id, name)."""
        return [(entry[("u", 2)], entry[("s", 3)]) for entry in self.control(LIST).get(("M", 4), [])]

    def join_group(self, group):
        self.control(JOIN_GROUP, {("u", 2): group})

    def leave_group(self, group):
        self.control(LEAVE_GROUP, {("u", 2): group})
