#!/usr/bin/env python3
"""Measures whole NFS calls over TCP, of version 3 and 4.1: the tool, an echo server and NFS-Ganesha side by side.

Run by scripts/bench.sh, as root, on a network of its own. Every server gets a network of its own
beneath that one, so each has its port 111. In every round the servers take turns; what is compared
is the median of the rounds. Exit status 1 when a target is missed.
"""

import argparse
import array
import contextlib
import json
import os
import pathlib
import resource
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
PRIVATE_NETWORK = HERE.parent / "tests/support/private_network.sh"
NFS_PORT, MOUNT_PORT = 20490, 20491
START_LIMIT = 30  # seconds
NFS_PROGRAM = 100003
IDLE_CONNECTIONS = 1000
TRANSFER = 768 * 1024
SMALL_DIRECTORY, LARGE_DIRECTORY = 1_000, 100_000
FILE_SIZE = 342 * TRANSFER  # about 256 MiB, in whole transfers

UNITS = {
    "calls_per_second": "calls/s",
    "megabytes_per_second": "MB/s",
    "entries_per_second": "entries/s",
}


class Case:
    """One kind of load, the servers that take it in turn, and what the first has to reach."""

    def __init__(self, name, measure, arguments, ours="tool", echo=None, peer=None, has_echo=True,
                 cold=False, version=3):
        self.name, self.measure, self.arguments, self.version = name, measure, arguments, version
        self.ours = ours if version == 3 else ours + "4"
        self.targets = {"echo": echo, "peer": peer}
        self.servers = [self.ours] + (["echo"] if has_echo else []) + ["peer"]
        self.cold = cold  # servers that were just started do it once


def read_case(in_flight, **options):
    arguments = ["read", "--path", "large", "--size", TRANSFER, "--in-flight", in_flight]
    return Case(f"READ 768 KiB, {in_flight} in flight", "megabytes_per_second", arguments, **options)


def version4(case):
    case.name = "4.1 " + case.name
    return case


LISTING = ["readdirplus", "--path", "many", "--entries", LARGE_DIRECTORY]
CASES = [
    Case("GETATTR, 32 in flight", "calls_per_second", ["getattr", "--in-flight", 32],
         echo=0.8, peer=3),
    Case("LOOKUP in 1,000, 32 in flight", "calls_per_second",
         ["lookup", "--path", "few", "--entries", SMALL_DIRECTORY, "--in-flight", 32], peer=3),
    read_case(1, echo=0.85, peer=1.2),
    read_case(8, echo=0.85, peer=1.2),
    Case("READDIRPLUS of 100,000, first", "entries_per_second", LISTING, peer=1.2, has_echo=False,
         cold=True),
    Case("READDIRPLUS of 100,000, again", "entries_per_second", LISTING, peer=1.2, has_echo=False),
    Case("READDIRPLUS of 100,000, memory host", "entries_per_second", LISTING, ours="memory",
         peer=2.5, has_echo=False),
    *map(version4, [
        Case("GETATTR, 32 in flight", "calls_per_second", ["getattr", "--in-flight", 32], echo=0.7,
             peer=3, version=4),
        read_case(1, echo=0.8, peer=2, version=4),
        read_case(8, echo=0.8, peer=2, version=4),
        Case("READDIR of 100,000", "entries_per_second", ["readdir", *LISTING[1:]], peer=1,
             has_echo=False, version=4),
        Case("READDIR of 100,000, memory host", "entries_per_second", ["readdir", *LISTING[1:]],
             ours="memory", peer=2, has_echo=False, version=4),
    ]),
]
START_TARGET = 50  # milliseconds from start to "ready"
IDLE_TARGET = 64  # KiB a connection


def make_tree(directory):
    """Directories of 1,000 and 100,000 empty files, and a file that tells where each of its bytes is."""
    done = directory / "done"
    if done.exists():
        return
    print("making the tree", file=sys.stderr)
    for name, count in (("few", SMALL_DIRECTORY), ("many", LARGE_DIRECTORY)):
        (directory / name).mkdir(parents=True, exist_ok=True)
        for i in range(count):
            (directory / name / f"file-{i:06}").touch()
    with open(directory / "large", "wb") as file:
        for start in range(0, FILE_SIZE, TRANSFER):
            words = array.array("Q", range(start, start + TRANSFER, 8))
            if sys.byteorder == "big":
                words.byteswap()
            file.write(words.tobytes())
    done.touch()


