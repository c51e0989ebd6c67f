#!/usr/bin/env python3
"""tests/browser/run.py BUILD SHOTS: runs the browser tests against a system of their own, started from a build.

Pictures of the page are left in the folder SHOTS. `npm ci` must have been run in this folder.
"""

import os
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "e2e"))

import harness  # noqa: E402 - found by the line above


def main():
    build, shots = (Path(argument).resolve() for argument in sys.argv[1:3])
    shots.mkdir(parents=True, exist_ok=True)
    os.environ["TARN_BUILD"] = str(build)
    system = harness.System()
    try:
        port = system.serve()
        environment = os.environ | {"TARN_URL": f"http://127.0.0.1:{port}/", "TARN_SHOTS": str(shots)}
        return subprocess.run(["node", "--test"], cwd=HERE, env=environment, check=False).returncode
    finally:
        system.close()


if __name__ == "__main__":
    sys.exit(main())
