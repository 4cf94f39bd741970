"""What the reports share: their arguments, and line plots as SVG."""
import argparse
import json
from math import log
from typing import Callable, NamedTuple

PANEL_W, PANEL_H, LEFT, TOP, GAP_X, GAP_Y = 330, 210, 70, 70, 90, 80


class Axis(NamedTuple):
    """`ticks`: the values that get a label, and the labels. `scale`: log, or float: linear."""
    low: float
    high: float
    ticks: dict
    name: str = ""
    scale: Callable = log

    def position(self, value, size):
        low, high = self.scale(self.low), self.scale(self.high)
        value = self.scale(min(max(value, self.low), self.high))
        return size * (value - low) / (high - low)


def corner(row, column):
    """The upper left corner of a panel's axes."""
    return LEFT + column * (PANEL_W + GAP_X), TOP + row * (PANEL_H + GAP_Y)


def panel(place, title, across, up, lines, dots=False):
    """`lines`: pairs of a colour and its points."""
    x, y = place

    def at(point):
        return (x + across.position(point[0], PANEL_W),
                y + PANEL_H - up.position(point[1], PANEL_H))

    out = [f'<text x="{x}" y="{y - 12}" class="title">{title}</text>']
    for tick, label in up.ticks.items():
        _, py = at((across.low, tick))
        out.append(f'<line x1="{x}" y1="{py:.1f}" x2="{x + PANEL_W}" y2="{py:.1f}" class="grid"/>'
                   f'<text x="{x - 8}" y="{py + 4:.1f}" class="left">{label}</text>')
    for tick, label in across.ticks.items():
        px, _ = at((tick, up.low))
        out.append(f'<text x="{px:.1f}" y="{y + PANEL_H + 18}" class="under">{label}</text>')
    out.append(f'<text x="{x + PANEL_W / 2}" y="{y + PANEL_H + 36}" class="under">'
               f'{across.name}</text>')
    for colour, points in lines:
        places = [at(point) for point in points]
        path = " ".join(f"{px:.1f},{py:.1f}" for px, py in places)
        out.append(f'<polyline points="{path}" stroke="{colour}" class="line"/>')
        if dots:
            out += [f'<circle cx="{px:.1f}" cy="{py:.1f}" r="3.5" fill="{colour}"/>'
                    for px, py in places]
    return out


def write_svg(name, rows, legend, body):
    """Two panels in each of the rows; `legend`: pairs of a title and its colour."""
    width = LEFT + 2 * PANEL_W + GAP_X + 30
    height = TOP + rows * (PANEL_H + GAP_Y)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
           "<style>.title{font-weight:bold}.left{text-anchor:end}.under{text-anchor:middle}"
           ".grid{stroke:#d1d5db}.line{fill:none;stroke-width:2}</style>",
           f'<rect width="{width}" height="{height}" fill="white"/>']
    for i, (title, colour) in enumerate(legend):
        x = LEFT + 130 * i
        out.append(f'<circle cx="{x + 5}" cy="21" r="5" fill="{colour}"/>'
                   f'<text x="{x + 16}" y="25">{title}</text>')
    with open(name, "w", encoding="ascii") as file:
        file.write("\n".join([*out, *body, "</svg>"]) + "\n")


def report(print_table, plot):
    """Both of the figures in the file that the arguments name, the plot only when it is wanted."""
    parser = argparse.ArgumentParser()
    parser.add_argument("figures")
    parser.add_argument("--svg")
    options = parser.parse_args()
    with open(options.figures, encoding="ascii") as file:
        figures = json.load(file)
    print_table(figures)
    if options.svg:
        plot(figures, options.svg)
