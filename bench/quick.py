# SPDX-License-Identifier: Apache-2.0

"""Counts the instructions of each kind of work and compares them with recorded figures.

callgrind counts instructions, so a figure hardly depends on the machine or on what else runs. scripts/bench --quick
runs this. A figure more than 5 % above the recorded one is a failure; one more than 5 % below is reported, so that
somebody records the better one.
"""

import argparse
import fnmatch
import json
import pathlib
import re
import subprocess
import sys
import tempfile

import programs
from programs import Failure

RECORDED = pathlib.Path("bench/instructions.json")
SIZE = 10_000
ALLOWED = 1.05  # of the recorded figure

TITLES = {
    "daemon-row": "answer row of the daemon",
    "client-row-text": "answer row of the client, text",
    "client-row-json": "answer row of the client, JSON lines",
    "client-start": "start of the client",
}


def callgrind(output, *options):
    return ["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={output}", *options]


def total(file):
    found = re.search(r"^totals: (\d+)", pathlib.Path(file).read_text(), re.MULTILINE)
    if not found:
        raise Failure(f"{file}: callgrind wrote no total")
    return int(found[1])


def trigger(file):
    found = re.search(r"^desc: Trigger: Client Request: (\S+)", file.read_text(), re.MULTILINE)
    return found[1] if found else None


def count_table(pattern, directory):
    """Counts the rows of the table itself. Returns instructions for one item by row."""
    output = directory / "table"
    shown = programs.run([*callgrind(output, "--instr-atstart=no"), str(programs.TABLE_BENCH), "--instructions",
                          "--sizes", str(SIZE), "--rows", pattern])
    items = {line["row"]: line["items"] for line in map(json.loads, shown.stdout.splitlines())}
    counts = {}
    for file in directory.glob("table.*"):
        row = trigger(file)
        if row is not None:
            counts[row] = total(file) / items[row]
    missing = items.keys() - counts.keys()
    if missing:
        raise Failure(f"callgrind wrote no figures for: {', '.join(sorted(missing))}")
    return {row: counts[row] for row in items}


def count_daemon(directory):
    """Instructions of the daemon for one entry of the answer with the whole table."""
    output = directory / "daemon"
    answer = directory / "answer"
    with programs.running_daemon(programs.generated(SIZE), callgrind(output, "--instr-atstart=no")) as (daemon, socket):
        programs.run(["callgrind_control", "--instr=on", str(daemon.pid)])
        programs.run(programs.ask(socket, programs.MAC_TABLE, answer))
        programs.run(["callgrind_control", "--instr=off", str(daemon.pid)])
    rows = answer.read_text().count('"mac-address"')
    if rows < SIZE:
        raise Failure(f"the answer has {rows} entries, expected at least {SIZE}")
    return total(output) / rows


def count_command(command, directory):
    """Returns a command's instructions and the lines that it prints."""
    output = directory / "client"
    shown = programs.run([*callgrind(output), *command])
    return total(output), len(shown.stdout.splitlines())


def count_client(directory):
    """Instructions of the client: its start with a small answer, and for one row of a long one."""
    counts = {}
    with programs.running_daemon(programs.generated(SIZE)) as (_, socket):
        start, _ = count_command(programs.client(socket, "show", "count"), directory)
        counts["client-start"] = start
        for row, options in (("client-row-text", []), ("client-row-json", ["--json-lines"])):
            instructions, lines = count_command(programs.client(socket, *options, "show", "mac"), directory)
            counts[row] = (instructions - start) / lines
    return counts


def measure(pattern):
    counts = {}
    with tempfile.TemporaryDirectory(prefix="l2fib-bench-") as name:
        directory = pathlib.Path(name)
        counts.update(count_table(pattern, directory))
        if fnmatch.fnmatch("daemon-row", pattern):
            counts["daemon-row"] = count_daemon(directory)
        if any(fnmatch.fnmatch(row, pattern) for row in TITLES if row.startswith("client")):
            counts.update({row: count for row, count in count_client(directory).items()
                           if fnmatch.fnmatch(row, pattern)})
    return {row: round(count, 1) for row, count in counts.items()}


def titles():
    shown = programs.run([str(programs.TABLE_BENCH), "--list"])
    return {line["row"]: line["title"] for line in map(json.loads, shown.stdout.splitlines())} | TITLES


def verdict(measured, recorded):
    if recorded is None:
        return "not recorded"
    if measured > recorded * ALLOWED:
        return "GREW"
    return "shrank" if measured * ALLOWED < recorded else "as recorded"


def report(counts, recorded, pattern):
    """Prints the figures. Returns a message for each that must not be as it is."""
    names = titles()
    wrong = [f"{row}: recorded, but not measured any more" for row in recorded
             if fnmatch.fnmatch(row, pattern) and row not in counts]
    print(f"{'Instructions for one item':48} {'recorded':>12} {'measured':>12}")
    for row, count in counts.items():
        expected = recorded.get(row)
        word = verdict(count, expected)
        shown = "-" if expected is None else f"{expected:,.1f}"
        print(f"{names[row]:48} {shown:>12} {count:12,.1f}  {word}")
        if word in ("GREW", "not recorded"):
            limit = "no figure is recorded" if expected is None else f"expected at most {expected * ALLOWED:,.1f}"
            wrong.append(f"{row} ({names[row]}): {count:,.1f} instructions, {limit}")
    return wrong


def record(counts, recorded):
    RECORDED.write_text(json.dumps(recorded | counts, indent=4) + "\n")
    print(f"wrote {RECORDED}")


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rows", default="*", help="shell pattern of the rows' keys")
    parser.add_argument("--record", action="store_true", help=f"write the figures to {RECORDED}")
    return parser.parse_args()


def main():
    options = parse_options()
    recorded = json.loads(RECORDED.read_text()) if RECORDED.exists() else {}
    counts = measure(options.rows)
    if not counts:
        raise Failure(f"no row matches {options.rows}; the rows are: {', '.join(titles())}")
    wrong = report(counts, recorded, options.rows)
    if options.record:
        record(counts, recorded)
        return 0
    for line in wrong:
        print(f"bench: {line}", file=sys.stderr)
    if wrong:
        print("bench: if the growth is meant, record it with scripts/bench --quick --record", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (Failure, subprocess.SubprocessError, OSError) as failure:
        print(f"bench: {failure}", file=sys.stderr)
        sys.exit(1)
