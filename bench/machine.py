"""How the programs of a benchmark are put on the machine."""

import functools
import os


@functools.cache
def may_go_first():
    """Whether this machine lets us put programs before others; root may."""
    child = os.fork()
    if child == 0:
        try:
            os.setpriority(os.PRIO_PROCESS, 0, -20)
            os._exit(0)
        except OSError:
            os._exit(1)
    return os.waitpid(child, 0)[1] == 0


def on(cpu):
    """The command that puts a program on a processor, and before whatever else wants to run there where that is allowed:
    all that is measured has the same rank, and other work of the machine is not in the figures."""
    return ["taskset", "-c", str(cpu), *(["nice", "-n", "-20"] if may_go_first() else [])]
