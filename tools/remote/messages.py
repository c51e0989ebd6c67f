"""Messages of the bus in Python, and the forms they are written in.

A message is a dictionary whose keys are the letter of a field's type and the field's number:

    {("u", 2): 8080, ("s", 1): "http", ("U", 0xff0001): [68, 1], ("m", 5): {("b", 1): True}}

Strings are text (UTF-8, with anything else kept as surrogates), raw values and addresses are bytes, arrays are lists.
What is read of others never raises anything but MessageError.
"""

import struct

LETTERS = "buqasmr"  # in the order of their type codes
SHORT = 0x01000000
MAX_ELEMENTS = 65535
MAX_NESTING = 32
ADDRESS_BYTES = 16

DESTINATION = ("U", 0xff0001)
SENDER = ("U", 0xff0002)
COMMAND = ("u", 0xff0007)
USER = ("s", 0xff000a)
POLICIES = ("u", 0xff000b)
REQUEST_NUMBER = ("u", 0xff0020)
IS_REPLY = ("b", 0xff0021)
ERROR_CODE = ("u", 0xff0022)
ERROR_TEXT = ("s", 0xff0023)

FIELD_NAMES = {
    DESTINATION: "destination", SENDER: "sender", COMMAND: "command", USER: "user", POLICIES: "policies",
    ("u", 0xff0015): "descriptor", ("u", 0xfe0001): "object number", ("s", 0xfe0009): "login text",
    ("b", 0xfe000a): "disabled", REQUEST_NUMBER: "request number", IS_REPLY: "reply", ERROR_CODE: "error",
    ERROR_TEXT: "error text",
}

COMMANDS = {
    "getObj": 0xfe0002, "disconnected": 0xfe0014, "getPolicies": 0xfe0101, "get": 0xfe0102, "set": 0xfe0103,
    "reset": 0xfe0104, "setObj": 0xfe0106, "getAll": 0xfe0107, "stopGetAll": 0xfe0108, "addObj": 0xfe0109,
    "removeObj": 0xfe010a, "moveObj": 0xfe010b, "getCount": 0xfe010c, "shutdown": 0xfe010d,
}


class MessageError(ValueError):
    """Bytes or a text that are no message, or a message that cannot be written."""


def to_bytes(text):
    return text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)


def to_text(data):
    return bytes(data).decode("utf-8", "surrogateescape")


# ---- The flattened form

def _sized(data, short=False):
    if len(data) > MAX_ELEMENTS:
        raise MessageError(f"a value of {len(data)} bytes is longer than a message can say")
    return struct.pack("<B" if short else "<H", len(data)) + data


def _element(letter, value):
    """The bytes of one value, without the length of those that have one."""
    try:
        if letter == "b":
            return b"\1" if value else b"\0"
        if letter == "u":
            return struct.pack("<I", value)
        if letter == "q":
            return struct.pack("<Q", value)
        if letter == "a" and len(value) != ADDRESS_BYTES:
            raise MessageError("an address has 16 bytes")
        return flatten(value) if letter == "m" else to_bytes(value)
    except (struct.error, TypeError, AttributeError) as trouble:
        raise MessageError(f"no value of type {letter}: {value!r}") from trouble


def _flatten_field(letter, number, value):
    if letter.isupper():
        code = 0x80000000 | LETTERS.index(letter.lower()) << 27 | number
        if len(value) > MAX_ELEMENTS:
            raise MessageError("an array of more than 65535 elements")
        elements = [_element(letter.lower(), element) for element in value]
        if letter in "SMR":
            elements = [_sized(element) for element in elements]
        return struct.pack("<IH", code, len(value)) + b"".join(elements)
    code = LETTERS.index(letter) << 27 | number
    data = _element(letter, value)
    if letter == "b":
        return struct.pack("<I", code | (SHORT if value else 0))
    if letter == "u" and value <= 255:
        return struct.pack("<IB", code | SHORT, value)
    if letter in "smr":
        short = len(data) <= 255
        return struct.pack("<I", code | (SHORT if short else 0)) + _sized(data, short)
    return struct.pack("<I", code) + data


