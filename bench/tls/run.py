#!/usr/bin/env python3
"""tlsd with www beside nginx: the same certificate, the same files, one run, interleaved.

  run.py --build DIR [--seconds S] [--rounds N] [--cores same|separate|both] [--case TEXT] [--json FILE]

All programs of a server share one core: nginx is one process, the others are www, tlsd and the broker between them. The
load is on the other core, or on the same one. Printed for each case: the rate, the processor time that all processes of
the server took for one unit of work, and the ratio of each to nginx's (above 1 is better than nginx). Medians of the
rounds.
"""

import argparse
import pathlib
import statistics
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1] / name) for name in ("http", "")]
import figures  # noqa: E402
import machine  # noqa: E402
import servers  # noqa: E402
from servers import tarnbus  # noqa: E402

CASES = [
    # title, file, bytes, connections, kept alive, bytes of one unit (None: an answer is one), name among the figures
    ("full handshakes, 1 KB each", "1k.bin", 1024, 16, False, None, "handshake-1k"),
    ("12 KB, kept alive", "12k.bin", 12288, 16, True, None, "12k-keep"),
    ("bulk, 16 MB files, one at a time", "16m.bin", 16 << 20, 1, True, 1 << 20, "16m-1"),
    ("bulk, 16 MB files", "16m.bin", 16 << 20, 8, True, 1 << 20, "16m-8"),
]

NGINX = """
daemon off; worker_processes 1; pid {work}/nginx.pid; error_log {work}/nginx.err crit;
events {{ worker_connections 4096; }}
http {{
  access_log off; sendfile on; tcp_nopush on; keepalive_timeout 60; keepalive_requests 100000000;
  default_type application/octet-stream;
  client_body_temp_path {work}/nb; proxy_temp_path {work}/np; fastcgi_temp_path {work}/nf;
  uwsgi_temp_path {work}/nu; scgi_temp_path {work}/ns;
  server {{
    listen 127.0.0.1:{port} ssl backlog=1024; root {tree};
    ssl_certificate {certificate}; ssl_certificate_key {key}; ssl_protocols TLSv1.2 TLSv1.3;
    ssl_ecdh_curve X25519:P-256:P-384; ssl_ciphers ECDHE+AES128+AESGCM:ECDHE+AESGCM; ssl_prefer_server_ciphers on;
    ssl_conf_command Ciphersuites TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384;
  }}
}}
"""

SERVER = """<?xml version="1.0" encoding="UTF-8"?>
<www><server name="https" ssl="yes"><servlet type="dir" path="/" root="/home/web" cacheable="no"/></server></www>
"""


