#!/usr/bin/env python3
"""Draws a run of the benchmark: a page that needs nothing beside itself, with a chart a family
(medians and spread of the library and its peers), charts of how cost grows with size, and every
figure in a table.
usage: report.py RESULTS.json PAGE.html            the page
       report.py --record RESULTS.json DOCUMENTS   DOCUMENTS/performance.json, the figures alone,
                                                   and the charts in DOCUMENTS/pictures"""

import collections
import html
import json
import math
import pathlib
import re
import sys

LIBRARY = "psp"
LIBRARY_COLOUR = "#c0392b"
PEER_COLOURS = ["#2c6fa8", "#2f7d6d", "#b0702c", "#7a5ca8", "#5b6472", "#a85c7a", "#6b8e23",
                "#1f9bb5", "#8a6d3b", "#444444"]
SIZE = re.compile(r"(?<![\w%.])(\d+)(?: (k|M|B|KiB|MiB|bytes))?(?![\w.%])")
FACTORS = {"k": 1e3, "M": 1e6, "KiB": 2**10, "MiB": 2**20}


class Row:
    """One row of the benchmark: what each side took, as median and quartiles."""

    def __init__(self, entry):
        self.family, self.name = entry["name"].removesuffix("/iterations:1").split("/", 1)
        self.unit = entry.get("label", "")
        self.goals = {key[5:]: value for key, value in entry.items() if key.startswith("goal:")}
        self.ratios = {key[6:]: value for key, value in entry.items() if key.startswith("ratio:")}
        self.sides = {key[:-4]: (entry[key], entry[key[:-4]], entry[key[:-4] + ":high"])
                      for key in entry if key.endswith(":low")}
        self.error = None if LIBRARY in self.sides else entry.get("error_message") or "no figures"

    def median(self, side):
        return self.sides[side][1]

    def peers(self):
        return sorted(side for side in self.sides if side != LIBRARY)

    def size(self):
        """(name with the size left open, size, its text), when the name has exactly one number."""
        found = SIZE.findall(self.name)
        if len(found) != 1 or float(found[0][0]) == 0:  # which no axis of factors has
            return None
        number, unit = found[0]
        return (SIZE.sub("N", self.name), float(number) * FACTORS.get(unit, 1),
                f"{number} {unit}".strip())


def rounded(value):
    return f"{value:.2f}" if value < 10 else f"{value:.1f}" if value < 100 else f"{value:.0f}"


def text(x, y, content, anchor="start", size=12, colour="#222", extra=""):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" '
            f'fill="{colour}"{extra}>{html.escape(content)}</text>')


def line(x1, y1, x2, y2, colour, width=1.0, extra=""):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"{extra}/>')


def dot(x, y, colour, radius, title):
    return (f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{radius}" fill="{colour}">'
            f'<title>{html.escape(title)}</title></circle>')


def svg(width, height, body, title):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height:.0f}" '
            f'viewBox="0 0 {width} {height:.0f}" '
            f'font-family="sans-serif" role="img">\n<title>{html.escape(title)}</title>\n'
            f'<rect width="{width}" height="{height:.0f}" fill="#fff"/>\n'
            + "\n".join(body) + "\n</svg>\n")


def colours(rows):
    """A colour a side, the same in every chart of a family."""
    peers = sorted({side for row in rows for side in row.peers()})
    return {LIBRARY: LIBRARY_COLOUR,
            **{peer: PEER_COLOURS[i % len(PEER_COLOURS)] for i, peer in enumerate(peers)}}


def legend(shown, width, top):
    """The sides' names, as many lines as they need: (elements, height)."""
    body, x, y = [], 12.0, top
    for side, colour in shown.items():
        length = 26 + 7.2 * len(side)
        if x + length > width:
            x, y = 12.0, y + 18
        body += [dot(x + 5, y - 4, colour, 5, side), text(x + 15, y, side, size=12)]
        x += length
    return body, y - top + 18