def flatten(fields):
    """The flattened form of a message."""
    return b"M2" + b"".join(_flatten_field(letter, number, value) for (letter, number), value in fields.items())


class _Flattened:
    """The walk over a flattened message."""

    def __init__(self, data):
        self.data, self.at = bytes(data), 0

    def take(self, count):
        piece = self.data[self.at:self.at + count]
        if len(piece) != count:
            raise MessageError("the message is cut short")
        self.at += count
        return piece

    def number(self, size):
        return int.from_bytes(self.take(size), "little")

    def value(self, letter, length_size, nesting):
        if letter == "b":
            return self.number(1) != 0
        if letter in "uq":
            return self.number(4 if letter == "u" else 8)
        data = self.take(ADDRESS_BYTES if letter == "a" else self.number(length_size))
        if letter == "m":
            return unflatten(data, nesting + 1)
        return to_text(data) if letter == "s" else data

    def field(self, nesting):
        header = self.number(4)
        code, short, number = header >> 27, bool(header & SHORT), header & 0xffffff
        if code & 15 >= len(LETTERS):
            raise MessageError(f"the message holds a field of the unknown type {code}")
        letter = LETTERS[code & 15]
        if code & 16:
            return (letter.upper(), number), [self.value(letter, 2, nesting) for _ in range(self.number(2))]
        if letter == "b":
            return (letter, number), short
        if letter == "u" and short:
            return (letter, number), self.number(1)
        return (letter, number), self.value(letter, 1 if short else 2, nesting)


def unflatten(data, nesting=0):
    """The message that was flattened; its first two bytes are the magic or, in the tunnel, its length."""
    reader = _Flattened(data)
    begin = reader.take(2)
    if begin != b"M2" and int.from_bytes(begin, "big") != len(data):
        raise MessageError("these bytes are no message")
    if nesting > MAX_NESTING:
        raise MessageError("more than 32 messages within one another")
    fields = {}
    while reader.at < len(reader.data):
        key, value = reader.field(nesting)
        fields[key] = value
    return fields


# ---- Texts: the line form of the bus command line, and the JSON form of the tunnel

LINE_ESCAPES = {"\\": "\\", "'": "'", "n": "\n", "r": "\r", "t": "\t", "0": "\0"}
JSON_ESCAPES = {"\\": "\\", "'": "'", "n": "\n", "r": "\r"}