def make_tree(folder):
    for _, name, size, *_ in CASES:
        (folder / name).write_bytes(bytes(i * 31 % 251 for i in range(1024)) * (size // 1024))


def start_tarn(work, tree, build, cpu):
    """www, tlsd and the broker on one core; also the certificate that tlsd made, and its key."""
    port = servers.free_port()
    enter, root = servers.stage(work, build, tree)
    (root / "tarn/etc/www/http.xml").write_text(SERVER)
    (root / "bin/tlsd").write_bytes((build / "bin/tlsd").read_bytes())
    (root / "bin/tlsd").chmod(0o755)
    processes = [servers.spawn(cpu, *enter, f"/bin/{name}") for name in ("busd", "tlsd", "www")]
    try:
        open_server(root, port)
        servers.wait_for_port(port)
    except BaseException:
        for process in processes:
            process.kill()
        raise
    server = servers.Server("www + tlsd", port, processes[2], others=processes[:2])
    server.pids = [pid for process in processes for pid in servers.descendants(process.pid)
                   if pathlib.Path(f"/proc/{pid}/comm").read_text().strip() in ("busd", "tlsd", "www")]
    return server, root


def open_server(root, port):
    """Opens the listener once www and tlsd are on the bus."""
    deadline = servers.time.monotonic() + 10
    while True:
        try:
            with tarnbus.Client(str(root / "run/tn/bus"), name="bench") as bus:
                programs = {name: ident for ident, name in bus.list()}
                if {"www", "tlsd"} <= programs.keys():
                    reply = bus.request([programs["www"], 1], tarnbus.SET, tarnbus.record("https", port, tls_ref=1))
                    if tarnbus.is_error(reply):
                        raise RuntimeError(f"www refused the record: {tarnbus.error_of(reply)}")
                    return
        except OSError:
            pass
        if servers.time.monotonic() > deadline:
            raise RuntimeError("www and tlsd did not join the bus")
        servers.time.sleep(0.01)


def way(root):
    """Which way the connections went: what tlsd counted."""
    with tarnbus.Client(str(root / "run/tn/bus"), name="bench") as bus:
        fields = bus.request([12, 1], tarnbus.GET).fields
    return f"{fields[('q', 0x16)]} connections relayed, {fields[('q', 0x15)]} ciphered by the kernel"


def start_nginx(work, tree, root, cpu):
    port = servers.free_port()
    store = root / "rw/store/tls"
    conf = servers.write_conf(work, "nginx.conf", NGINX, tree=tree, port=port, certificate=store / "certificate.pem",
                              key=store / "key.pem")
    command = [servers.shutil.which("nginx", path=servers.SBIN), "-p", work, "-c", conf]
    return servers.Server("nginx", port, servers.spawn(cpu, *command))


def load(server, case, build, seconds, cpu):
    _, name, _, connections, keep, unit, _ = case
    before = servers.processor_ns(server.pids)
    text = subprocess.run([*machine.on(cpu), build / "bin/tls_load", str(server.port), f"/{name}",
                           str(connections), str(seconds), "keep" if keep else "new"], check=True, capture_output=True,
                          text=True).stdout
    used = servers.processor_ns(server.pids) - before
    answers, size, took, failures = text.split()
    if int(failures) > 0:
        raise RuntimeError(f"{server.name}: {failures} connections failed")
    units = int(answers) if unit is None else int(size) / unit
    return {"rate": units / float(took), "cpu_us": used / 1000 / units}


def show(title, unit, result):
    base = result["nginx"]
    print(f"\n{title}")
    print(f"  {'server':<12} {unit + '/s':>10} {'of nginx':>9} {'cpu us/' + unit:>14} {'of nginx':>9}")
    for name, r in result.items():
        print(f"  {name:<12} {r['rate']:>10.0f} {r['rate'] / base['rate']:>9.2f} {r['cpu_us']:>14.1f}"
              f" {base['cpu_us'] / r['cpu_us']:>9.2f}")
    sys.stdout.flush()


def measure(options, cores, out):
    server_cpu, load_cpu = (0, 0) if cores == "same" else (0, 1)
    started = []
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as name:
        work = pathlib.Path(name)
        work.chmod(0o755)
        tree = work / "tree"
        tree.mkdir()
        make_tree(tree)
        build = options.build.resolve()
        try:
            tarn, root = start_tarn(work, tree, build, server_cpu)
            started.append(tarn)
            nginx = start_nginx(work, tree, root, server_cpu)
            started.append(nginx)
            nginx.settle()
            for case in CASES:
                if options.case and options.case not in case[0]:
                    continue
                samples = {server.name: [] for server in (nginx, tarn)}
                for _ in range(options.rounds):
                    for server in (nginx, tarn):
                        samples[server.name].append(load(server, case, build, options.seconds, load_cpu))
                result = {key: {what: statistics.median(s[what] for s in list_) for what in list_[0]}
                          for key, list_ in samples.items()}
                title = f"{case[0]}, connections: {case[3]}, load on {'the same' if cores == 'same' else 'the other'} core"
                show(title, "answer" if case[5] is None else "MB", result)
                place = "one-core" if cores == "same" else "two-cores"
                for key, list_ in samples.items():
                    for what, metric, unit in (("rate", "rate", "1/s"), ("cpu_us", "processor-time", "us")):
                        unit = unit if case[5] is None else {"1/s": "MB/s", "us": "us/MB"}[unit]
                        out.add(f"tls/{case[6]}/{place}", metric, unit, key, [s[what] for s in list_])
            print(f"\n  {way(root)}")
        finally:
            for server in started:
                server.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--seconds", type=int, default=2)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--cores", choices=("same", "separate", "both"), default="both")
    parser.add_argument("--case", help="only the cases whose name holds this text")
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()
    out = figures.Recorder(options.json)
    for cores in ("separate", "same") if options.cores == "both" else (options.cores,):
        measure(options, cores, out)


if __name__ == "__main__":
    main()
