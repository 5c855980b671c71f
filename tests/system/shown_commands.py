# SPDX-License-Identifier: Apache-2.0

"""Runs the commands that a page shows, and compares the shape of what they print with the page.

    shown_commands.py PAGE WORLD       runs the page's commands of one world; the daemon of that world must serve already
    shown_commands.py PAGE --worlds    prints the names of the page's worlds, and fails if an example has none

A page says in which world its examples were made, or why nobody can run them, up to the next such line:

    <!-- world: tunnels -->                        <!-- not run: takes an overrun of the kernel -->

        $ l2fibctl show count                          $ l2fibctl resync
        Scope  Total ...                               ...
        l2fibctl show mac --port vxlan100

The shape of a text is its lines with each time, age, address and number replaced by a letter, and with blanks made one.
A row that has the shape of the row before it is dropped, so a page need not show as many rows as there are. A line
"..." on the page stands for any lines. In a world that changes, a command may need a few tries until its output has the
shape. A command without "$" shows no output: it must find something or nothing, or still run after two seconds.
"""

import os
import re
import signal
import subprocess
import sys
import time

MARK = re.compile(r"^<!-- (world|not run): (.+?) -->$")
PROMPT = "    $ "
SILENT = "    l2fibctl "
KINDS = [
    (re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z"), "T"),
    (re.compile(r"\b[0-9a-f]{2}(:[0-9a-f]{2}){5}\b"), "M"),
    (re.compile(r"\b(\d+d\d\dh|\d\d:\d\d:\d\d(\.\d+)?)"), "A"),
    (re.compile(r"\d+(\.\d+)*"), "N"),
    (re.compile(r"\s+"), " "),
]
ANY_LINES = "..."
TRIES = 60
PAUSE_SECONDS = 0.1
SILENT_SECONDS = 2
TIMEOUT_SECONDS = 30
FINE = (0, 1, 6)  # found, nothing found, may be incomplete


def shape_of(line):
    for pattern, letter in KINDS:
        line = pattern.sub(letter, line)
    return line.strip()


def shapes_of(lines):
    shapes = []
    for shape in map(shape_of, lines):
        if not shapes or shapes[-1] != shape:
            shapes.append(shape)
    return shapes


def fits(shown, printed):
    """True if the printed shapes are the shown ones, where ANY_LINES stands for none or more."""
    if not shown:
        return not printed
    if shown[0] == ANY_LINES:
        return any(fits(shown[1:], printed[at:]) for at in range(len(printed) + 1))
    return bool(printed) and shown[0] == printed[0] and fits(shown[1:], printed[1:])


def examples_of(page):
    """Yields each command of the page: line number, mark (kind, text) or None, command, lines below it or None."""
    mark, current = None, None
    for number, line in enumerate(open(page, encoding="utf-8").read().split("\n") + ["end"], 1):
        inside = line.startswith("    ") or (not line and current is not None)
        if current is not None and (not inside or line.startswith((PROMPT, SILENT))):
            while current[3] and not current[3][-1]:
                current[3].pop()
            yield current
            current = None
        if found := MARK.match(line):
            mark = found.groups()
        elif line.startswith(SILENT):
            yield number, mark, line.strip(), None
        elif line.startswith(PROMPT) and "l2fibctl" in line:
            current = (number, mark, line.removeprefix(PROMPT), [])
        elif current is not None:
            current[3].append(line.removeprefix("    "))


def worlds_of(page):
    worlds, unmarked = [], []
    for number, mark, command, _ in examples_of(page):
        if mark is None:
            unmarked.append(f"{page}:{number}: {command}: expected a line \"<!-- world: NAME -->\" above it")
        elif mark[0] == "world" and mark[1] not in worlds:
            worlds.append(mark[1])
    return worlds, unmarked


def output_of(command):
    ran = subprocess.run(["bash", "-c", command + " 2>&1"], stdout=subprocess.PIPE, text=True, timeout=TIMEOUT_SECONDS)
    return ran.returncode, ran.stdout


def fault_of_shown(command, shown):
    for _ in range(TRIES):
        status, printed = output_of(f"{{ {command}; }}")
        if fits(shapes_of(shown), shapes_of(printed.splitlines())):
            return None
        time.sleep(PAUSE_SECONDS)
    return f"--- the page shows\n{chr(10).join(shown)}\n--- it prints (status {status})\n{printed}"


def fault_of_silent(command):
    running = subprocess.Popen(["bash", "-o", "pipefail", "-c", command], stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, text=True, start_new_session=True)
    try:
        _, messages = running.communicate(timeout=SILENT_SECONDS)
    except subprocess.TimeoutExpired:
        os.killpg(running.pid, signal.SIGTERM)
        running.communicate()
        return None
    return None if running.returncode in FINE else f"status {running.returncode}: {messages}"


def differences(page, world):
    for number, mark, command, shown in examples_of(page):
        if mark == ("world", world):
            fault = fault_of_silent(command) if shown is None else fault_of_shown(command, shown)
            if fault:
                yield f"{page}:{number}: $ {command}\n{fault}"


def main():
    page, wanted = sys.argv[1:]
    worlds, faults = worlds_of(page)
    if wanted == "--worlds":
        print("\n".join(worlds))
    else:
        faults = list(differences(page, wanted))
    print("\n".join(faults), file=sys.stderr, end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
