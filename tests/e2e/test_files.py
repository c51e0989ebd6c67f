"""Directories of the user store through the tunnel: what is listed can be got, what was put is listed, nothing leads out."""

import os
import unittest

import harness
import tarnbus
import tunnelbox
from tunnel import ServiceError

FILES = [24, 2]
GET, GET_ALL, MAKE, REMOVE, MOVE = 0xfe0102, 0xfe0107, 0xfe0109, 0xfe010a, 0xfe010b
NAME, NEW_NAME, AFTER, ENTRIES = ("s", 1), ("s", 2), ("s", 2), ("u", 3)
LIST, SHOWN = ("M", 1), ("u", 3)
KIND, SIZE, SENSITIVE = ("u", 2), ("q", 3), ("b", 5)
NOT_THERE, NOT_ALLOWED, BAD, CONFLICT = 0xfe0006, 0xfe0009, 0xfe0010, 0xfe0013
ALL, READ_ONLY = 0x43d0, 0x50
EVERY_NAME = ["plain.txt", "with space", "quote'\"\\.txt", "h\u00e4\u00df\u20ac\U0001f600", "{s1:'x'}", "a&b=c+d%41"]


class FilesTest(tunnelbox.TunnelTest):
    def setUp(self):
        super().setUp()
        self.system.start("sysd")
        self.system.bus_id("sysd")

    def session(self, policies=ALL, **options):
        self.login_service.behave = lambda bus, message: bus.reply(message, tunnelbox.grant(policies))
        return self.log_in(**options)

    def page(self, box, name="", more=None):
        return box.call(FILES, GET_ALL, {NAME: name, **(more or {})})

    def names(self, box, name=""):
        return [entry[NAME] for entry in self.page(box, name)[LIST]]

    def refused(self, box, command, *names):
        """The code of the error that a command is answered with."""
        fields = dict(zip((NAME, NEW_NAME), names))
        with self.assertRaises(ServiceError) as refusal:
            box.call(FILES, command, fields)
        return refusal.exception.code

    def put(self, box, name, content=b"content"):
        return box.request("POST", "/jsproxy/put" + box.query(name.encode()), content)[0]

    def get(self, box, name):
        status, _, body = box.request("GET", "/jsproxy" + box.query(name.encode()))
        return status, body


