"""The servers of the comparison: how each is configured, started and stopped.

All serve the same folder from one process with one worker, access log off, on a loopback port of their own.
"""

import contextlib
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/e2e"), str(ROOT / "bench")]
import machine  # noqa: E402
import tarnbus  # noqa: E402

NGINX = """
daemon off; worker_processes 1; pid {work}/nginx.pid; error_log {work}/nginx.err crit;
events {{ worker_connections 4096; }}
http {{
  access_log off; sendfile on; tcp_nopush on; keepalive_timeout 60; keepalive_requests 100000000;
  default_type application/octet-stream;
  client_body_temp_path {work}/nb; proxy_temp_path {work}/np; fastcgi_temp_path {work}/nf;
  uwsgi_temp_path {work}/nu; scgi_temp_path {work}/ns;
  server {{ listen 127.0.0.1:{port} backlog=1024; root {tree}; }}
}}
"""

LIGHTTPD = """
server.document-root = "{tree}"
server.bind = "127.0.0.1"
server.port = {port}
server.errorlog = "{work}/lighttpd.err"
server.max-keep-alive-requests = 100000000
server.max-keep-alive-idle = 60
server.max-fds = 16384
server.max-connections = 4096
server.listen-backlog = 1024
mimetype.assign = ( "" => "application/octet-stream" )
"""

