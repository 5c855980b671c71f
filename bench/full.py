# SPDX-License-Identifier: Apache-2.0

"""Measures all rows, prints one table, and writes build/bench/bench.json and the plot. scripts/bench runs this."""

import argparse
import fnmatch
import json
import pathlib
import subprocess
import sys

import answers
import plot
import programs
import quick

JSON_FILE = programs.BUILD / "bench.json"
PLOT_FILE = programs.BUILD / "performance.svg"
PAGE = pathlib.Path("docs/performance.md")
PAGE_PLOT = pathlib.Path("docs/performance.svg")
TABLE_BEGINS = "<!-- scripts/bench --record writes from here -->\n"
TABLE_ENDS = "<!-- to here -->\n"
OURS = "ours"
FULL = "full"  # the peer that the targets refer to
TARGET_SIZES = (10_000, 100_000, 1_000_000)
WIDE = "wide:"
WIDE_MOST = 1.3  # of our own figure with 32 ports
NONE = "–"


def read_rows():
    shown = programs.run([str(programs.TABLE_BENCH), "--list"])
    return {line["row"]: line for line in map(json.loads, shown.stdout.splitlines())}


def measure_table(options):
    """Runs the rows of the table itself; its progress goes to the terminal."""
    command = [str(programs.TABLE_BENCH), "--rows", options.rows, "--peers", options.peers, "--sizes", options.sizes,
               "--runs", str(options.runs)]
    ended = subprocess.run(command, stdout=subprocess.PIPE, text=True)
    if ended.returncode != 0:
        raise programs.Failure(f"table_bench ended with status {ended.returncode}")
    return [json.loads(line) for line in ended.stdout.splitlines()]


def by_row_and_size(results):
    """Results by row and size, then by contestant."""
    grouped = {}
    for each in results:
        grouped.setdefault((each["row"], each["size"]), {})[each["contestant"]] = each
    return grouped


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def quiet(results):
    return f"{sum(each['quiet'] for each in results)}/{sum(each['samples'] for each in results)}"


def met(value, target):
    return "met" if value <= target else "missed"


def row_goal(row, size, measured):
    """The target of a row at a size, and whether it is met; dashes if there is none."""
    if row["most"] and size >= row["most_from"]:
        return f"{row['most']:g}", met(measured[OURS]["median"], row["most"])
    at_most = row["at_most"][TARGET_SIZES.index(size)] if size in TARGET_SIZES else 0
    if not at_most or FULL not in measured:
        return NONE, NONE
    return f"{at_most:g} x full", met(measured[OURS]["median"] / measured[FULL]["median"], at_most)


def peer_ratio(measured, peer):
    if peer not in measured:
        return NONE
    return f"{measured[OURS]['median'] / measured[peer]['median']:.2f}"


def table_lines(rows, results):
    main_results = [each for each in results if not each["row"].startswith(WIDE)]
    peers = list(dict.fromkeys(each["contestant"] for each in main_results if each["contestant"] != OURS))
    lines = [["Work", "Entries", OURS, *peers, "Target", "", "Quiet"]]
    order = list(rows)
    grouped = by_row_and_size(main_results)
    for key, size in sorted(grouped, key=lambda each: (order.index(each[0]), each[1])):
        measured = grouped[key, size]
        start = [rows[key]["title"], f"{size:,}"]
        if OURS not in measured:
            lines.append([*start, NONE, *[NONE] * len(peers), "not built", NONE, NONE])
            continue
        lines.append([*start, number(measured[OURS]["median"]), *[peer_ratio(measured, peer) for peer in peers],
                      *row_goal(rows[key], size, measured), quiet(measured.values())])
    return lines


def wide_lines(rows, results):
    lines = [["Work", "32 ports", "1,000 ports", "Ratio", "Target", "", "Quiet"]]
    for (key, _), measured in by_row_and_size(results).items():
        if not key.startswith(WIDE) or len(measured) != 2:
            continue
        narrow, wide = measured["32 ports"]["median"], measured["1,000 ports"]["median"]
        lines.append([rows[key.removeprefix(WIDE)]["title"], number(narrow), number(wide), f"{wide / narrow:.2f}",
                      f"{WIDE_MOST}", met(wide / narrow, WIDE_MOST), quiet(measured.values())])
    return lines


def answer_lines(results):
    lines = [["Answer", "Median", "Unit", "Target", "", "Quiet"]]
    for each in results:
        goal = [f"{each['most']:g}", met(each["median"], each["most"])] if each["most"] else [NONE, NONE]
        lines.append([each["title"], number(each["median"]), each["unit"], *goal, quiet([each])])
    return lines