class _Reader:
    """A recursive descent over a text. The line form is strict; the JSON form is read as the tunnel's server writes it:
    without spaces, with control characters in strings and 64-bit numbers that may be negative."""

    def __init__(self, text, strict):
        self.text, self.strict, self.at = text, strict, 0

    def fail(self, expected, at=None):
        position = (self.at if at is None else at) + 1
        raise MessageError(f"the message is wrong at character {position}: expected {expected}")

    def peek(self):
        return self.text[self.at] if self.at < len(self.text) else ""

    def skip_space(self):
        while self.strict and self.peek() and self.peek() in " \t\r\n":
            self.at += 1

    def take(self, character):
        self.skip_space()
        if self.peek() != character:
            return False
        self.at += 1
        return True

    def expect(self, character):
        if not self.take(character):
            self.fail(repr(character))

    def whole(self):
        fields = self.message(0)
        self.skip_space()
        if self.at != len(self.text):
            self.fail("the end of the text")
        return fields

    def message(self, nesting):
        self.expect("{")
        if nesting > MAX_NESTING:
            self.fail("at most 32 messages within one another")
        fields = {}
        while not self.take("}"):
            if fields:
                self.expect(",")
                self.skip_space()
            begin = self.at
            key = self.key()
            if key in fields and self.strict:
                self.fail("a key that is not there yet", begin)
            self.expect(":")
            self.skip_space()
            fields[key] = self.list(key[0].lower(), nesting) if key[0].isupper() else self.value(key[0], nesting)
        return fields

    def key(self):
        self.skip_space()
        letter = self.peek()
        if not letter or letter.lower() not in LETTERS:
            self.fail("a type letter (one of buqasmrBUQASMR)")
        begin = self.at + 1
        end = begin
        while end < len(self.text) and self.text[end] in "0123456789abcdefABCDEF":
            end += 1
        if not 1 <= end - begin <= 6:
            self.fail("a field number of one to six hexadecimal digits", begin)
        self.at = end
        return letter, int(self.text[begin:end], 16)

    def list(self, letter, nesting):
        self.expect("[")
        values = []
        while not self.take("]"):
            if values:
                self.expect(",")
            self.skip_space()
            values.append(self.value(letter, nesting))
        return values

    def value(self, letter, nesting):
        if letter == "b":
            return self.number(1) == 1
        if letter in "uq":
            return self.number(0xffffffff if letter == "u" else 0xffffffffffffffff)
        if letter == "s":
            return self.string()
        if letter == "m":
            return self.message(nesting + 1)
        begin = self.at
        data = bytes(self.bytes())
        if letter == "a" and len(data) != ADDRESS_BYTES:
            self.fail("the 16 bytes of an address", begin)
        return data

    def bytes(self):
        self.expect("[")
        values = []
        while not self.take("]"):
            if values:
                self.expect(",")
            self.skip_space()
            values.append(self.number(255))
        return values

    def number(self, most):
        begin = self.at
        negative = not self.strict and self.take("-")
        digits = "0123456789"
        base = 10
        if self.text[self.at:self.at + 2].lower() == "0x":
            self.at, base, digits = self.at + 2, 16, "0123456789abcdefABCDEF"
        first = self.at
        while self.peek() and self.peek() in digits:
            self.at += 1
        if self.at == first:
            self.fail("a number", begin)
        value = int(self.text[first:self.at], base)
        if negative:
            value = -value & most
        if value > most:
            self.fail(f"a number up to {most}", begin)
        return value

    def string(self):
        self.expect("'")
        pieces = []
        while True:
            end = self.at
            while end < len(self.text) and self.text[end] not in "'\\":
                end += 1
            piece = self.text[self.at:end]
            if self.strict and any(character < " " or character == "\x7f" for character in piece):
                self.fail("control characters written as \\n, \\r, \\t, \\0 or \\xNN")
            pieces.append(piece)
            self.at = end
            if end == len(self.text):
                self.fail("a closing quote")
            if self.take("'"):
                return to_text(b"".join(to_bytes(piece) for piece in pieces))
            pieces.append(self.escape())

    def escape(self):
        name = self.text[self.at + 1:self.at + 2]
        known = LINE_ESCAPES if self.strict else JSON_ESCAPES
        if name in known:
            self.at += 2
            return known[name]
        if self.strict and name == "x":
            digits = self.text[self.at + 2:self.at + 4]
            if len(digits) == 2 and all(digit in "0123456789abcdefABCDEF" for digit in digits):
                self.at += 4
                return to_text(bytes([int(digits, 16)]))
            self.fail("two hexadecimal digits behind \\x")
        if self.strict:
            self.fail("one of the escapes \\\\ \\' \\n \\r \\t \\0 \\xNN")
        self.at += 1
        return "\\"


def read_line(text):
    """The message that a text in the line form stands for."""
    return _Reader(text, strict=True).whole()


def read_json(data):
    """The message of an answer in the JSON form."""
    return _Reader(to_text(data), strict=False).whole()


def _write(fields, quote):
    pieces = []
    for (letter, number), value in fields.items():
        values = [_write_value(letter.lower(), element, quote) for element in (value if letter.isupper() else [value])]
        text = f"[{','.join(values)}]" if letter.isupper() else values[0]
        pieces.append(f"{letter}{number:x}:{text}")
    return "{" + ",".join(pieces) + "}"


