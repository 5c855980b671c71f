# SPDX-License-Identifier: Apache-2.0

"""Runs the commands that a page shows, and compares the shape of what they print with the page.

    shown_commands.py PAGE WORLD       runs the page's commands of one world; the daemon of that world must serve already
    shown_commands.py PAGE --worlds    prints the names of the page's worlds, and fails if an example has none

A page says above an example in which world it was made, or why nobody can run it:

    <!-- world: tunnels -->                        <!-- not run: takes an overrun of the kernel -->

        $ l2fibctl show count                          $ l2fibctl resync
        Scope  Total ...                               ...

The shape of a text is its lines with each time, age, address and number replaced by a letter, and with blanks made one.
A row that has the shape of the row before it is dropped, so a page need not show as many rows as there are. A line
"..." on the page stands for any lines.
"""

import re
import subprocess
import sys

MARK = re.compile(r"^<!-- (world|not run): (.+?) -->$")
PROMPT = "    $ "
KINDS = [
    (re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z"), "T"),
    (re.compile(r"\b[0-9a-f]{2}(:[0-9a-f]{2}){5}\b"), "M"),
    (re.compile(r"\b(\d+d\d\dh|\d\d:\d\d:\d\d(\.\d+)?)"), "A"),
    (re.compile(r"\d+(\.\d+)*"), "N"),
    (re.compile(r"\s+"), " "),
]
ANY_LINES = "..."
TIMEOUT_SECONDS = 30


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
    """Yields each command of the page: its line number, its mark (kind, text) or None, itself, the lines below it."""
    mark, current = None, None
    for number, line in enumerate(open(page, encoding="utf-8").read().split("\n") + ["end"], 1):
        inside = line.startswith("    ") or (not line and current is not None)
        if current is not None and (not inside or line.startswith(PROMPT)):
            while current[3] and not current[3][-1]:
                current[3].pop()
            yield current
            current = None
        if found := MARK.match(line):
            mark = found.groups()
        elif line.startswith(PROMPT) and "l2fibctl" in line:
            current = (number, mark, line.removeprefix(PROMPT), [])
        elif current is not None:
            current[3].append(line.removeprefix("    "))
        elif line.startswith("#"):
            mark = None


def worlds_of(page):
    worlds, unmarked = [], []
    for number, mark, command, _ in examples_of(page):
        if mark is None:
            unmarked.append(f"{page}:{number}: {command}: expected a line \"<!-- world: NAME -->\" above it")
        elif mark[0] == "world" and mark[1] not in worlds:
            worlds.append(mark[1])
    return worlds, unmarked


def differences(page, world):
    for number, mark, command, shown in examples_of(page):
        if mark != ("world", world):
            continue
        ran = subprocess.run(["bash", "-c", command], capture_output=True, text=True, timeout=TIMEOUT_SECONDS)
        printed = (ran.stderr + ran.stdout) if "status $?" in command else ran.stdout + ran.stderr
        if not fits(shapes_of(shown), shapes_of(printed.splitlines())):
            yield f"{page}:{number}: $ {command}\n--- the page shows\n" + "\n".join(shown) + \
                f"\n--- it prints (status {ran.returncode})\n{printed}"


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