def instruction_lines(rows, counts):
    lines = [["Instructions for one item", "Measured", "Target", ""]]
    goals = {"daemon-row": 3500, "client-start": 2_000_000}
    titles = quick.TITLES | {key: row["title"] for key, row in rows.items()}
    for key, count in counts.items():
        goal = rows[key]["instructions"] if key in rows else goals.get(key, 0)
        lines.append([titles[key], number(count), number(goal) if goal else NONE, met(count, goal) if goal else NONE])
    return lines


def aligned(lines):
    """A Markdown table whose columns line up in a terminal, too. Empty if it has only a head."""
    if len(lines) == 1:
        return ""
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]

    def shown(line):
        first, *others = (cell.ljust(width) if i == 0 else cell.rjust(width)
                          for i, (cell, width) in enumerate(zip(line, widths)))
        return "| " + " | ".join([first, *others]) + " |"

    rule = "|" + "|".join(("" if i == 0 else "-") + "-" * (width + 1) + ("-" if i == 0 else ":")
                          for i, width in enumerate(widths)) + "|"
    return "\n".join([shown(lines[0]), rule, *map(shown, lines[1:])]) + "\n"


def drawn_rows(rows, results):
    """The rows with at least two sizes, for the plot."""
    drawn = {}
    for each in results:
        if not each["row"].startswith(WIDE) and each["median"] > 0:
            lines = drawn.setdefault(rows[each["row"]]["title"], {})
            lines.setdefault(each["contestant"], []).append((each["size"], each["median"]))
    return [(title, lines) for title, lines in drawn.items()
            if len({size for line in lines.values() for size, _ in line}) > 1]


def write_page(text, drawing):
    """Puts the table into the page about performance, and the plot beside it."""
    before, begins, rest = PAGE.read_text().partition(TABLE_BEGINS)
    _, ends, after = rest.partition(TABLE_ENDS)
    if not begins or not ends:
        raise programs.Failure(f"{PAGE} lacks the lines between which the table goes: "
                               f"{TABLE_BEGINS.strip()} and {TABLE_ENDS.strip()}")
    PAGE.write_text(f"{before}{begins}\n{text}\n{ends}{after}")
    PAGE_PLOT.write_text(drawing)
    print(f"wrote {PAGE} and {PAGE_PLOT}")


def parse_options():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rows", default="*")
    parser.add_argument("--peers", default="*")
    parser.add_argument("--sizes", default="10000,100000,1000000")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--record", action="store_true")
    return parser.parse_args()


def expect_rows(pattern, rows):
    wide = [WIDE + key for key in rows if key != "next-of-domain"]  # which has a layout of its own
    keys = [*rows, *wide, *map(answers.key_of, answers.all_keys())]
    if not fnmatch.filter(keys, pattern):
        raise programs.Failure(f"no row matches {pattern}; the rows are: {', '.join(keys)}")


def measure(options):
    """Measures the selected rows. Returns what the JSON file holds, and writes that file after each part."""
    largest = max(map(int, options.sizes.split(",")))
    parts = {"instructions": lambda: quick.measure(options.rows), "table": lambda: measure_table(options),
             "answers": lambda: answers.measure(options.rows, options.runs, largest)}
    measured = {}
    for name, take in parts.items():
        measured[name] = take()
        JSON_FILE.write_text(json.dumps(measured, indent=1) + "\n")
    return measured


def tables_of(rows, measured):
    """The tables of all rows that were measured, as text."""
    tables = (table_lines(rows, measured["table"]), wide_lines(rows, measured["table"]),
              answer_lines(measured["answers"]), instruction_lines(rows, measured["instructions"]))
    return "\n".join(filter(None, map(aligned, tables)))


def main():
    options = parse_options()
    rows = read_rows()
    expect_rows(options.rows, rows)
    measured = measure(options)
    text = tables_of(rows, measured)
    drawing = plot.draw(drawn_rows(rows, measured["table"]))
    print(f"\n{text}")
    PLOT_FILE.write_text(drawing)
    print(f"wrote {JSON_FILE} and {PLOT_FILE}")
    if options.record:
        write_page(text, drawing)


if __name__ == "__main__":
    try:
        main()
    except (programs.Failure, subprocess.SubprocessError, OSError) as failure:
        print(f"bench: {failure}", file=sys.stderr)
        sys.exit(1)