def _write_value(letter, value, quote):
    if letter == "b":
        return "1" if value else "0"
    if letter in "uq":
        return str(value)
    if letter == "s":
        return "'" + quote(value) + "'"
    if letter == "m":
        return _write(value, quote)
    return "[" + ",".join(map(str, value)) + "]"


def _quote_json(text):
    data = to_bytes(text)
    if b"\0" in data:
        raise MessageError("a string with a NUL cannot be written in the JSON form; use the binary one")
    for plain, escaped in ((b"\\", b"\\\\"), (b"'", b"\\'"), (b"\n", b"\\n"), (b"\r", b"\\r")):
        data = data.replace(plain, escaped)
    return to_text(data)


def printable(text):
    """A text as a terminal may show it: control characters and what is no UTF-8 are escaped."""
    names = {"\n": "\\n", "\r": "\\r", "\t": "\\t", "\0": "\\0"}
    shown = []
    for character in to_text(to_bytes(text)):
        code = ord(character)
        if character in names:
            shown.append(names[character])
        elif 0xdc80 <= code <= 0xdcff:
            shown.append(f"\\x{code - 0xdc00:02x}")
        elif code < 0x20 or code == 0x7f:
            shown.append(f"\\x{code:02x}")
        elif 0x80 <= code < 0xa0:
            shown.append("".join(f"\\x{byte:02x}" for byte in character.encode()))
        else:
            shown.append(character)
    return "".join(shown)


def write_json(fields):
    """The JSON form, as the tunnel's server reads it."""
    return to_bytes(_write(fields, _quote_json))


def write_line(fields):
    """The line form: one line, whatever stands in the strings."""
    return _write(fields, lambda text: printable(text.replace("\\", "\\\\").replace("'", "\\'")))


# ---- For people

def _tree_value(letter, key, value):
    """What stands behind a field's key on its line; None for what needs lines of its own."""
    if letter == "b":
        return "yes" if value else "no"
    if letter == "u" and key in (COMMAND, ERROR_CODE):
        name = next((name for name, number in COMMANDS.items() if key == COMMAND and number == value), "")
        return f"{value:#x} {name}".rstrip()
    if letter in "uq":
        return str(value)
    if letter == "s":
        return "'" + printable(value.replace("\\", "\\\\").replace("'", "\\'")) + "'"
    if letter == "a":
        return address_text(value)
    if letter == "r":
        return (value.hex(" ") or "[]") if len(value) <= 16 else None
    return None if value else "{}"


def address_text(data):
    """An address as text; IPv4 addresses as a.b.c.d."""
    import ipaddress
    address = ipaddress.IPv6Address(bytes(data))
    return str(address.ipv4_mapped or address)


def _tree_lines(letter, head, key, value, indent):
    shown = _tree_value(letter, key, value)
    if shown is not None:
        yield f"{head}: {shown}"
    elif letter == "m":
        yield f"{head}:"
        yield from write_tree(value, indent + 2)
    else:
        yield f"{head}: {len(value)} bytes"
        for at in range(0, len(value), 16):
            yield " " * (indent + 2) + value[at:at + 16].hex(" ")


def write_tree(fields, indent=0):
    """The lines of a message for people: one a field, nested messages indented below theirs."""
    for key, value in fields.items():
        letter, number = key
        head = " " * indent + f"{letter}{number:x}"
        if key in FIELD_NAMES:
            head += " " + FIELD_NAMES[key]
        if letter.islower():
            yield from _tree_lines(letter, head, key, value, indent)
        elif key in (DESTINATION, SENDER):
            yield f"{head}: " + "/".join(map(str, value))
        elif letter in "BUQS" or not value:
            yield f"{head}: [" + ",".join(_tree_value(letter.lower(), key, element) for element in value) + "]"
        else:
            yield f"{head}:"
            for index, element in enumerate(value):
                yield from _tree_lines(letter.lower(), " " * (indent + 2) + f"[{index}]", key, element, indent + 2)
