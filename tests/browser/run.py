#!/usr/bin/env python3
"""tests/browser/run.py BUILD SHOTS [SUITE...]: runs the tests of the browser's side, each suite against a system of its own.

Pictures of the pages are left in the folder SHOTS. `npm ci` must have been run in this folder and in web/, and the web
tree must have been built. The suites run beside each other; the status is 0 when all of them passed.
"""

import concurrent.futures
import contextlib
import os
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
# How long a suite may take before it counts as hung, in seconds.
PATIENCE = 600
# How many suites run at once. A browser computes more than it waits: more of them than there are cores only make each slow.
AT_ONCE = 1 + (os.cpu_count() or 1)
sys.path.insert(0, str(HERE.parent / "e2e"))

import box  # noqa: E402 - found by the line above

# Each suite: the files of its tests and the system that they want.
SUITES = {
    "looks": ("looks.test.mjs", box.WholeBox),
    "console": ("console.test.mjs", box.WholeBox),
    "system": ("system.test.mjs", box.WholeBox),
    "idle": ("idle.test.mjs", box.Box),
    "servers": ("servers.test.mjs", box.Box),
    "handling": ("handling.test.mjs", box.Box),
    "files": ("files.test.mjs", box.Box),
    "settings": ("settings.test.mjs", box.Box),
    "faults": ("faults.test.mjs", box.Box),
    "interface": ("interface.test.mjs", box.Box),
    "library": ("library.test.mjs", box.Box),
    "about": ("about.test.mjs", box.BareBox),
    "client": ("client/*.test.mjs", None),
}


def run_node(arguments, environment):
    """Runs Node and whatever that starts; its status and what it printed."""
    with tempfile.TemporaryFile("w+") as output:
        process = subprocess.Popen(["node", *arguments], cwd=HERE, env=environment, stdout=output, stderr=subprocess.STDOUT,
                                   start_new_session=True)
        try:
            status = process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            status = f"hung for {PATIENCE} s"
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        output.seek(0)
        return status, output.read()


def run_suite(name, shots):
    """Runs one suite; its status and what it printed."""
    pattern, make_system = SUITES[name]
    files = sorted(str(path.relative_to(HERE)) for path in HERE.glob(pattern))
    environment = os.environ | {"TARN_SHOTS": str(shots)}
    if make_system is None:
        return run_node(["--test", *files], environment)
    output = ""
    try:
        with contextlib.closing(make_system()) as system:
            status, output = run_node(["--test", *files], environment | system.environment())
        return status, output
    except AssertionError as trouble:
        # The system did not start, or a program of it did not end well.
        return 1, f"{output}\n{trouble}\n"


def failures_of(output):
    """What Node says of the tests that failed, each from its "not ok" to the end of its details; all when there is none."""
    found, taken = [], False
    for line in output.splitlines():
        if line.lstrip().startswith("not ok"):
            taken = True
        if taken:
            found.append(line)
        if line.strip() == "...":
            taken = False
    return "\n".join(found) or output


def main():
    build, shots = (Path(argument).resolve() for argument in sys.argv[1:3])
    shots.mkdir(parents=True, exist_ok=True)
    os.environ["TARN_BUILD"] = str(build)
    names = sys.argv[3:] or list(SUITES)
    failed = {}
    began = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        runs = {pool.submit(run_suite, name, shots): name for name in names}
        for run in concurrent.futures.as_completed(runs):
            status, output = run.result()
            print(f"== {runs[run]}: {'passed' if status == 0 else f'FAILED ({status})'} after {time.monotonic() - began:.0f} s\n{output}",
                  flush=True)
            if status != 0:
                failed[runs[run]] = failures_of(output)
    # Last, where whoever reads only the end of this finds it.
    for name, failures in failed.items():
        print(f"== {name} failed:\n{failures}")
    print("failed: " + ", ".join(failed) if failed else "all suites passed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
