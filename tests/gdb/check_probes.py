#!/usr/bin/env python3
"""The static probes of a program with all of them: what the file tells, what the code has at their
places, and what they tell when they fire.

usage: check_probes.py notes|nops|fire|none PROGRAM READELF OBJDUMP GDB

Ends with 77 where gdb may not trace a process.
"""
import os
import re
import subprocess
import sys
import tempfile

CASE, PROGRAM, READELF, OBJDUMP, GDB = sys.argv[1:]
SKIPPED = 77

# How many arguments each probe has.
PROBES = {"alloc_fail": 2, "lock_wait": 2, "lock_got": 1, "file_open": 4, "file_close": 3,
          "file_sync": 3, "log_line": 2}


def output_of(*command, **more):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          stdin=subprocess.DEVNULL, timeout=100, **more).stdout


def notes():
    """Name, place and arguments of each probe in the file, and its semaphore."""
    text = output_of(READELF, "--notes", "--wide", PROGRAM)
    return re.findall(r"Provider: zynpsp\n\s*Name: (\w+)\n\s*Location: (0x[0-9a-f]+), Base: \S+ "
                      r"Semaphore: (0x[0-9a-f]+)\n\s*Arguments: (.*)", text)


def told():
    """All probes are there with their arguments, and no tool has to switch them on."""
    found = set()
    for name, _, semaphore, arguments in notes():
        found.add((name, len(arguments.split())))
        if int(semaphore, 16) != 0:
            return f"{name} has a semaphore"
    return "" if found == set(PROBES.items()) else f"{found} is not {PROBES}"


def none():
    """A build that was not asked for probes has nothing of them."""
    sections = output_of(READELF, "--sections", "--wide", PROGRAM)
    return "" if ".text" in sections and "stapsdt" not in sections else sections


def nops():
    """Nobody listens: each place is an instruction that does nothing."""
    for name, place, _, _ in notes():
        code = output_of(OBJDUMP, "--disassemble", "--no-show-raw-insn",
                         f"--start-address={place}", f"--stop-address={hex(int(place, 16) + 1)}",
                         PROGRAM)
        if not re.search(r"^\s*[0-9a-f]+:\s+nop$", code, re.M):
            return f"{name}: {code}"
    return "" if notes() else "no probe"


def fired(text):
    return [line for line in text.splitlines() if line.startswith("fired ")]


def fire():
    """gdb stops at each, and finds what the program says of it."""
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "probes.gdb")
    with tempfile.TemporaryDirectory() as folder:
        text = output_of(GDB, "-batch", "-nx", "-iex", "set auto-load no", "-iex",
                         "set debuginfod enabled off", "-iex", f"set args {folder} >expected",
                         "-x", script, PROGRAM, cwd=folder, env=dict(os.environ, SHELL="/bin/sh"))
        if re.search("ptrace: Operation not permitted|Could not trace the inferior", text):
            print("skipped: tracing a process is not permitted here")
            sys.exit(SKIPPED)
        with open(f"{folder}/expected") as file:
            expected = fired(file.read())
    names = {line.split()[1] for line in expected}
    if names != set(PROBES):
        return f"the program made only {names} fire"
    return "" if fired(text) == expected else f"{expected}\nis what must fire, not\n{text}"


failure = {"notes": told, "nops": nops, "fire": fire, "none": none}[CASE]()
if failure:
    sys.exit(f"FAIL: {failure}")
