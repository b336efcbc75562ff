#!/usr/bin/env python3
"""Draws how the library is put together, from the table of layers in source/psp/README.md and from
what each source includes: a band a layer, and between two layers an arc that counts the files of the
one that use something of the other.
usage: architecture_picture.py SOURCE_DIRECTORY >docs/pictures/architecture.svg"""

import collections
import pathlib
import re
import sys

WIDTH, LEFT, RIGHT = 1000, 150, 790  # the picture; where the chips of a band begin and end
CHIP, LINE, GAP = 22, 28, 16  # heights of a chip and of a line of chips; space between bands
COLOURS = ["#5b6472", "#2f7d6d", "#2c6fa8", "#7a5ca8", "#a85c7a", "#b0702c", "#8f2f2f"]


class Layer:
    def __init__(self, number, name, files, what):
        self.number, self.name, self.files, self.what = number, name, files, what
        self.top = self.height = 0

    def centre(self):
        return self.top + self.height / 2


def read_layers(directory):
    rows = re.findall(r"^\| (\d) (\w+) \| (.*?) \| (.*?) \|$", (directory / "README.md").read_text(),
                      re.MULTILINE)
    return [Layer(int(number), name, re.findall(r"`([^`]+)`", files), what)
            for number, name, files, what in rows]


def read_functions(directory, layer_of):
    """header -> {public function that it declares: the layer of the source that defines it}."""
    definition = re.compile(r"^(?:[^\s#/][^\n;=]*\b|)(\w+)\([^;{]*\{", re.MULTILINE)
    defined = {name: layer_of[path.name] for path in directory.glob("*.cpp")
               for name in definition.findall(path.read_text())}
    functions = collections.defaultdict(dict)
    for row in (directory / "surface.txt").read_text().splitlines():
        if row.startswith("function"):
            _, name, _, header = row.split()
            functions[header][name] = defined[name]
    return functions


def read_uses(directory, layer_of, functions):
    """(from layer, to layer) -> {file: what it uses of that layer}: an internal header counts as
    such, a public one by the functions of it that the file names."""
    uses = collections.defaultdict(lambda: collections.defaultdict(list))
    for file, layer in sorted(layer_of.items()):
        text = (directory / file).read_text()
        called = set(re.findall(r"\b(\w+)\(", text))
        for header in re.findall(r'^#include "([^"]+)"', text, re.MULTILINE):
            used = {header: layer_of[header]} if header in layer_of else {
                name: other for name, other in functions[header].items() if name in called}
            for name, other in used.items():
                if other != layer:
                    uses[layer, other][file].append(name)
    return uses


def rows_of_chips(files):
    """Chips from left to right, a new line where the band ends: (x, line, width, name)."""
    x, line = LEFT, 0
    for name in files:
        width = 12 + 6.7 * len(name)
        if x + width > RIGHT:
            x, line = LEFT, line + 1
        yield x, line, width, name
        x += width + 6


def draw_layer(layer):
    colour = COLOURS[layer.number]
    yield (f'<rect x="8" y="{layer.top}" width="{RIGHT}" height="{layer.height}" rx="8" '
           f'fill="{colour}" fill-opacity="0.12" stroke="{colour}"><title>{layer.what}</title></rect>')
    yield (f'<text x="22" y="{layer.centre() + 6:g}" font-size="17" font-weight="bold" '
           f'fill="{colour}">{layer.number} {layer.name}</text>')
    for x, line, width, name in rows_of_chips(layer.files):
        y = layer.top + 8 + line * LINE
        yield (f'<rect x="{x:g}" y="{y}" width="{width:g}" height="{CHIP}" rx="4" fill="#fff" '
               f'stroke="{colour}" stroke-opacity="0.5"/>')
        yield (f'<text x="{x + 6:g}" y="{y + 15}" font-size="11" '
               f'font-family="monospace" fill="#222">{name}</text>')


def draw_use(origin, target, files):
    """An arc at the right edge; one that leads up is dashed."""
    up = target.number > origin.number
    span = abs(origin.number - target.number)
    shift = (origin.number - 3) * 3
    start, end = origin.centre() + shift, target.centre() + (origin.number - 3) * 5
    edge, bulge = RIGHT + 8, RIGHT + 20 + 26 * span
    names = "&#10;".join(f"{file}: {', '.join(headers)}" for file, headers in files.items())
    colour = "#c02020" if up else COLOURS[origin.number]
    dashes = ' stroke-dasharray="5 4"' if up else ""
    yield (f'<path d="M{edge} {start:g} C{bulge} {start:g} {bulge} {end:g} {edge} {end:g}" '
           f'fill="none" stroke="{colour}" stroke-width="{1 + len(files) / 4:g}" '
           f'stroke-opacity="0.75"{dashes} '
           f'marker-end="url(#head)"><title>{names}</title></path>')
    x = edge + (bulge - edge) * 0.75
    y = (start + end) / 2 + (4 if not up else -10)
    yield (f'<text x="{x:g}" y="{y:g}" font-size="11" text-anchor="middle" fill="{colour}" '
           f'stroke="#fff" stroke-width="3" paint-order="stroke">{len(files)}</text>')


def draw_caption(uses, y):
    """What the arcs mean, and in words the few that lead up."""
    up = [f"{file}: {', '.join(names)}" for (origin, target), files in sorted(uses.items())
          if target > origin for file, names in files.items()]
    lines = ["An arc counts the files of one layer that use something of another. Dashed, what goes up:",
             "; ".join(up)]
    for number, line in enumerate(lines):
        yield f'<text x="12" y="{y + 16 * (number + 1)}" font-size="12" fill="#444">{line}</text>'


def picture(directory):
    layers = {layer.number: layer for layer in read_layers(directory)}
    layer_of = {file: layer.number for layer in layers.values() for file in layer.files}
    uses = read_uses(directory, layer_of, read_functions(directory, layer_of))
    y = 8
    for number in sorted(layers, reverse=True):
        layer = layers[number]
        layer.top = y
        layer.height = 12 + LINE * (1 + max(line for _, line, _, _ in rows_of_chips(layer.files)))
        y += layer.height + GAP
    body = [line for number in sorted(layers, reverse=True) for line in draw_layer(layers[number])]
    for (origin, target), files in sorted(uses.items()):
        body += draw_use(layers[origin], layers[target], files)
    body += draw_caption(uses, y)
    bottom = y + 44
    return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {bottom}" \
font-family="sans-serif" role="img">
<title>The layers of the library and who uses whom</title>
<defs><marker id="head" viewBox="0 0 8 8" refX="7" refY="4" markerWidth="9" markerHeight="9"
markerUnits="userSpaceOnUse" orient="auto"><path d="M0 0L8 4L0 8z" fill="#444"/></marker></defs>
<rect width="{WIDTH}" height="{bottom}" fill="#fff"/>
{chr(10).join(body)}
</svg>
"""


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.stdout.write(picture(pathlib.Path(sys.argv[1])))
