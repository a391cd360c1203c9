# SPDX-License-Identifier: Apache-2.0
"""Line charts as SVG, without a library."""

import math
from dataclasses import dataclass, field
from xml.sax.saxutils import escape

from figures import rounded

_WIDTH, _HEIGHT = 620, 420
_LEFT, _RIGHT, _TOP, _BOTTOM = 70, 190, 46, 52
_LABEL_HEIGHT = 15
# Distinguishable for colour-blind readers too; a peer keeps its colour in all charts.
_COLOURS = ("#d55e00", "#000000", "#0072b2", "#009e73", "#cc79a7", "#e69f00", "#56b4e9", "#7f7f7f", "#8c564b", "#6a3d9a")


@dataclass
class Chart:
    """Lines by their names, each a list of points; `logarithmic` is about the x axis, the y axis always is."""

    title: str
    x_label: str
    y_label: str
    lines: dict = field(default_factory=dict)
    logarithmic: bool = True

    def add(self, name, x, y):
        """One more point of a line."""
        self.lines.setdefault(name, []).append((x, y))


class _Axis:
    """Places values between two ends of the picture, and chooses the marks."""

    def __init__(self, values, begin, end, logarithmic):
        self._scale = math.log10 if logarithmic else float
        self._begin, self._end = begin, end
        self.marks = _decades(values) if logarithmic else sorted(set(values))
        ends = [self._scale(value) for value in (*values, *self.marks)]
        self._low, self._high = min(ends), max(ends)

    def place(self, value):
        share = (self._scale(value) - self._low) / ((self._high - self._low) or 1)
        return self._begin + share * (self._end - self._begin)


def _decades(values):
    """The powers of ten around the values."""
    low, high = math.floor(math.log10(min(values)) + 1e-9), math.ceil(math.log10(max(values)) - 1e-9)
    return [10.0 ** exponent for exponent in range(low, max(high, low + 1) + 1)]


def spread(wanted, distance):
    """Places as near to the wanted ones as can be when each must be `distance` from the next; the order stays."""
    order = sorted(range(len(wanted)), key=lambda index: wanted[index])
    groups = []  # of neighbours that touch: their indexes, and the place of the first
    for index in order:
        groups.append(([index], wanted[index]))
        while len(groups) > 1 and groups[-2][1] + len(groups[-2][0]) * distance > groups[-1][1]:
            last, _ = groups.pop()
            first, _ = groups.pop()
            members = first + last
            start = sum(wanted[member] - distance * rank for rank, member in enumerate(members)) / len(members)
            groups.append((members, start))
    places = [0.0] * len(wanted)
    for members, start in groups:
        for rank, member in enumerate(members):
            places[member] = start + distance * rank
    return places


def svg(charts):
    """A picture of all charts, one below the other."""
    names = list(dict.fromkeys(name for chart in charts for name in chart.lines))
    colours = {name: _COLOURS[index % len(_COLOURS)] for index, name in enumerate(names)}
    height = _HEIGHT * len(charts)
    parts = ['<?xml version="1.0" encoding="UTF-8"?>', "<!-- SPDX-License-Identifier: Apache-2.0 -->",
             f'<svg xmlns="http://www.w3.org/2000/svg" width="{_WIDTH}" height="{height}" '
             f'viewBox="0 0 {_WIDTH} {height}" font-family="sans-serif" font-size="12">',
             f'<rect width="{_WIDTH}" height="{height}" fill="#ffffff"/>']
    for number, chart in enumerate(charts):
        parts += [f'<g transform="translate(0 {number * _HEIGHT})">', *_chart(chart, colours), "</g>"]
    return "\n".join([*parts, "</svg>"]) + "\n"


def _text(x, y, text, anchor="middle", **attributes):
    more = "".join(f' {name.replace("_", "-")}="{value}"' for name, value in attributes.items())
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{escape(text)}</text>'


def _chart(chart, colours):
    points = [point for line in chart.lines.values() for point in line]
    x_axis = _Axis([x for x, _ in points], _LEFT, _WIDTH - _RIGHT, chart.logarithmic)
    y_axis = _Axis([y for _, y in points], _HEIGHT - _BOTTOM, _TOP, True)
    middle = (_TOP + _HEIGHT - _BOTTOM) / 2
    yield _text(_LEFT, 24, chart.title, "start", font_size=14, font_weight="bold")
    yield _text((_LEFT + _WIDTH - _RIGHT) / 2, _HEIGHT - 14, chart.x_label)
    yield _text(18, middle, chart.y_label, transform=f"rotate(-90 18 {middle:.1f})")
    for mark in y_axis.marks:
        y = y_axis.place(mark)
        yield f'<path d="M{_LEFT} {y:.1f}H{_WIDTH - _RIGHT}" stroke="#dddddd"/>'
        yield _text(_LEFT - 8, y + 4, rounded(mark), "end")
    for mark in x_axis.marks:
        x = x_axis.place(mark)
        yield f'<path d="M{x:.1f} {_HEIGHT - _BOTTOM}v5" stroke="#000000"/>'
        yield _text(x, _HEIGHT - _BOTTOM + 19, rounded(mark, 6))
    yield f'<path d="M{_LEFT} {_TOP}V{_HEIGHT - _BOTTOM}H{_WIDTH - _RIGHT}" fill="none" stroke="#000000"/>'
    yield from _lines(chart, x_axis, y_axis, colours)


def _lines(chart, x_axis, y_axis, colours):
    placed = {name: [(x_axis.place(x), y_axis.place(y)) for x, y in sorted(line)] for name, line in chart.lines.items()}
    labels = spread([line[-1][1] for line in placed.values()], _LABEL_HEIGHT)
    for (name, line), label in reversed(list(zip(placed.items(), labels))):  # the first line is to lie above all others
        colour = colours[name]
        path = "L".join(f"{x:.1f} {y:.1f}" for x, y in line)
        dashes = ' stroke-dasharray="6 4"' if name.startswith("floor") else ""
        yield f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="2"{dashes}/>'
        for x, y in line:
            yield f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>'
        x, y = line[-1]
        yield (f'<path d="M{x + 4:.1f} {y:.1f}L{_WIDTH - _RIGHT + 8} {label:.1f}" fill="none" stroke="{colour}" '
               'stroke-width="0.6"/>')
        yield _text(_WIDTH - _RIGHT + 11, label + 4, name, "start", fill=colour)
