#!/usr/bin/env python3
"""Tests of bench/report.py, on a run made up here and on the recorded one. Run at the project's root.
usage: report_test.py [TEST_CLASS]"""

import contextlib
import copy
import io
import json
import math
import pathlib
import re
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ET

sys.path.insert(0, "bench")
import report  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"


def entry(name, sides, **more):
    """A row as the benchmark writes it; a side is (low, median, high)."""
    row = {"name": f"{name}/iterations:1", "label": "ns/call", "real_time": 1.0, **more}
    for side, (low, median, high) in sides.items():
        row |= {side: median, f"{side}:low": low, f"{side}:high": high, f"{side}:min": low / 2}
    return row


RUN = {
    "context": {"date": "2026-01-02T03:04:05+00:00", "num_cpus": 3, "host_name": "somewhere"},
    "benchmarks": [
        entry("fam/quick <row>", {"psp": (9.0, 10.0, 12.0), "peer": (30.0, 40.0, 80.0)},
              **{"ratio:peer": 0.25, "goal:peer": 0.5, "ratio:best peer": 0.25}),
        entry("fam/slow row", {"psp": (18.0, 20.0, 21.0), "other": (4.0, 5.0, 6.0)},
              **{"ratio:other": 4.0, "goal:other": 1.0, "ratio:best peer": 4.0}),
        entry("fam/alone", {"psp": (1.0, 2.0, 3.0)}, **{"goal:itself": 1.5}),
        *(entry(f"size/of {text} things", {"psp": (n / 2, n, 2.0 * n), "peer": (n, 3.0 * n, 4.0 * n)})
          for text, n in (("1 k", 1000), ("10", 10), ("100", 100))),
        entry("size/with 2 in 3", {"psp": (1.0, 1.0, 1.0)}),
        {"name": "fam/broken/iterations:1", "error_occurred": True, "error_message": "no disk"},
    ],
}


def pictures(run):
    rows = [report.Row(row) for row in run["benchmarks"] if "error_message" not in row]
    return {(family, kind): ET.fromstring(picture)
            for family, kind, picture in report.charts(rows)}


def texts(picture):
    return [node.text for node in picture.iter(f"{SVG}text")]


class Charts(unittest.TestCase):
    def test_each_dot_stands_where_its_median_beside_the_librarys_puts_it(self):
        chart = pictures(RUN)["fam", "peers"]
        ticks = {}
        for node in chart.iter(f"{SVG}text"):
            if node.get("text-anchor") == "middle":
                parts = [float(part) for part in node.text.split("/")]
                ticks[parts[0] / parts[1] if len(parts) == 2 else parts[0]] = float(node.get("x"))
        step = (ticks[4] - ticks[1]) / 2  # of one doubling
        dots = {node[0].text: float(node.get("cx")) for node in chart.iter(f"{SVG}circle") if len(node)
                and node[0].text}
        for title, ratio in (("peer: 40.0 ns/call, 4.00 of the library", 4),
                             ("other: 5.00 ns/call, 0.25 of the library", 0.25),
                             ("psp: 10.0 ns/call, 1.00 of the library", 1)):
            self.assertAlmostEqual(dots[title], ticks[1] + step * math.log2(ratio), delta=0.2)

    def test_each_bar_reaches_from_the_lower_to_the_upper_quartile(self):
        chart = pictures(RUN)["fam", "peers"]
        ticks = {node.text: float(node.get("x")) for node in chart.iter(f"{SVG}text")
                 if node.get("text-anchor") == "middle"}
        step = (ticks["4"] - ticks["1"]) / 2
        bars = [(float(node.get("x1")), float(node.get("x2"))) for node in chart.iter(f"{SVG}line")
                if node.get("stroke-opacity")]
        expected = (ticks["1"] + step * math.log2(3), ticks["1"] + step * 3)
        self.assertTrue(any(abs(a - expected[0]) < 0.2 and abs(b - expected[1]) < 0.2
                            for a, b in bars), (expected, bars))

    def test_a_chart_names_rows_sides_and_figures_and_leaves_out_rows_without_a_peer(self):
        shown = texts(pictures(RUN)["fam", "peers"])
        for text in ("quick <row>", "slow row", "psp", "peer", "other", "10.0 ns/call"):
            self.assertIn(text, shown)
        self.assertNotIn("alone", shown)

    def test_rows_that_differ_in_size_alone_are_one_series_in_order_of_size(self):
        chart = pictures(RUN)["size", "growth"]
        self.assertIn("of N things (ns/call)", texts(chart))
        lines = [[float(point.split(",")[0]) for point in node.get("points").split()]
                 for node in chart.iter(f"{SVG}polyline")]
        self.assertEqual(len(lines), 2)
        for places in lines:
            self.assertEqual(places, sorted(places))
            self.assertAlmostEqual(places[1] - places[0], places[2] - places[1], delta=0.2)

    def test_a_family_without_a_series_has_no_chart_of_growth(self):
        self.assertNotIn(("fam", "growth"), pictures(RUN))


