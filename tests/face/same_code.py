#!/usr/bin/env python3
"""Compares the machine code of pairs of functions: plain_NAME and face_NAME of one source must be
made of the same instructions, with the same calls, whether exceptions are on or off.

usage: same_code.py OBJDUMP INCLUDE_DIRECTORY SOURCE COMPILER...
"""
import collections
import re
import subprocess
import sys
import tempfile
from pathlib import Path

HEAD = re.compile(r"^[0-9a-f]+ <(\w+)(\.cold)?>:$")
INSTRUCTION = re.compile(r"^\s+[0-9a-f]+:\t(.*)$")
# A place within the function: how far from its start tells it, not its address in the file.
PLACE = re.compile(r"\b[0-9a-f]+ <\w+(?:\.cold)?(\+0x[0-9a-f]+)?>")
PADDING = re.compile(r"^(cs |data16 )*nop|^xchg +%ax,%ax")


def compiled(compiler, source, include, options):
    """The disassembly of a source, with the names that the linker will put in."""
    with tempfile.TemporaryDirectory() as scratch:
        objects = Path(scratch) / "pairs.o"
        subprocess.run([compiler, "-std=c++17", "-O2", *options, "-I", include, "-c", source, "-o",
                        objects], check=True)
        return subprocess.run([OBJDUMP, "-dr", "--no-show-raw-insn", objects], check=True,
                              stdout=subprocess.PIPE, text=True).stdout


def functions(listing):
    """name -> instructions, cold parts behind the hot one, places and padding evened out."""
    found = collections.defaultdict(list)
    name = None
    for line in listing.splitlines():
        head = HEAD.match(line)
        if head:
            name = head[1]
        elif line.strip() and name is not None:
            instruction = INSTRUCTION.match(line)
            text = PLACE.sub(r"<\1>", instruction[1] if instruction else line).split("#")[0].strip()
            # A relocation keeps its kind and its symbol; its place was told by the instruction.
            text = re.sub(r"^[0-9a-f]+: (R_\w+)\s+", r"\1 ", text)
            if not PADDING.match(text):
                found[name].append(re.sub(r"\s+", " ", text))
    return found


def differences(listing):
    """Yields a text for every pair that differs and every function that has no partner; returns
    the number of pairs."""
    found = functions(listing)
    names = {name.split("_", 1)[1] for name in found if name.startswith(("plain_", "face_"))}
    for name in sorted(names):
        plain, face = found.get(f"plain_{name}"), found.get(f"face_{name}")
        if plain is None or face is None:
            yield f"{name}: one of the pair is missing"
        elif plain != face:
            rows = "\n".join(f"    {a:50} {b}" for a, b in
                             zip(plain + [""] * (len(face) - len(plain)),
                                 face + [""] * (len(plain) - len(face))))
            yield f"{name}: plain (left) and face (right) differ\n{rows}"
    return len(names)


def main(include, source, compilers):
    failures = 0
    for compiler in compilers:
        for options in ([], ["-fno-exceptions", "-fno-rtti"]):
            listing = compiled(compiler, source, include, options)
            told = list(differences(listing))
            pairs = sum(name.startswith("plain_") for name in functions(listing))
            for text in told:
                print(f"{compiler} {' '.join(options)}: {text}")
            print(f"{compiler} {' '.join(options)}: {pairs} pairs, {len(told)} differ")
            failures += len(told) + (pairs == 0)
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    OBJDUMP = sys.argv[1]
    sys.exit(main(sys.argv[2], sys.argv[3], sys.argv[4:]))
