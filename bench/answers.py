# SPDX-License-Identifier: Apache-2.0

"""Measures the answers: how long an operator waits, and what daemon and client use meanwhile.

Each row has a function that takes one sample. A sample of time has a probe of the machine's state beside it: fixed work
that is timed before and after.
"""

import contextlib
import fnmatch
import json
import os
import pathlib
import random
import statistics
import subprocess
import tempfile
import time

import programs
import quick

PREFIX = "answer:"
QUIET = 1.15  # of the fastest probe
PORTS = 32
BRIDGES = 10
MEBI = 1 << 20
TARGET_SIZE = 1_000_000  # the targets of the generated and the recorded table hold for this many entries


# ---- The machine

def probe():
    """How long fixed work takes now, in seconds."""
    start = time.perf_counter()
    sum(value * value for value in range(100_000))
    return time.perf_counter() - start


def processor_seconds(process):
    """Processor time of a process that runs, from its own clock."""
    scheduled = 2
    return time.clock_gettime(~process << 3 | scheduled)


def memory_bytes(process, field):
    """A line of the process's status, such as VmRSS."""
    for line in pathlib.Path(f"/proc/{process}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1]) * 1024
    raise programs.Failure(f"process {process} has no {field}")


def timed(command):
    """Runs a command with its output thrown away. Returns its seconds on the wall, its processor time, its peak."""
    start = time.perf_counter()
    child = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    with child.stderr:
        errors = child.stderr.read()
    _, status, used = os.wait4(child.pid, 0)
    taken = time.perf_counter() - start
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        raise programs.Failure(f"{' '.join(command)} ended with status {child.returncode}: {errors.decode()}")
    return taken, used.ru_utime + used.ru_stime, used.ru_maxrss * 1024


# ---- Rows of the generated table. Each function takes the running daemon's process and socket.

def curl_time(socket, path, what):
    shown = programs.run(programs.ask(socket, path, "/dev/null", "--write-out", what))
    return float(shown.stdout)


def known_address(socket):
    shown = programs.run(programs.ask(socket, f"{programs.MAC_TABLE}?limit=1", "-"))
    return json.loads(shown.stdout)["l2fib-mac:mac-entry"][0]["mac-address"]


def command_seconds(*arguments):
    return lambda _, socket: timed(programs.client(socket, *arguments))[0]


def command_processor_seconds(*arguments):
    return lambda _, socket: timed(programs.client(socket, *arguments))[1]


memory_at_start = {}  # by process, before its first answer


def growth_while_answering(daemon, socket):
    """How much the daemon's peak of memory exceeds what it held before its first answer, in MiB."""
    before = memory_at_start.setdefault(daemon.pid, memory_bytes(daemon.pid, "VmRSS"))
    pathlib.Path(f"/proc/{daemon.pid}/clear_refs").write_text("5")  # the peak begins at what is held now
    timed(programs.ask(socket, programs.MAC_TABLE))
    return (memory_bytes(daemon.pid, "VmHWM") - before) / MEBI


def memory_of_entry(daemon, socket):
    shown = programs.run(programs.ask(socket, "l2fib-mac:mac-count", "-"))
    count = json.loads(shown.stdout)["l2fib-mac:mac-count"]["total"]
    return memory_bytes(daemon.pid, "VmRSS") / int(count)


# Key, title, unit, most, sample. The growth is measured first, before any other answer.
GENERATED = [
    ("growth", "growth of the daemon while it answers", "MiB", 4.0, growth_while_answering),
    ("curl", "whole table by curl", "s", 1.0,
     lambda _, socket: curl_time(socket, programs.MAC_TABLE, "%{time_total}")),
    ("first-byte", "first byte of the whole table", "ms", 2.0,
     lambda _, socket: 1000 * curl_time(socket, programs.MAC_TABLE, "%{time_starttransfer}")),
    ("text", "show mac as text", "s", 1.3, command_seconds("show", "mac")),
    ("text-client", "show mac as text, processor time of the client", "s", 0.35,
     command_processor_seconds("show", "mac")),
    ("json", "show mac as JSON lines", "s", 1.3, command_seconds("--json-lines", "show", "mac")),
    ("json-client", "show mac as JSON lines, processor time of the client", "s", 0.35,
     command_processor_seconds("--json-lines", "show", "mac")),
    ("aging", "show mac --aging", "s", 2.0, command_seconds("show", "mac", "--aging")),
    ("count-socket", "the count, at the socket", "ms", 1.0,
     lambda _, socket: 1000 * curl_time(socket, "l2fib-mac:mac-count", "%{time_total}")),
    ("count", "show count", "ms", 5.0, lambda *at: 1000 * command_seconds("show", "count")(*at)),
    ("address-socket", "one address, at the socket", "ms", 1.0,
     lambda _, socket: 1000 * curl_time(socket, f"{programs.MAC_TABLE}?mac={known_address(socket)}", "%{time_total}")),
    ("address", "show mac ADDR", "ms", 5.0,
     lambda daemon, socket: 1000 * command_seconds("show", "mac", known_address(socket))(daemon, socket)),
    ("memory", "memory of the daemon for an entry", "bytes", 256.0, memory_of_entry),
]


# ---- The recorded table

# Key, title, unit, most, and which figure of `timed` it is.
RECORDED = [
    ("recorded-time", "recorded table of {:,} entries, until it is served", "s", 2.0, 0),
    ("recorded-memory", "recorded table of {:,} entries, peak memory", "MiB", 350.0, 2),
]


def links_of_record():
    links = []
    for bridge in range(BRIDGES):
        links.append({"ifindex": len(links) + 1, "ifname": f"br{bridge}", "flags": ["BROADCAST", "MULTICAST", "UP"],
                      "link_type": "ether", "address": f"02:00:00:00:00:{bridge:02x}",
                      "linkinfo": {"info_kind": "bridge", "info_data": {"ageing_time": 30000, "vlan_filtering": 0}}})
        for port in range(PORTS):
            links.append({"ifindex": len(links) + 1, "ifname": f"p{bridge}-{port}", "master": f"br{bridge}",
                          "flags": ["BROADCAST", "MULTICAST", "UP"], "link_type": "ether",
                          "address": f"02:00:00:01:{bridge:02x}:{port:02x}",
                          "linkinfo": {"info_slave_kind": "bridge", "info_slave_data": {"state": "forwarding"}}})
    return links


def address_text(number):
    return ":".join(f"{byte:02x}" for byte in number.to_bytes(6, "big"))


def random_addresses(count):
    """Different unicast addresses, always the same ones."""
    chosen = random.Random(1)
    multicast = 1 << 40
    addresses = set()
    while len(addresses) < count:
        addresses.add(chosen.getrandbits(48) & ~multicast)
    return [address_text(each) for each in sorted(addresses)]


def write_record(directory, count):
    (directory / "links.json").write_text(json.dumps(links_of_record()))
    with (directory / "fdb.json").open("w") as to:
        for i, address in enumerate(random_addresses(count)):
            bridge = i % BRIDGES
            to.write("[\n" if i == 0 else ",\n")
            to.write(f'{{"mac":"{address}","ifname":"p{bridge}-{i // BRIDGES % PORTS}","used":{i % 300},'
                     f'"updated":{i % 200},"flags":[],"master":"br{bridge}","state":""}}')
        to.write("]\n")


def measure_record(pattern, runs, largest):
    count = largest * 6 // 5
    rows = [row for row in RECORDED if selected(pattern, row[0])]
    if not rows:
        return
    with tempfile.TemporaryDirectory(prefix="l2fib-bench-") as name:
        directory = pathlib.Path(name)
        write_record(directory, count)
        command = [str(programs.DAEMON), "--plane", "recorded", "--recorded", name, "--group", "bench", "--check"]
        samples = [with_probe(lambda: timed(command)) for _ in range(runs)]
    for key, title, unit, most, figure in rows:
        scale = MEBI if unit == "MiB" else 1
        yield result((key, title.format(count), unit, goal_at(largest, most)),
                     [(value[figure] / scale, beside) for value, beside in samples])


# ---- The kernel's table

@contextlib.contextmanager
def kernel_bridges(bridges, entries):
    """A network namespace with bridges of one port each and `entries` learned addresses on each port."""
    name = f"l2fib-bench-{os.getpid()}"
    programs.run(["ip", "netns", "add", name])
    try:
        lines = []
        for bridge in range(bridges):
            lines.append(f"link add br{bridge} up type bridge ageing_time 36000000")
            lines.append(f"link add p{bridge} up type veth peer name q{bridge}")
            lines.append(f"link set p{bridge} master br{bridge}")
            lines.append(f"link set q{bridge} up")
        programs.run(["ip", "-n", name, "-batch", "-"], input="\n".join(lines) + "\n")
        wait_for_forwarding(name, bridges)
        addresses = random_addresses(bridges * entries)
        programs.run(["bridge", "-n", name, "-batch", "-"],
                     input="".join(f"fdb add {address} dev p{i % bridges} master dynamic\n"
                                   for i, address in enumerate(addresses)))
        yield name
    finally:
        programs.run(["ip", "netns", "del", name])


def wait_for_forwarding(name, bridges):
    """A port takes learned addresses when it forwards."""
    end = time.monotonic() + 60
    while True:
        shown = programs.run(["bridge", "-n", name, "link", "show"]).stdout
        if shown.count("state forwarding") == bridges:
            return
        if time.monotonic() > end:
            raise programs.Failure("the ports of the bridges do not forward")
        time.sleep(0.1)


def kernel_sample(daemon, socket, name):
    """Processor time of daemon and client, and that of `bridge fdb show`, for one list of the table."""
    before = processor_seconds(daemon.pid)
    _, client, _ = timed(programs.client(socket, "show", "mac"))
    ours = processor_seconds(daemon.pid) - before + client
    _, theirs, _ = timed(["bridge", "-n", name, "fdb", "show"])
    return ours, theirs


# Key, bridges, entries of each, most.
KERNEL = [
    ("kernel-100000", 1, 100_000, 0.7),
    ("kernel-300000", 1, 300_000, 0.35),
    ("kernel-200x200", 200, 200, 1.0),
]


def measure_kernel(pattern, runs, largest):
    for key, bridges, entries, most in KERNEL:
        row = (key, f"kernel table, {bridges} x {entries:,}, processor time as a part of bridge fdb show", "ratio", most)
        if not selected(pattern, key) or bridges * entries > largest:
            continue
        with kernel_bridges(bridges, entries) as name:
            options = ["--plane", "kernel", "--netns", name, "--group", "bench"]
            with programs.running_daemon(options) as (daemon, socket):
                samples = [with_probe(lambda: kernel_sample(daemon, socket, name)) for _ in range(runs)]
        ours = statistics.median(value[0] for value, _ in samples)
        measured = result(row, [(value[0] / value[1], beside) for value, beside in samples])
        measured["seconds"] = ours
        yield measured


# ---- All of them

START = ("start", "start of the client, millions of instructions", "M", 2.0)


def all_keys():
    return [row[0] for row in (*GENERATED, START, *KERNEL, *RECORDED)]


def key_of(name):
    return PREFIX + name


def selected(pattern, key):
    return fnmatch.fnmatch(key_of(key), pattern)


def goal_at(size, most):
    """The target of a row for a table of this size; 0 if there is none."""
    return most if size >= TARGET_SIZE else 0


def with_probe(take):
    before = probe()
    value = take()
    return value, max(before, probe())


def result(row, samples):
    """A line of the results. The samples keep their probes until the fastest one is known."""
    key, title, unit, most = row
    return {"row": key_of(key), "title": title, "unit": unit, "most": most,
            "median": statistics.median(value for value, _ in samples), "probes": [beside for _, beside in samples]}


def measure_generated(pattern, runs, largest):
    rows = [row for row in GENERATED if selected(pattern, row[0])]
    if not rows:
        return
    samples = {row[0]: [] for row in rows}
    with programs.running_daemon(programs.generated(largest)) as (daemon, socket):
        for _ in range(runs):
            for row in rows:
                samples[row[0]].append(with_probe(lambda: row[4](daemon, socket)))
    for key, title, unit, most, _ in rows:
        yield result((key, title, unit, goal_at(largest, most)), samples[key])


def measure_start(pattern):
    if not selected(pattern, START[0]):
        return
    with tempfile.TemporaryDirectory(prefix="l2fib-bench-") as name:
        with programs.running_daemon(programs.generated(quick.SIZE)) as (_, socket):
            count, _ = quick.count_command(programs.client(socket, "show", "count"), pathlib.Path(name))
    yield result(START, [(count / 1e6, probe())])


def measure(pattern, runs, largest):
    """Measures the selected rows on a table of `largest` entries. Returns a list of results."""
    results = []
    for part in (measure_generated(pattern, runs, largest), measure_start(pattern),
                 measure_kernel(pattern, runs, largest), measure_record(pattern, runs, largest)):
        for measured in part:
            print(f"{measured['row']}: {measured['median']:.3f} {measured['unit']}", flush=True)
            results.append(measured)
    fastest = min((min(each["probes"]) for each in results), default=0)
    for each in results:
        probes = each.pop("probes")
        each["samples"] = len(probes)
        each["quiet"] = sum(beside <= QUIET * fastest for beside in probes)
    return results
