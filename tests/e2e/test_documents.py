"""Every command that README.md and docs/ show in a block is run here, as it stands, in a system of its own per document.

What cannot be run beside other tests is tried smaller, or is run by another step of ./test: RULES says which. A command that no
rule knows is a failure, so that no document promises what nobody tried.
"""

import os
import re
import shlex
import shutil
import subprocess
import unittest

import harness
import rawhttp
import tarnbus

PROGRAMS = {"sermgr", "userd", "sysd", "tlsd", "hotspotd", "www"}
# What begins a line that is a command; everything else in a block is output, code or a file.
VERBS = re.compile(r"(?:[A-Z_]+=\S+ )?(?:\./run|\./test|tn|tn-remote|curl|git|cmake|ninja|ctest|python3|xmllint|image/\w+|bench/\w+|fuzz/\w+|packaging/\w+|"
                   r"tools/\S+|sudo|apt|apt-get|dpkg|systemctl|journalctl|man)(?= |$)")
# A command as it stands in a block, quoted parts whole; behind it there may be a remark, after a "#" or at a distance.
COMMAND = re.compile(r"""(?:"(?:\\.|[^"\\])*"|'[^']*'|[^\s"']|\s+(?=["'])|\s{1,2}(?![\s#]))+""")


def commands_of(text):
    """The commands of a document's indented and fenced blocks."""
    found, fenced, blank, block, joined = [], False, True, False, ""
    for line in text.splitlines():
        if line.startswith("```"):
            fenced = not fenced
            continue
        indented = line.startswith("    ") and (blank or block)
        block = indented or (block and not line.strip())
        blank = not line.strip()
        if not (fenced or indented):
            continue
        line = joined + line.strip()
        joined = line[:-1] if line.endswith("\\") else ""
        if not joined and VERBS.match(line):
            found.append(COMMAND.match(line)[0])
    return found


class Box:
    """The whole system for one document, on ports of its own."""

    def __init__(self):
        self.system = harness.System()
        self.ports = {}
        self.builds = str(self.system.folder / "builds")
        self.password = ""  # of admin

    def start(self):
        """Starts what ./run starts, and waits until it answers."""
        system = self.system
        system.start("busd", "sermgr")
        system.bus_id("sermgr")
        bus = system.bus()
        for name, port in (("http", 8080), ("https", 8443)):
            bus.request([68, 1], tarnbus.SET, {("s", 1): name, ("u", 2): self.port(port)})
        bus.close()
        system.stop("sermgr")
        system.stop("busd")
        system.write("/rw/store/hotspot.conf", "settings {s1:'Guests',s2:'CODE-12345',u3:480}\n"
                     f"server {{s1:'hotspot',u2:{self.port(8090)},M6:[{{u1:0x7f000000,u2:0xff000000}}]}}\n")
        system.start("tnrun")
        harness.wait_until(lambda: PROGRAMS <= set(system.tn("list").stdout.split()), "all programs to join the bus")
        for name, port in (("http", 8080), ("https", 8443), ("hotspot", 8090)):
            system.wait_for_line("tnrun", f"set {name} enabled=1 port={self.port(port)}")
        system.settle("sermgr", "hotspotd")
        first = harness.wait_until(lambda: self.first_login().exists() and self.first_login().read_text().split(), "the first login")
        self.password = first[3]

    def first_login(self):
        return self.system.path("/rw/store/first-login")

    def port(self, number):
        """The port of this run in the place of one that a document names."""
        if number not in self.ports:
            self.ports[number] = harness.free_port()
        return self.ports[number]

    def fit(self, command):
        """The command with this run's ports, tree and build."""
        command = re.sub(r"(?<=[:=])(80[89]\d|8100|8443)\b", lambda match: str(self.port(int(match[1]))), command)
        return command.replace("build/image", str(self.system.root)).replace("build/host", os.environ["TARN_BUILD"])


def run(arguments, asked="", environment=None):
    return subprocess.run(arguments, cwd=harness.TREE, input=asked, capture_output=True, text=True,
                          timeout=harness.PATIENCE * 4, check=False, env=os.environ | (environment or {}))


def check(command, done, statuses=(0,)):
    if done.returncode not in statuses:
        raise AssertionError(f"{command}\nended with status {done.returncode}:\n{done.stdout}{done.stderr}")


def run_tn(box, command):
    words = shlex.split(box.fit(command))
    words = words[words.index("tn") + 1:]
    if endless(words):
        start_tn(box, command, words)
        return
    asked = ""
    if words[0] == "users" and ("password" in words or "add" in words):
        asked = NEW_PASSWORD + "\n"
        if words[-2:] == ["password", "admin"]:
            box.password = NEW_PASSWORD
    # A value that the reader has to fill in is answered, but not with yes.
    check(command, run([harness.ENTER, box.system.root, "/bin/tn", *words], asked), (0, 1) if "..." in command else (0,))


def endless(words):
    return words[0] == "monitor" and "-n" not in words or words[0] == "log" and "-f" in words


