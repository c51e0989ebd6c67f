"""What makes the system calls of one program of an image fail (failing_calls.cc), and which errors each may fail with."""

import errno
import mmap
import os
import shutil
import struct

import harness

CALL_COUNT = 80
USED_AT, NAMES_AT, NAME_BYTES = 40, 512, 16
FAULT_BYTES = 20
PAGE_BYTES = NAMES_AT + CALL_COUNT * NAME_BYTES

MEMORY = ("ENOMEM", "ENOBUFS")
DESCRIPTORS = ("EMFILE", "ENFILE")
PEER = ("ECONNRESET", "EPIPE")

# What the manual names, as far as it can happen to a descriptor that is what the program takes it for. EAGAIN stands
# only where the kernel says again that there is something: a call that a kernel of readiness at the edge answers so is
# not repeated, and need not be.
ERRORS = {
    "read": ("EINTR", "EIO", "ECONNRESET", "ENOMEM"),
    "write": ("EINTR", "EIO", "ENOSPC", "EPIPE"),
    "send": ("EINTR", *MEMORY, *PEER),
    "sendmsg": ("EINTR", *MEMORY, *PEER, "EFAULT"),
    "recvmsg": ("EINTR", "ENOMEM", "ECONNRESET"),
    "sendfile": ("EINTR", "EIO", "ENOMEM", *PEER),
    "accept4": ("EAGAIN", "EINTR", "ECONNABORTED", *DESCRIPTORS, *MEMORY, "EPROTO", "EPERM"),
    "epoll_create1": (*DESCRIPTORS, "ENOMEM"),
    "epoll_ctl": ("ENOMEM", "ENOSPC"),
    "epoll_wait": ("EINTR",),
    "timerfd_create": (*DESCRIPTORS, "ENOMEM"),
    "timerfd_settime": ("ECANCELED",),
    "open": ("EINTR", *DESCRIPTORS, "ENOMEM", "ENOSPC", "EACCES", "EIO"),
    "fstat": ("EIO", "ENOMEM"),
    "stat": ("ENOMEM", "EACCES", "EIO"),
    "lstat": ("ENOMEM", "EACCES", "EIO"),
    "mmap": ("ENOMEM", "ENFILE", "ENODEV"),
    "socket": (*DESCRIPTORS, *MEMORY, "EAFNOSUPPORT"),
    "bind": ("EADDRINUSE", "EACCES", "ENOMEM"),
    "listen": ("EADDRINUSE",),
    "connect": ("ECONNREFUSED", "EAGAIN", "EINTR", "EACCES"),
    "setsockopt": ("ENOMEM", "ENOPROTOOPT"),
    "getsockopt": ("ENOBUFS", "ENOPROTOOPT"),
    "getsockname": ("ENOBUFS",),
    "getpeername": ("ENOBUFS", "ENOTCONN"),
    "fcntl": ("EINTR", "ENOLCK"),
    "ioctl": ("ENOTTY",),
    "poll": ("EINTR", "ENOMEM"),
    "signalfd": (*DESCRIPTORS, "ENOMEM"),
    "opendir": (*DESCRIPTORS, "ENOMEM", "EACCES"),
    "readdir": ("EIO",),
    "mkdir": ("ENOSPC", "EACCES", "ENOMEM"),
    "unlink": ("EIO", "EACCES"),
    "chmod": ("EIO", "EPERM"),
    "flock": ("EWOULDBLOCK", "ENOLCK", "EINTR"),
    "realpath": ("EIO", "ENOMEM"),
    "access": ("EIO", "EACCES"),
    "shutdown": ("ENOTCONN",),
    "recv": ("EINTR", "ENOMEM", "ECONNRESET"),
    "fsync": ("EIO", "ENOSPC"),
    "fdatasync": ("EIO", "ENOSPC"),
    "rename": ("EIO", "ENOSPC", "EACCES"),
    "pread": ("EIO", "EINTR"),
    "pwrite": ("EIO", "ENOSPC", "EINTR", "EFBIG"),
    "ftruncate": ("EIO", "EINTR"),
    "fallocate": ("ENOSPC", "EOPNOTSUPP"),
    "fchmod": ("EIO", "EPERM"),
    "getrandom": ("EINTR",),
    "socketpair": DESCRIPTORS,
    "eventfd": (*DESCRIPTORS, "ENOMEM"),
    "fdopendir": ("ENOMEM",),
    "openat": (*DESCRIPTORS, "ENOMEM", "EACCES", "EIO"),
    "mkdirat": ("ENOSPC", "EACCES", "ENOMEM"),
    "renameat2": ("EIO", "ENOSPC", "EACCES", "EINVAL"),
    "unlinkat": ("EIO", "EACCES"),
    "fstatat": ("ENOMEM", "EACCES", "EIO"),
    "statvfs": ("EIO", "ENOMEM", "EACCES"),
    "pipe2": DESCRIPTORS,
    "inotify_init1": (*DESCRIPTORS, "ENOMEM"),
    "fork": ("EAGAIN", "ENOMEM"),
    "execv": ("ENOMEM", "EACCES", "EIO", "ETXTBSY"),
    "waitpid": ("EINTR",),
    "kill": ("EPERM",),
    "prctl": ("EINVAL",),
    "setpgid": ("EPERM",),
    "dup2": ("EBUSY", "EINTR", "EMFILE"),
    "close_range": ("ENOSYS", "ENOMEM"),
    "getrlimit": ("EPERM",),
    "setrlimit": ("EPERM",),
}


