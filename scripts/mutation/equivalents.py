"""The changes known to make no difference, each with the reason.

An entry of equivalent.txt names a file and the function, the line before and after the change, and
says why nothing can tell the two apart:

    file.cpp function
    - line before
    + line after
    reason, on as many lines as it takes

Numbers of lines play no part, so an entry outlives changes elsewhere in the file.
"""
import sys

from . import scan


def key(change):
    return change["file"], change["function"], change["old"], change["new"]


def load(path):
    """The reason of each entry, by key."""
    known = {}
    text = "\n".join(line for line in path.read_text().split("\n") if not line.startswith("#"))
    for entry in filter(None, (part.strip() for part in text.split("\n\n"))):
        where, old, new, *reason = entry.split("\n")
        file, function = where.split()
        if not (old.startswith("- ") and new.startswith("+ ") and reason):
            raise SystemExit(f"{path}: not an entry:\n{entry}")
        known[file, function, old[2:], new[2:]] = " ".join(reason)
    return known


def report_stale(known, sources):
    """Names the entries for changes that the sources do not offer any more."""
    offered = {key(change | {"file": file})
               for file, text in sources.items() for change in scan.changes(text)}
    for entry in known:
        if entry[0] in sources and entry not in offered:
            print("stale in equivalent.txt:", *entry[:2], "|", entry[2], file=sys.stderr)
