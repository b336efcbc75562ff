"""Chooses the changes to make: the same ones for the same seed and sources."""
import random

from . import scan

LEAST = 3  # changes a file


def candidates(name, text, seed):
    """All changes to one file in the order of trial: by chance, the kinds by turns."""
    chance = random.Random(f"{seed}:{name}")
    by_kind = {}
    for change in scan.changes(text):
        by_kind.setdefault(change["kind"], []).append(change | {"file": name})
    for of_kind in by_kind.values():
        chance.shuffle(of_kind)
    order = []
    kinds = sorted(by_kind)
    while any(by_kind.values()):
        chance.shuffle(kinds)
        order += [by_kind[kind].pop() for kind in kinds if by_kind[kind]]
    return order


def apply(text, change):
    """The source with the change in it."""
    lines = text.split("\n")
    index = change["line"] - 1
    lines[index] = lines[index].replace(change["old"], change["new"])
    return "\n".join(lines)


def quotas(sizes, count, seed):
    """How many changes each file gets: in proportion to its size, but LEAST at least; one each for
    some of the files when there are too few for that."""
    if count < LEAST * len(sizes):
        chance = random.Random(seed)
        drawn = sorted(sizes, key=lambda name: chance.random() ** (1 / sizes[name]), reverse=True)
        share, more = divmod(count, len(sizes))
        return {name: share + (rank < more) for rank, name in enumerate(drawn)}
    total = sum(sizes.values())
    least = {name: max(LEAST, int(count * size / total)) for name, size in sizes.items()}
    by_size = sorted(sizes, key=sizes.get, reverse=True)
    while sum(least.values()) != count:  # rounding, and what small files got above their share
        step = 1 if sum(least.values()) < count else -1
        for name in by_size:
            if sum(least.values()) != count and least[name] + step >= LEAST:
                least[name] += step
    return least


def plan(sources, count, seed):
    """Yields for each chosen file the number of changes and the changes to draw them from."""
    sizes = {name: sum(1 for _ in scan.code_lines(text)) for name, text in sources.items()}
    for name, quota in sorted(quotas(sizes, count, seed).items()):
        if quota > 0:
            yield name, quota, candidates(name, sources[name], seed)


def all_of(sources, wanted):
    """The same for all changes that are wanted."""
    for name, text in sorted(sources.items()):
        found = [change | {"file": name} for change in scan.changes(text)]
        found = [change for change in found if wanted(change)]
        if found:
            yield name, len(found), found