def start_tn(box, command, words):
    """It goes on until it is stopped: it joins the bus, and is still there when others have come and gone."""
    process = subprocess.Popen([harness.ENTER, box.system.root, "/bin/tn", *words], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    try:
        harness.wait_until(lambda: process.poll() is not None or "tn" in members_but_this(box), f"{command} to join the bus")
        if process.poll() is not None:
            raise AssertionError(f"{command}\nended with status {process.returncode}")
    finally:
        process.terminate()
        process.wait()


def members_but_this(box):
    bus = box.system.bus()
    names = [name for _, name in bus.list()]
    bus.close()
    return names


def run_remote(box, command):
    check(command, run(shlex.split(box.fit(re.sub(r"^tn-remote ", "tools/remote/tn-remote ", command))),
                       environment={"TN_PASSWORD": box.password}))


def run_plainly(box, command):
    check(command, run(shlex.split(box.fit(command))))


def find_tests(box, command):
    """The tests that the command names are there; ./test itself runs them."""
    words = shlex.split(box.fit(command))
    words = words[words.index("ctest"):]
    done = run([*words, "-N"])
    check(command, done)
    if not re.search(r"Total Tests: [1-9]", done.stdout):
        raise AssertionError(f"{command}\nnames no test:\n{done.stdout}")


def configure(box, command):
    """Configures the build in a folder of its own, or names the steps of its targets; ./test builds the same."""
    words = shlex.split(box.fit(command).replace("$PWD", str(harness.TREE)).replace("build/powerpc", box.builds))
    check(command, run([*words, "-n"] if words[0] == "ninja" else words))


def run_until_it_listens(box, command):
    """A program that serves until it is stopped: it takes connections at the address that is its first argument."""
    words = shlex.split(box.fit(command))
    port = int(words[3].rpartition(":")[2])
    process = subprocess.Popen(words, cwd=harness.TREE, stdin=subprocess.DEVNULL)
    try:
        harness.wait_until(lambda: not rawhttp.refuses(port), f"{command} to listen")
    finally:
        process.terminate()
        process.wait()


def validate(box, command):
    """With a shipped document in the place of the reader's own."""
    run_plainly(box, command.replace("30-extra.xml", "image/tarn/etc/www/10-http.xml"))


def is_there(_box, command):
    """The program that the command begins with is there and can be run; another step of ./test runs it."""
    program = next(word for word in shlex.split(command) if "=" not in word and word not in ("python3", "sudo"))
    if not (os.access(harness.TREE / program, os.X_OK) or (harness.TREE / program).suffix == ".py" and (harness.TREE / program).exists()):
        raise AssertionError(f"{command}\nnames {program}, which is not there")


# The first rule that fits a command says how it is tried.
RULES = (
    (r"(\./run )?tn( |$)", run_tn),
    (r"(tools/remote/)?tn-remote ", run_remote),
    (r"curl ", run_plainly),
    # What the command builds or runs is what ./test is made of.
    (r"\./(run|test)\b", is_there),
    (r"(TARN_FAULTS=all )?ctest ", find_tests),
    (r"python3 tests/(browser/run|soak/soak)\.py ", is_there),
    (r"fuzz/hours", is_there),
    (r"bench/", is_there),
    (r"(cmake -G Ninja|ninja -C build/powerpc)", configure),
    (r"image/enter build/image /bin/forwarder ", run_until_it_listens),
    (r"xmllint .* 30-extra\.xml$", validate),
)


# What wants a running system.
LIVE = (run_tn, run_remote, run_plainly, run_until_it_listens)


def rule_for(command):
    return next((action for pattern, action in RULES if re.match(pattern, command)), None)


# Documents whose commands want a machine of their own to be installed on, and the test that gives them one.
ELSEWHERE = {"packages.md": "tests/packages/test_packages.py", "writing-a-service.md": "tests/packages/test_packages.py"}
NEW_PASSWORD = "a password of your own"


def prepare(name, system):
    """What a document takes for granted."""
    if name == "tn.md":
        shutil.copy(system.path("/tarn/etc/www/10-http.xml"), system.root / "30-extra.xml")
    if name == "services.md":
        photos = system.path("/rw/disk/photos")
        photos.mkdir()
        (photos / "a.jpg").write_bytes(b"a picture")


class Commands(unittest.TestCase):
    def test_every_command_does_what_its_document_says(self):
        for document in sorted([harness.TREE / "README.md", *(harness.TREE / "docs").glob("*.md")]):
            commands = commands_of(document.read_text())
            with self.subTest(document.name):
                self.try_all(document.name, commands)

    def try_all(self, name, commands):
        if name in ELSEWHERE:
            self.assertIn(f'"{name}"', (harness.TREE / ELSEWHERE[name]).read_text())
            return
        unknown = [command for command in commands if rule_for(command) is None]
        self.assertEqual(unknown, [], "commands that nothing tries")
        if not commands:
            return
        box = Box()
        try:
            if any(rule_for(command) in LIVE for command in commands):
                box.start()
                prepare(name, box.system)
            for command in commands:
                with self.subTest(command):
                    rule_for(command)(box, command)
        finally:
            box.system.close()

    def test_commands_are_told_from_the_rest(self):
        text = "x\n\n    tn list      # who\n    not a command\n\n    tn call 1/1 get  \"{s1:'a   b'}\"   words\n\n" \
               "        deep\n\ntn list\n\n```sh\ncurl -s \\\n  x\n```\n"
        self.assertEqual(commands_of(text), ["tn list", "tn call 1/1 get  \"{s1:'a   b'}\"", "curl -s x"])


class Links(unittest.TestCase):
    def test_what_a_document_links_to_is_there(self):
        for document in sorted([harness.TREE / "README.md", *(harness.TREE / "docs").glob("*.md")]):
            for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`]*`", "", document.read_text())):
                if re.match(r"[a-z]+:", target):
                    continue
                path, _, heading = target.partition("#")
                other = document.parent / path if path else document
                with self.subTest(f"{document.name}: {target}"):
                    self.assertTrue(other.exists(), "no such file")
                    if heading:
                        self.assertIn(heading, headings(other.read_text()), "no such heading")


def headings(text):
    """The names by which the headings of a document are linked to."""
    found = re.findall(r"^#+ (.*)$", text, re.M)
    return [re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in found]


if __name__ == "__main__":
    unittest.main()