class Faults:
    """The page that a program of the image shares with the test. It is made before the program starts."""

    def __init__(self, system, name):
        shutil.copy(os.path.join(os.environ["TARN_BUILD"], "faults", name), system.path("/bin/" + name))
        # Numbers are in the order of bytes of the program's machine.
        order = ">" if harness.is_foreign(system.path("/bin/" + name)) else "<"
        self.fault, self.uses = struct.Struct(order + "5I"), struct.Struct(f"{order}{CALL_COUNT}I")
        path = system.path("/run/faults/" + name)
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(bytes(PAGE_BYTES))
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), PAGE_BYTES)

    def names(self):
        """Numbers of the calls by their names, once the program has run."""
        raw = (self.page[NAMES_AT + n * NAME_BYTES:NAMES_AT + (n + 1) * NAME_BYTES] for n in range(CALL_COUNT))
        return {name.split(b"\0")[0].decode(): number for number, name in enumerate(raw) if name[0]}

    def used(self):
        """How often each call has been used since the uses were last forgotten, for those that were."""
        counts = self.uses.unpack_from(self.page, USED_AT)
        return {name: counts[number] for name, number in self.names().items() if counts[number]}

    def arm(self, name, error, use=1, times=1, then=None):
        """Has the use-th use of a call from now on fail, and those that follow it as many times as wanted. `then` is
        another call, with the same four, that fails once the first has."""
        self.disarm()
        self.page[:FAULT_BYTES] = bytes(FAULT_BYTES)
        if then:
            self._arm(FAULT_BYTES, *then)
        self._arm(0, name, error, use, times)

    def _arm(self, at, name, error, use=1, times=1):
        self.fault.pack_into(self.page, at, self.names()[name], use, times, getattr(errno, error), 0)

    def failed(self, fault=0):
        """How many uses of the call, or of the second one, have failed since it was armed."""
        return self.fault.unpack_from(self.page, fault * FAULT_BYTES)[-1]

    def disarm(self):
        """From now on nothing fails; how many uses have."""
        failed = self.failed()
        self.page[:2 * FAULT_BYTES] = bytes(2 * FAULT_BYTES)
        return failed

    def forget_uses(self):
        self.page[USED_AT:USED_AT + 4 * CALL_COUNT] = bytes(4 * CALL_COUNT)