class Directories(FilesTest):
    def test_what_is_put_is_listed_and_what_is_listed_can_be_got(self):
        for binary in (False, True):
            box = self.session(binary=binary)
            folder = f"folder {binary}"
            box.call(FILES, MAKE, {NAME: folder})
            for index, name in enumerate(EVERY_NAME):
                self.assertEqual(self.put(box, f"{folder}/{name}", b"x" * index), 200, name)
            entries = self.page(box, folder)[LIST]
            self.assertEqual([entry[NAME] for entry in entries], sorted(EVERY_NAME, key=str.encode))
            for entry in entries:
                size = EVERY_NAME.index(entry[NAME])
                self.assertEqual((entry[KIND], entry[SIZE], entry[SENSITIVE]), (1, size, False))
                self.assertEqual(self.get(box, f"{folder}/{entry[NAME]}"), (200, b"x" * size))

    def test_files_are_put_in_order(self):
        box = self.session()
        self.put(box, "a.txt")
        for command, names in ((MAKE, ["old"]), (MAKE, ["/flash/new"]), (MOVE, ["a.txt", "old/b.txt"]), (MOVE, ["old", "new"])):
            box.call(FILES, command, dict(zip((NAME, NEW_NAME), names)))
        self.assertEqual(self.get(box, "new/b.txt"), (200, b"content"))
        self.assertEqual(self.put(box, "/flash/new/c"), 200)
        self.assertEqual(self.names(box, "/flash/new/"), ["c"])
        self.assertEqual(self.refused(box, REMOVE, "new"), CONFLICT)
        self.assertEqual(self.refused(box, MAKE, "new"), CONFLICT)
        self.assertEqual(self.refused(box, MOVE, "old", "older"), NOT_THERE)
        for name in ("new/b.txt", "new", "/flash/new/c"):
            box.call(FILES, REMOVE, {NAME: name})
        self.assertEqual(self.names(box), [])
        self.assertEqual(self.get(box, "new/b.txt")[0], 404)

    def test_the_room_is_the_file_systems(self):
        room = self.session().call(FILES, GET)
        status = os.statvfs(self.system.path("/rw/disk"))
        self.assertEqual(room[("q", 4)], status.f_blocks * status.f_frsize)
        self.assertLessEqual(room[("q", 6)], room[("q", 4)])

    def test_nothing_leads_out(self):
        box = self.session()
        self.system.write("/rw/secret/x", b"secret")
        os.symlink("../secret", self.system.path("/rw/disk/link"))
        self.assertEqual([(entry[NAME], entry[KIND]) for entry in self.page(box)[LIST]], [("link", 3)])
        for name in ("link", "link/x"):
            self.assertEqual(self.refused(box, GET_ALL, name), NOT_THERE)
        for name in ("..", "../secret", "/flash/../rw/secret", "link/../../secret", "a//b", "\n"):
            self.assertEqual(self.refused(box, GET_ALL, name), BAD)
            self.assertEqual(self.refused(box, REMOVE, name + "/x"), BAD)
        self.assertEqual(self.refused(box, MAKE, "link/new"), NOT_THERE)
        self.assertEqual(self.refused(box, MOVE, "link/x", "x"), NOT_THERE)
        self.assertEqual(os.listdir(self.system.path("/rw/secret")), ["x"])

    def test_rights_are_those_of_the_login(self):
        box = self.session(READ_ONLY)
        for name in ("a.txt", "b.key", "private/x"):
            self.system.write("/rw/disk/" + name, b"content")
        self.assertEqual(self.names(box), ["a.txt"])
        self.assertEqual(self.refused(box, GET_ALL, "private"), NOT_ALLOWED)
        self.assertEqual(self.refused(box, MAKE, "new"), NOT_ALLOWED)
        self.assertEqual(self.refused(box, REMOVE, "a.txt"), NOT_ALLOWED)
        self.assertEqual(self.refused(box, MOVE, "a.txt", "b.txt"), NOT_ALLOWED)
        self.assertEqual(self.refused(self.session(0x90), GET_ALL, ""), NOT_ALLOWED)
        for name in ("b.key", "private/x"):
            self.assertEqual(self.refused(self.session(0xd0), REMOVE, name), NOT_ALLOWED)
        self.assertEqual(self.names(self.session(0x4050)), ["a.txt", "b.key", "private"])

    def test_a_large_directory_comes_in_pages_and_holds_up_nobody(self):
        folder = self.system.path("/rw/disk/large")
        folder.mkdir()
        # Names that would make a page larger than a binary answer of the tunnel.
        names = sorted(f"{'n' * 240}{index}" for index in range(5000))
        for name in names:
            (folder / name).touch()
        bus = self.system.bus()
        # Asked without waiting, so that the next question comes while it is being read.
        bus.send(FILES, GET_ALL, {NAME: "large", tarnbus.REQUEST_NUMBER: 77})
        self.assertEqual(bus.request([24, 1], 0xfe0002, {("u", 0xfe0001): 1}).fields[("u", 0xfe0001)], 1)
        self.assertEqual(bus.receive().fields[SHOWN], len(names))
        box = self.session(binary=True)
        first = self.page(box, "large")
        second = self.page(box, "large", {AFTER: first[AFTER], ENTRIES: 3})
        found = [entry[NAME] for entry in first[LIST] + second[LIST]]
        self.assertGreater(len(found), 100)
        self.assertEqual(found, names[:len(found)])

    def test_the_command_line_lists(self):
        self.system.write("/rw/disk/a.txt", b"content")
        result = self.system.tn("call", "24/2", "getAll")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("s1 name: 'a.txt'", result.stdout)


if __name__ == "__main__":
    unittest.main()