class Server:
    """A server on a network of its own.

    `access` are the client's arguments that lead to it; None when it announces them itself. `end` is
    the signal that ends it.
    """

    def __init__(self, name, command, access, end, client, log):
        self.version = 4 if name.endswith("4") else 3
        self.name, self.access, self.end, self.client, self.log = name, access, end, client, log
        with open(log, "w") as errors:
            self.process = subprocess.Popen([PRIVATE_NETWORK, *map(str, command)], text=True,
                                            stdout=subprocess.PIPE, stderr=errors)

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.process.send_signal(self.end)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            print(f"{self.name} did not end within 10 seconds", file=sys.stderr)

    def wait_for_answer(self):
        if self.access is None:
            lines = dict(read_announcement(self.process))
            self.access = ["--host", lines["address"], "--nfs-port", lines["nfs-port"],
                           "--mount-port", lines.get("mount-port", 0), "--export", lines["export"]]
        deadline = time.monotonic() + START_LIMIT
        while True:
            try:
                return self.load(self.version, "getattr", "--calls", 1)
            except subprocess.CalledProcessError as error:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    sys.exit(f"{self.name} does not answer: {error.stderr}{self.log.read_text()}")
                time.sleep(0.1)

    def load(self, version, *arguments):
        command = ["nsenter", f"--net=/proc/{self.process.pid}/ns/net", self.client,
                   "--nfs-version", str(version), *map(str, arguments), *map(str, self.access)]
        done = subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE)
        return json.loads(done.stdout)


def read_announcement(process):
    for line in process.stdout:
        key, _, value = line.strip().partition(" ")
        if key == "ready":
            return
        yield key, value
    sys.exit(f"[{' '.join(map(str, process.args))}] ended before it was ready")


def make_server(name, options, work):
    tree = options.tree
    ports = ["--nfs-port", NFS_PORT, "--mount-port", MOUNT_PORT]
    only4 = ["--nfs-version", 4, *ports[:2]]
    command, access, end = {
        "tool": ([options.tool, "serve", tree, *ports], None, signal.SIGTERM),
        "memory": ([options.clients / "memory_server", "--files", LARGE_DIRECTORY, *ports], None,
                   signal.SIGTERM),
        "tool4": ([options.tool, "serve", tree, *only4], None, signal.SIGTERM),
        "memory4": ([options.clients / "memory_server", "--files", LARGE_DIRECTORY, *only4], None,
                    signal.SIGTERM),
        "echo": ([options.clients / "echo_server", "--port", NFS_PORT, "--file", tree / "large"],
                 ports[:2], signal.SIGTERM),
        # What is started here is the parent of a process namespace, which ignores SIGTERM.
        "peer": ([HERE / "peer.sh", tree, NFS_PORT, MOUNT_PORT, work],
                 [*ports, "--export", tree], signal.SIGKILL),
    }[name]
    return Server(name, command, access, end, options.clients / "load_client", work / f"{name}.log")


@contextlib.contextmanager
def running_servers(names, options):
    with tempfile.TemporaryDirectory(prefix="nfslib-bench-") as work, \
            contextlib.ExitStack() as stack:
        servers = {name: stack.enter_context(make_server(name, options, pathlib.Path(work)))
                   for name in names}
        for server in servers.values():
            server.wait_for_answer()
        yield servers


