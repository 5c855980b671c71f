# SPDX-License-Identifier: Apache-2.0

"""Draws cost against size: a panel for each row of the table, a line for each contestant, both axes logarithmic."""

import math
from xml.sax.saxutils import escape

COLUMNS = 3
WIDTH, HEIGHT = 300, 220  # of a panel
LEFT, RIGHT, TOP, BOTTOM = 48, 12, 28, 30  # margins inside it
LEGEND = 34
COLOURS = ("#000000", "#0072b2", "#d55e00", "#009e73", "#cc79a7", "#e69f00", "#56b4e9", "#999999")


def logarithmic_scale(values, start, end):
    """Maps a value to a coordinate. The scale reaches to the powers of ten around all values."""
    low = math.floor(math.log10(min(values)))
    high = max(math.ceil(math.log10(max(values))), low + 1)
    return low, high, lambda value: start + (math.log10(value) - low) / (high - low) * (end - start)


def short(number):
    for limit, suffix in ((1e6, "M"), (1e3, "k")):
        if number >= limit:
            return f"{number / limit:g}{suffix}"
    return f"{number:g}"


def text(x, y, words, anchor="middle", size=11):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}">{escape(words)}</text>'


def grid(low, high, place, is_vertical):
    parts = []
    for power in range(low, high + 1):
        at = place(10.0 ** power)
        if is_vertical:
            parts.append(f'<path d="M{at:.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#ddd"/>')
            parts.append(text(at, HEIGHT - BOTTOM + 14, short(10 ** power)))
        else:
            parts.append(f'<path d="M{LEFT} {at:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>')
            parts.append(text(LEFT - 5, at + 4, short(10.0 ** power), "end"))
    return parts


def panel(title, lines, colours):
    """Draws one row. `lines` holds the points (size, cost) of each contestant."""
    points = [point for line in lines.values() for point in line]
    x_low, x_high, x_place = logarithmic_scale([x for x, _ in points], LEFT, WIDTH - RIGHT)
    y_low, y_high, y_place = logarithmic_scale([y for _, y in points], HEIGHT - BOTTOM, TOP)
    parts = [text(WIDTH / 2, 16, title, size=12)]
    parts += grid(x_low, x_high, x_place, True) + grid(y_low, y_high, y_place, False)
    for name, line in lines.items():
        places = [(x_place(x), y_place(y)) for x, y in sorted(line)]
        width = 2.5 if name == "ours" else 1.2
        joined = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
        parts.append(f'<polyline points="{joined}" fill="none" stroke="{colours[name]}" stroke-width="{width}"/>')
        parts += [f'<circle cx="{x:.1f}" cy="{y:.1f}" r="2.5" fill="{colours[name]}"/>' for x, y in places]
    return parts


def legend(names, colours):
    parts = []
    for i, name in enumerate(names):
        x = 10 + i * 110
        parts.append(f'<path d="M{x} 18h20" stroke="{colours[name]}" stroke-width="3"/>')
        parts.append(text(x + 25, 22, name, "start", 12))
    return parts


def draw(rows):
    """Returns an SVG. `rows` is a list of a title and, by contestant, the points of its line."""
    names = list(dict.fromkeys(name for _, lines in rows for name in lines))
    colours = {name: COLOURS[i % len(COLOURS)] for i, name in enumerate(names)}
    height = LEGEND + math.ceil(len(rows) / COLUMNS) * HEIGHT
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {COLUMNS * WIDTH} {height}" '
             'font-family="sans-serif">', '<rect width="100%" height="100%" fill="#fff"/>', *legend(names, colours)]
    for i, (title, lines) in enumerate(rows):
        x, y = i % COLUMNS * WIDTH, LEGEND + i // COLUMNS * HEIGHT
        parts += [f'<g transform="translate({x} {y})">', *panel(title, lines, colours), "</g>"]
    return "\n".join([*parts, "</svg>", ""])