class Page(unittest.TestCase):
    def setUp(self):
        self.page = report.page(RUN)

    def test_it_needs_nothing_beside_itself(self):
        self.assertEqual(re.findall(r'(?:src|href)\s*=|url\(|@import|<script|<link', self.page), [])
        self.assertEqual(set(re.findall(r"https?:[^\"' <]*", self.page)),
                         {"http://www.w3.org/2000/svg"})

    def test_every_row_side_and_goal_is_in_a_table(self):
        for cell in ("quick &lt;row&gt;", "peer 40.0", "10.0 (9.00 to 12.0)", "0.25 of peer (0.50)",
                     "4.00 of other (1.00) missed", "2.00 (1.50) missed", "with 2 in 3"):
            self.assertIn(cell, self.page)

    def test_it_says_what_was_reached_and_what_was_not_measured(self):
        self.assertIn("Measured on 2026-01-02 on 3 processors. 7 rows; in 1 of the 2 that have a peer",
                      self.page)
        self.assertIn("1 of 3 goals are reached. Not measured: broken (no disk).", self.page)

    def test_a_row_that_cannot_be_drawn_is_named_or_left_out_of_the_chart(self):
        rows = [entry("fam/without us", {"peer": (1.0, 2.0, 3.0)}),
                *(entry(f"fam/of {n} things", {"psp": (1.0, 2.0, 3.0)}) for n in (0, 1, 10, 100))]
        made = report.page({**RUN, "benchmarks": rows})
        self.assertIn("Not measured: without us (no figures).", made)
        self.assertIn("of 0 things", made)
        self.assertEqual(made.count("<svg"), 1)

    def test_a_run_without_a_row_says_so(self):
        with tempfile.NamedTemporaryFile() as empty, self.assertRaises(SystemExit) as stop:
            report.main([empty.name, "page.html"])
        self.assertIn("no row was measured", str(stop.exception))

    def test_all_its_pictures_are_well_formed(self):
        found = re.findall(r"<svg.*?</svg>", self.page, re.DOTALL)
        self.assertEqual(len(found), 3)
        for picture in found:
            ET.fromstring(picture)


class Record(unittest.TestCase):
    def recorded(self, run):
        with tempfile.TemporaryDirectory() as scratch:
            report.record(copy.deepcopy(run), pathlib.Path(scratch))
            return {str(path.relative_to(scratch)): path.read_text()
                    for path in pathlib.Path(scratch).rglob("*") if path.is_file()}

    def test_the_documents_pictures_are_drawn_from_the_recorded_figures(self):
        made = self.recorded(json.loads(pathlib.Path("docs/performance.json").read_text()))
        for name, content in made.items():
            self.assertEqual(pathlib.Path("docs", name).read_text(), content, name)
        kept = {f"pictures/{path.name}"
                for path in pathlib.Path("docs/pictures").glob("performance-*.svg")}
        self.assertEqual(kept | {"pictures/allocators.svg"}, set(made) - {"performance.json"})

    def test_each_picture_is_shown_on_a_page(self):
        pages = "".join(path.read_text() for path in pathlib.Path("docs").glob("*.md"))
        for picture in pathlib.Path("docs/pictures").glob("*.svg"):
            self.assertIn(f"](pictures/{picture.name})", pages)

    def test_the_record_has_the_figures_and_not_the_machine(self):
        recorded = json.loads(self.recorded({**RUN, "benchmarks": RUN["benchmarks"][:2]})
                              ["performance.json"])
        self.assertNotIn("host_name", recorded["context"])
        self.assertEqual(recorded["benchmarks"][0]["peer:high"], 80.0)
        self.assertNotIn("real_time", recorded["benchmarks"][0])

    def test_anything_but_the_two_forms_is_answered_with_the_usage(self):
        with self.assertRaises(SystemExit) as stop, contextlib.redirect_stderr(io.StringIO()):
            report.main(["--record", "one"])
        self.assertIn("usage:", str(stop.exception))


if __name__ == "__main__":
    unittest.main(verbosity=2)