H2O = """
num-threads: 1
error-log: /dev/null
tcp-fastopen: 0
hosts:
  default:
    listen:
      host: 127.0.0.1
      port: {port}
    paths:
      /:
        file.dir: {tree}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for_port(port, seconds=10.0):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            socket.create_connection(("127.0.0.1", port), 0.5).close()
            return
        except OSError:
            time.sleep(0.02)
    raise RuntimeError(f"nothing answers on port {port}")


def descendants(pid):
    found = [pid]
    for task in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        with contextlib.suppress(OSError):  # it may end meanwhile
            for child in task.read_text().split():
                found += descendants(int(child))
    return found


def processor_ns(pids):
    """Processor time in nanoseconds that the threads of these processes have used so far."""
    total = 0
    for pid in pids:
        for stat in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat"):
            total += int(stat.read_text().split()[0])
    return total


def resident_kib(pids):
    total = 0
    for pid in pids:
        for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
            if line.startswith("VmRSS:"):
                total += int(line.split()[1])
    return total


class Server:
    """A running server: `pids` are the processes whose time and memory count."""

    def __init__(self, name, port, process, pids=None, others=()):
        self.name, self.port, self.process = name, port, process
        self.pids = pids
        self.others = list(others)

    def settle(self):
        wait_for_port(self.port)
        if self.pids is None:
            self.pids = descendants(self.process.pid)

    def stop(self):
        end([self.process, *self.others])


def end(processes):
    everyone = [pid for process in processes if process.poll() is None for pid in descendants(process.pid)]
    for process in processes:
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
    for process in processes:
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    # What bwrap held ends a moment after it, and would be in the way of the next in the same image.
    deadline = time.monotonic() + 5
    while any(pathlib.Path(f"/proc/{pid}").exists() for pid in everyone) and time.monotonic() < deadline:
        time.sleep(0.01)


def spawn(cpu, *command, **options):
    options.setdefault("stdout", subprocess.DEVNULL)
    options.setdefault("stderr", subprocess.DEVNULL)
    return subprocess.Popen([*machine.on(cpu), *map(str, command)], **options)


def write_conf(work, name, text, **values):
    path = work / name
    path.write_text(text.format(work=work, **values))
    return path


# `under` is a command that the program is to run under, such as a simulator of the processor.


def start_nginx(work, tree, cpu, under=(), **options):
    port = free_port()
    conf = write_conf(work, "nginx.conf", NGINX, tree=tree, port=port)
    # A simulator follows one process.
    alone = ("-g", "master_process off;") if under else ()
    return Server("nginx", port, spawn(cpu, *under, shutil.which("nginx", path=SBIN), "-p", work, "-c", conf, *alone, **options))


def start_lighttpd(work, tree, cpu, under=(), **options):
    port = free_port()
    conf = write_conf(work, "lighttpd.conf", LIGHTTPD, tree=tree, port=port)
    return Server("lighttpd", port, spawn(cpu, *under, shutil.which("lighttpd", path=SBIN), "-D", "-f", conf, **options))


def start_h2o(work, tree, cpu, under=(), **options):
    port = free_port()
    conf = write_conf(work, "h2o.conf", H2O, tree=tree, port=port)
    return Server("h2o", port, spawn(cpu, *under, shutil.which("h2o", path=SBIN), "-m", "worker", "-c", conf, **options))


def start_bare(work, tree, cpu, build, file, mode, under=(), **options):
    """`mode`: whether connections are kept ("keep", "close"), or asked for their addresses and closed ("asking")."""
    port = free_port()
    name = "asking loop" if mode == "asking" else "bare loop"
    return Server(name, port, spawn(cpu, *under, build / "bin" / "bare_loop", port, tree / file, mode, **options))


SBIN = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

CONFIGURATION = """<?xml version="1.0" encoding="UTF-8"?>
<www><server name="http"><servlet type="dir" path="/" root="/home/web" cacheable="no"/></server></www>
"""


def stage(work, build, tree):
    """The image that www runs in; the served folder is bound into it."""
    root = work / "image"
    for folder in ("bin", "dev", "proc", "run/tn", "tarn/etc/www", "home/web", "rw/pckg", "tmp"):
        (root / folder).mkdir(parents=True, exist_ok=True)
    for program in ("busd", "www"):
        shutil.copy(build / "bin" / program, root / "bin" / program)
    (root / "tarn/etc/www/http.xml").write_text(CONFIGURATION)
    return ["bwrap", "--die-with-parent", "--bind", root, "/", "--ro-bind", tree, "/home/web", "--dev", "/dev",
            "--proc", "/proc"], root


def send_record(root, port, seconds=10.0):
    """Opens www's listener as the service manager does: with a server record over the bus."""
    end = time.monotonic() + seconds
    while True:
        try:
            bus = tarnbus.Client(str(root / "run/tn/bus"), name="bench")
            break
        except OSError:
            if time.monotonic() > end:
                raise
            time.sleep(0.002)
    while True:
        programs = {name: ident for ident, name in bus.list()}
        if "www" in programs:
            break
        if time.monotonic() > end:
            raise RuntimeError("www did not join the bus")
        time.sleep(0.002)
    reply = bus.request([programs["www"], 1], tarnbus.SET, tarnbus.record("http", port))
    bus.close()
    if tarnbus.is_error(reply):
        raise RuntimeError(f"www refused the record: {tarnbus.error_of(reply)}")


def lend_host(root):
    """Makes the commands of the machine run in the image, too."""
    for place, target in (("lib", "usr/lib"), ("lib64", "usr/lib64"), ("bin/sh", "/usr/bin/sh")):
        if not (root / place).is_symlink():
            (root / place).symlink_to(target)
    return ["--ro-bind", "/usr", "/usr"]


def start_www(work, tree, cpu, build, under=(), **options):
    port = free_port()
    enter, root = stage(work, build, tree)
    busd = spawn(1 - cpu, *enter, "/bin/busd")
    www = spawn(cpu, *enter, *(lend_host(root) if under else ()), *under, "/bin/www", **options)
    send_record(root, port, 60.0 if under else 10.0)
    server = Server("www", port, www, others=[busd])
    wait_for_port(port)
    # bwrap stays beside the program that it started.
    server.pids = [pid for pid in descendants(www.pid)
                   if pathlib.Path(f"/proc/{pid}/comm").read_text().strip() != "bwrap"]
    return server