def verify(servers):
    """Every server delivers the whole file, byte by byte, before speed counts."""
    for version, name in ((3, "tool"), (3, "echo"), (3, "peer"), (4, "tool4"), (4, "echo"), (4, "peer")):
        servers[name].load(version, "read", "--path", "large", "--size", TRANSFER, "--in-flight", 4,
                           "--calls", FILE_SIZE // TRANSFER, "--seconds", 600, "--verify-data")


def measure(case, servers, options):
    results = {name: [] for name in case.servers}
    for _ in range(options.rounds):
        for name in case.servers:
            if case.cold:
                with running_servers([name], options) as fresh:
                    load = fresh[name].load(case.version, *case.arguments, "--seconds", 0)
            else:
                load = servers[name].load(case.version, *case.arguments, "--seconds", options.seconds,
                                          "--warm-up", 0.3)
            results[name].append(load[case.measure])
    return {name: statistics.median(rounds) for name, rounds in results.items()}


@contextlib.contextmanager
def running_tool(options):
    """The tool on the network of this process, with what it announced."""
    with subprocess.Popen([options.tool, "serve", options.tree], text=True,
                          stdout=subprocess.PIPE) as process:
        try:
            yield process, dict(read_announcement(process))
        finally:
            process.send_signal(signal.SIGTERM)
            if process.wait(10) != 0:
                sys.exit(f"the tool ended with status {process.returncode}")


def start_to_ready(options):
    """Milliseconds from starting the tool until it has printed "ready", the median."""
    times = []
    for _ in range(10):
        begin = time.perf_counter()
        with running_tool(options):
            times.append((time.perf_counter() - begin) * 1000)
    return statistics.median(times)


def idle_connection(options):
    """KiB of resident memory for a connection that has made one NULL call."""
    def resident(process):
        status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        return int(status.split("VmRSS:")[1].split()[0])

    null_call = struct.pack(">11I", 1 << 31 | 40, 1, 0, 2, NFS_PROGRAM, 3, 0, 0, 0, 0, 0)
    resource.setrlimit(resource.RLIMIT_NOFILE, (4096, 4096))
    with running_tool(options) as (process, told), contextlib.ExitStack() as stack:
        before = resident(process)
        for _ in range(IDLE_CONNECTIONS):
            connection = stack.enter_context(
                socket.create_connection((told["address"], int(told["nfs-port"]))))
            connection.sendall(null_call)
            if len(connection.recv(28, socket.MSG_WAITALL)) != 28:
                sys.exit("no answer to a NULL call")
        return (resident(process) - before) / IDLE_CONNECTIONS


def ratio_column(ratio, target):
    if ratio is None:
        return "", False
    if target is None:
        return f"{ratio:.2f}", False
    missed = ratio < target
    return f"{ratio:.2f} (>= {target}){' MISSED' if missed else ''}", missed


ROW = "| {:<36} | {:<9} | {:>9} | {:>9} | {:>9} | {:<22} | {:<22} |"


def print_row(case, medians):
    """Prints the row and returns whether a target was missed."""
    ours = medians[case.ours]
    columns, missed = [], False
    for other in ("echo", "peer"):
        ratio = ours / medians[other] if other in medians else None
        text, miss = ratio_column(ratio, case.targets[other])
        columns.append(text)
        missed = missed or miss
    shown = [f"{medians[name]:,.0f}" if name in medians else ""
             for name in (case.ours, "echo", "peer")]
    print(ROW.format(case.name, UNITS[case.measure], *shown, *columns), flush=True)
    return missed


def print_limit(name, value, unit, target):
    missed = value >= target
    print(f"{name}: {value:.1f} {unit} (< {target} {unit}){' MISSED' if missed else ''}", flush=True)
    return missed


def compare(options):
    """Prints the table and returns whether a target was missed."""
    missed = False
    with running_servers(("tool", "memory", "tool4", "memory4", "echo", "peer"), options) as servers:
        verify(servers)
        print(ROW.format("case", "unit", "nfslib", "echo", "peer", "nfslib / echo", "nfslib / peer"))
        print(ROW.format(*["---"] * 7))
        for case in CASES:
            if options.only.lower() in case.name.lower():
                missed |= print_row(case, measure(case, servers, options))
    missed |= print_limit("start to ready", start_to_ready(options), "ms", START_TARGET)
    missed |= print_limit("an idle connection of 1,000", idle_connection(options), "KiB", IDLE_TARGET)
    return missed


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tool", type=pathlib.Path, required=True)
    parser.add_argument("--clients", type=pathlib.Path, required=True,
                        help="folder of load_client, echo_server and memory_server")
    parser.add_argument("--tree", type=pathlib.Path, required=True,
                        help="folder for the tree that is served; made when it is not there")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=2)
    parser.add_argument("--only", default="", help="cases whose name contains this")
    parser.add_argument("--report-only", action="store_true",
                        help="exit status 0 also when a target is missed")
    options = parser.parse_args()

    make_tree(options.tree)
    try:
        missed = compare(options)
    except subprocess.CalledProcessError as error:
        sys.exit(f"[{' '.join(map(str, error.cmd))}] failed: {error.stderr}")
    sys.exit(1 if missed and not options.report_only else 0)


if __name__ == "__main__":
    os.environ["LC_ALL"] = "C.UTF-8"
    main()