class LogScale:
    """Places on an axis whose steps are equal factors."""

    def __init__(self, values, start, end, base):
        self.base = base
        self.low = math.floor(math.log(min(values), base) + 1e-9)
        self.high = max(math.ceil(math.log(max(values), base) - 1e-9), self.low + 1)
        self.start, self.end = start, end

    def at(self, value):
        share = (math.log(value, self.base) - self.low) / (self.high - self.low)
        return self.start + share * (self.end - self.start)

    def ticks(self, most):
        step = math.ceil((self.high - self.low + 1) / most)
        first = -(-self.low // step) * step  # a multiple of the step: 1 is always among them
        return [self.base ** exponent for exponent in range(first, self.high + 1, step)]


def comparison(family, rows):
    """Each row a line: the library at 1, its peers where their time stands beside it."""
    width, left, right, step = 960, 330, 930, 24
    shown = colours(rows)
    body, height = legend(shown, width, 48)
    top = 48 + height + 6
    bottom = top + step * len(rows)
    values = [value / row.median(LIBRARY) for row in rows
              for quartiles in row.sides.values() for value in quartiles]
    scale = LogScale(values + [1], left, right, 2)
    body += [text(12, 22, f"{family}: time beside the library's", size=15,
                  extra=' font-weight="bold"'),
             f'<rect x="{left}" y="{top}" width="{scale.at(1) - left:.1f}" '
             f'height="{bottom - top}" fill="#f6e3e0"/>']
    for value in scale.ticks(10):
        label = f"{value:g}" if value >= 1 else f"1/{1 / value:g}"
        body += [line(scale.at(value), top, scale.at(value), bottom,
                      LIBRARY_COLOUR if value == 1 else "#ddd"),
                 text(scale.at(value), bottom + 16, label, "middle", 11)]
    for number, row in enumerate(rows):
        y = top + step * (number + 0.5)
        own = row.median(LIBRARY)
        body += [text(12, y + 4, row.name),
                 text(left - 8, y + 4, f"{rounded(own)} {row.unit}", "end", 11, "#666")]
        for side in row.peers() + [LIBRARY]:
            low, median, high = (value / own for value in row.sides[side])
            title = f"{side}: {rounded(row.median(side))} {row.unit}, {median:.2f} of the library"
            body += [line(scale.at(low), y, scale.at(high), y, shown[side], 3,
                          ' stroke-opacity="0.45"'),
                     dot(scale.at(median), y, shown[side], 4 if side == LIBRARY else 5.5, title)]
    body.append(text(left, bottom + 34, "times the library's median; a dot is a median, its bar the "
                     "middle half of the batches; right of 1: slower", size=11, colour="#666"))
    return svg(width, bottom + 44, body, f"{family}: the library and its peers")


def panel(title, rows, shown, left, top):
    """One series: time against size, both axes by factors."""
    width, height = 380, 230
    x = LogScale([row.size()[1] for row in rows], left + 60, left + width, 10)
    y = LogScale([value for row in rows for quartiles in row.sides.values() for value in quartiles],
                 top + height, top + 24, 10)
    body = [text(left + 60, top + 10, f"{title} ({rows[0].unit})", extra=' font-weight="bold"')]
    for value in y.ticks(6):
        body += [line(left + 60, y.at(value), left + width, y.at(value), "#ddd"),
                 text(left + 54, y.at(value) + 4, f"{value:,.10g}", "end", 11)]
    for row in rows:
        body.append(text(x.at(row.size()[1]), top + height + 16, row.size()[2], "middle", 11))
    for side in [*rows[0].peers(), LIBRARY]:
        points = [row for row in rows if side in row.sides]
        band = [(x.at(row.size()[1]), y.at(row.sides[side][edge]))
                for edge, ordered in ((0, points), (2, points[::-1])) for row in ordered]
        body.append('<polygon points="' + " ".join(f"{a:.1f},{b:.1f}" for a, b in band) +
                    f'" fill="{shown[side]}" fill-opacity="0.2"/>')
        body.append('<polyline points="' + " ".join(
            f"{x.at(row.size()[1]):.1f},{y.at(row.median(side)):.1f}" for row in points) +
            f'" fill="none" stroke="{shown[side]}" stroke-width="2"/>')
        body += [dot(x.at(row.size()[1]), y.at(row.median(side)), shown[side], 4,
                     f"{side}, {row.size()[2]}: {rounded(row.median(side))} {row.unit}")
                 for row in points]
    return body


def series_of(rows):
    """Rows that differ in a size alone: three sizes at least, the largest ten times the smallest."""
    found = collections.defaultdict(list)
    for row in rows:
        if row.size():
            found[row.size()[0]].append(row)
    ordered = {name: sorted(members, key=lambda row: row.size()[1])
               for name, members in found.items() if len(members) >= 3}
    return {name: members for name, members in ordered.items()
            if members[-1].size()[1] >= 10 * members[0].size()[1]}


def growth(family, rows):
    """The family's series side by side; nothing when it has none."""
    series = series_of(rows)
    if not series:
        return None
    shown = colours([row for members in series.values() for row in members])
    width = 430 if len(series) == 1 else 840
    body, height = legend(shown, width, 48)
    body.append(text(12, 22, f"{family}: time against size", size=15, extra=' font-weight="bold"'))
    for number, (name, members) in enumerate(series.items()):
        body += panel(name, members, shown, 12 + 410 * (number % 2),
                      60 + height + 280 * (number // 2))
    lines = -(-len(series) // 2)
    return svg(width, 60 + height + 280 * lines, body, f"{family}: how the time grows")


# What the guide to memory compares: jobs, and for each the bars with their row and side.
ALLOCATORS = {
    "a block of 64 bytes, got and freed": [
        ("block tag", "mem/pair of 64 B", LIBRARY),
        ("the thread's own tag", "mem/pair of 64 B, thread tag", LIBRARY),
        ("block tag with a mutex", "mem/pair of 64 B, tag with a mutex", LIBRARY),
        ("malloc", "mem/pair of 64 B", "glibc")],
    "one of 100 k blocks of 64 bytes, got one by one and freed with their tag": [
        ("stack tag", "mem/100 k blocks, then their stack tag", LIBRARY),
        ("block tag", "mem/100 k blocks, then their block tag", LIBRARY),
        ("list tag", "mem/100 k blocks, then their list tag", LIBRARY)],
    "one of 10 k live blocks of 16 to 1024 bytes, replaced": [
        ("block tag", "mem/random sizes, 10 k live", LIBRARY),
        ("list tag", "best fit/list tag, 10 k live", LIBRARY),
        ("malloc", "mem/random sizes, 10 k live", "glibc")],
}


def allocators(rows):
    """What a block costs by allocator, as bars; nothing when a row was not measured."""
    known = {f"{row.family}/{row.name}": row for row in rows}
    bars = [bar for job in ALLOCATORS.values() for bar in job]
    if any(row not in known or side not in known[row].sides for _, row, side in bars):
        return None
    width, left, right, step = 840, 190, 700, 22
    longest = max(known[row].median(side) for _, row, side in bars)
    body = [text(12, 22, "A block by allocator: nanoseconds", size=15, extra=' font-weight="bold"')]
    y = 32
    for job, members in ALLOCATORS.items():
        y += 26
        body.append(text(12, y, job, extra=' font-weight="bold"'))
        for label, row, side in members:
            y += step
            low, median, high = known[row].sides[side]
            end = left + (right - left) * median / longest
            colour = LIBRARY_COLOUR if side == LIBRARY else PEER_COLOURS[0]
            body += [text(left - 8, y, label, "end"),
                     f'<rect x="{left}" y="{y - 12:.1f}" width="{end - left:.1f}" height="15" '
                     f'fill="{colour}"><title>{html.escape(row)}: {rounded(median)} ns, the middle '
                     f'half {rounded(low)} to {rounded(high)}</title></rect>',
                     text(end + 6, y, rounded(median), size=11)]
    return svg(width, y + 20, body, "What a block costs by allocator")


def table(rows):
    """Every figure of a family."""
    lines = ["<table><tr><th>row</th><th>unit</th><th>library</th><th>peers</th><th>goals</th></tr>"]
    for row in rows:
        peers = ", ".join(f"{side} {rounded(row.median(side))}" for side in row.peers())
        reached = {goal: row.median(LIBRARY) if goal == "itself" else row.ratios[goal]
                   for goal in row.goals}
        goals = "; ".join(
            f"{rounded(reached[goal])}{'' if goal == 'itself' else ' of ' + goal} "
            f"({rounded(limit)}){' missed' if reached[goal] > limit else ''}"
            for goal, limit in sorted(row.goals.items()))
        low, median, high = row.sides[LIBRARY]
        cells = [row.name, row.unit, f"{rounded(median)} ({rounded(low)} to {rounded(high)})",
                 peers, goals]
        lines.append("<tr>" + "".join(f"<td>{html.escape(cell)}</td>" for cell in cells) + "</tr>")
    return "\n".join(lines) + "</table>"


PAGE = """<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>libzynpsp-14: performance</title><style>
body {{ font-family: sans-serif; max-width: 62rem; margin: 2rem auto; padding: 0 1rem;
  color: #222; background: #fff }}
svg {{ max-width: 100%; height: auto; margin: 0.5rem 0 }}
table {{ border-collapse: collapse; font-size: 0.8rem }}
td, th {{ border: 1px solid #ddd; padding: 0.2rem 0.5rem; text-align: left; vertical-align: top }}
</style></head><body>
<h1>libzynpsp-14: performance</h1>
<p>{summary}</p>
{sections}
</body></html>
"""


def summary(context, rows, failed):
    ahead = sum(round(row.ratios.get("best peer", 2), 2) <= 1 for row in rows)
    beside = sum("best peer" in row.ratios for row in rows)
    missed = sum(row.median(LIBRARY) > limit if goal == "itself" else row.ratios[goal] > limit
                 for row in rows for goal, limit in row.goals.items())
    goals = sum(len(row.goals) for row in rows)
    words = (f"Measured on {context['date'][:10]} on {context['num_cpus']} processors. "
             f"{len(rows)} rows; in {ahead} of the {beside} that have a peer the library is the "
             f"quickest or level. {goals - missed} of {goals} goals are reached.")
    if failed:
        words += " Not measured: " + "; ".join(f"{row.name} ({row.error})" for row in failed) + "."
    return html.escape(words)


def charts(rows):
    """(family, kind, picture) of everything there is to draw, in the order of the rows."""
    families = collections.defaultdict(list)
    for row in rows:
        families[row.family].append(row)
    for family, members in families.items():
        compared = [row for row in members if row.peers()]
        if compared:
            yield family, "peers", comparison(family, compared)
        grown = growth(family, members)
        if grown:
            yield family, "growth", grown


def page(run):
    everything = [Row(entry) for entry in run["benchmarks"]]
    rows = [row for row in everything if not row.error]
    drawn = list(charts(rows))
    sections = []
    for family in dict.fromkeys(row.family for row in rows):
        sections.append(f"<h2>{html.escape(family)}</h2>")
        sections += [picture for owner, _, picture in drawn if owner == family]
        sections.append(table([row for row in rows if row.family == family]))
    failed = [row for row in everything if row.error]
    return PAGE.format(summary=summary(run["context"], rows, failed), sections="\n".join(sections))


def figures_of(run):
    """The run without what only the machine's owner cares for; four digits are more than hold."""
    def kept(key):
        return key in ("name", "label", "error_message") or key[-4:] == ":low" or key[-5:] == ":high" or \
            key.startswith(("ratio:", "goal:")) or f"{key}:low" in entry

    benchmarks = []
    for entry in run["benchmarks"]:
        benchmarks.append({key: float(f"{value:.4g}") if isinstance(value, float) else value
                           for key, value in entry.items() if kept(key)})
    context = {key: run["context"][key] for key in ("date", "num_cpus")}
    return {"context": context, "benchmarks": benchmarks}


def record(run, documents):
    figures = figures_of(run)
    rows = ",\n".join(json.dumps(entry, ensure_ascii=False) for entry in figures["benchmarks"])
    (documents / "performance.json").write_text(
        f'{{"context": {json.dumps(figures["context"])},\n"benchmarks": [\n{rows}\n]}}\n')
    (documents / "pictures").mkdir(exist_ok=True)
    for family, kind, picture in charts([Row(entry) for entry in figures["benchmarks"]]):
        name = f"performance-{family.replace(' ', '-')}-{kind}.svg"
        (documents / "pictures" / name).write_text(picture)
    drawn = allocators([Row(entry) for entry in figures["benchmarks"]])
    if drawn:
        (documents / "pictures/allocators.svg").write_text(drawn)


def main(arguments):
    recording = arguments[:1] == ["--record"]
    if len(arguments) != (3 if recording else 2):
        sys.exit(__doc__)
    results, output = map(pathlib.Path, arguments[-2:])
    figures = results.read_text()
    if not figures:
        sys.exit(f"{results} is empty: no row was measured")
    run = json.loads(figures)
    if recording:
        record(run, output)
    else:
        output.write_text(page(run))


if __name__ == "__main__":
    main(sys.argv[1:])
