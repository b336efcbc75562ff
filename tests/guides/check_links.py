#!/usr/bin/env python3
"""Looks whether the links between the pages of the repository lead anywhere.

usage: check_links.py DIRECTORY PAGE...
  DIRECTORY   the repository; pages are named from there

A link to a place outside is not followed. One within must name a file or directory that exists
below DIRECTORY, and behind '#' one of the headings of that page. So must what stands alone between
backticks and begins with a directory of the repository: `scripts/test`.
"""
import re
import sys
import urllib.parse
from pathlib import Path

import markdown

PLACES = re.compile(r"(?:bench|cmake|docs|examples|scripts|source|tests)/[\w./-]+")
OUTSIDE = re.compile(r"[a-z][a-z0-9+.-]*:", re.I)


def broken(root, page):
    """Yields what is wrong with the links of one page."""
    text = (root / page).read_text()
    for line, target in markdown.links(text):
        if OUTSIDE.match(target):
            continue
        path, _, anchor = urllib.parse.unquote(target).partition("#")
        file = ((root / page).parent / path).resolve() if path else root / page
        if not file.is_relative_to(root) or not file.exists():
            yield f"{page}:{line}: {target}: there is no such file"
        elif anchor and (file.suffix != ".md" or
                         anchor not in markdown.anchors(file.read_text())):
            yield f"{page}:{line}: {target}: there is no such heading"
    for line, span in markdown.code_spans(text):
        if PLACES.fullmatch(span) and not (root / span).exists():
            yield f"{page}:{line}: {span}: there is no such file"


def main():
    root = Path(sys.argv[1]).resolve()
    found = [problem for page in sys.argv[2:] for problem in broken(root, page)]
    print("\n".join(found) or f"{len(sys.argv) - 2} pages: every link leads somewhere")
    sys.exit(bool(found))


if __name__ == "__main__":
    main()
