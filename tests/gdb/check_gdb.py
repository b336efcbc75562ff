#!/usr/bin/env python3
"""The gdb commands of scripts/gdb/zynpsp.py, held against what a process knows of itself.

usage: check_gdb.py GDB COMMANDS PROGRAM CASE

Ends with 77 where gdb may not trace a process.
"""
import os
import re
import subprocess
import sys
import tempfile

GDB, COMMANDS, PROGRAM, CASE = sys.argv[1:]
SKIPPED = 77

failures = []


def expect(condition, text):
    if not condition:
        failures.append(text)


def gdb(folder, *commands, program=(PROGRAM,), checked=True):
    """What gdb's commands print; the program's own output lies in the file `facts`."""
    settings = ["set debuginfod enabled off", "set width 0",
                "set breakpoint pending on", f"source {COMMANDS}"]
    arguments = [GDB, "-batch", "-nx", "-iex", "set auto-load no"]
    for command in [*settings, *commands]:
        arguments += ["-ex", command]
    environment = dict(os.environ, LC_ALL="C.UTF-8", SHELL="/bin/sh", MALLOC_ARENA_MAX="1")
    result = subprocess.run([*arguments, *program], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment,
                            text=True, cwd=folder, timeout=100)
    text = result.stdout
    if re.search("ptrace: Operation not permitted|Could not trace the inferior", text):
        print("skipped: tracing a process is not permitted here")
        sys.exit(SKIPPED)
    if checked and result.returncode != 0:
        failures.append(f"gdb ended with {result.returncode}:\n{text}")
    return text


def started(*kind):
    """The commands that bring the program to the point where all is set up."""
    return ["break scene_ready", f"run . {' '.join(kind)} </dev/null >facts"]


def shown(text):
    """The tables in what gdb printed: rows as lists, by the first heading."""
    tables, rows = {}, None
    for line in text.splitlines():
        cells = re.split(r"\s{2,}", line.strip())
        if cells[0] in ("tag", "mutex", "event", "file", "stream", "output") and len(cells) > 2:
            rows = tables.setdefault(cells[0], [])
        elif rows is not None and len(cells) > 2:
            rows.append(cells)
        else:
            rows = None
    return tables


def facts_of(folder):
    with open(f"{folder}/facts") as file:
        return [line.split() for line in file]


def by_place(rows):
    return {row[0]: row[1:] for row in rows}


# ---- What one look must show ----


def check_tags(text, facts):
    rows = by_place(shown(text)["tag"])
    jump = next(fact[1] for fact in facts if fact[0] == "jump")
    told = {fact[1]: fact for fact in facts if fact[0] == "tag"}
    expect(sorted(told) == ["block", "legacy", "list", "stack"], f"facts: {told}")
    keeps = {"block": 3, "list": 2, "stack": 1, "legacy": 0}
    for kind, (_, _, place, blocks, *bytes_) in told.items():
        pairs = [f"{bytes_[i]}/{bytes_[i + 1]}" for i in (0, 2, 4)]
        pairs[keeps[kind]:] = ["-"] * (3 - keeps[kind])
        row = rows.get(place)
        expected = ["-", kind, "-" if kind == "stack" else blocks, *pairs]
        expect(row and row[:6] == expected, f"{kind} tag: {row} is not {expected}")
        expect(row and row[6] == ("free" if kind == "block" else "-"), f"mutex: {row}")
        expect(row and row[7] == (jump if kind == "list" else "-"), f"jump buffer: {row}")
    names = sorted(row[0] for row in rows.values())
    expect(names == ["-"] * 4 + ["files", "global", "log", "records", "stderr", "stdout"],
           f"names: {names}")
    expect("held" not in [row[6] for row in rows.values()], f"no tag's mutex is held: {rows}")
    expect(re.search(r"^Chunks of all tags together: [1-9]\d*/[1-9]\d* bytes, no limit\.$", text,
                     re.M), "no line about all chunks")


def check_locks(text, facts):
    tables = shown(text)
    held = by_place(tables["mutex"])
    lwp = {fact[1]: (fact[2], fact[3], fact[4]) for fact in facts if fact[0] == "lock"}
    numbers = {}
    for name in ("outer", "inner"):
        place, depth, thread = lwp[name]
        row = held.get(place)
        match = row and re.fullmatch(r"thread (\d+) \(LWP (\d+)\)", row[2])
        expect(match and row[:2] == ["-", depth] and match[2] == thread,
               f"mutex {name}: {row}, not {lwp[name]}")
        numbers[name] = match[1] if match else "?"
    expect(held[lwp["outer"][0]][3] == f"thread {numbers['inner']}", f"who waits: {held}")
    expect(held[lwp["inner"][0]][3] == "-", f"nobody waits for the inner one: {held}")
    globals_ = [row for row in held.values() if row[0] == "named globals"]
    expect(len(globals_) == 1 and globals_[0][1] == "1" and
           globals_[0][2].startswith(f"thread {numbers['outer']} "), f"own lock: {globals_}")
    expect(len(held) == 3 and "Deadlock" not in text, f"held: {text}")
    events = by_place(tables["event"])
    places = {fact[1]: fact[2] for fact in facts if fact[0] == "event"}
    expect(events == {places["gate"]: ["cleared", f"thread {numbers['outer']}"],
                      places["open_gate"]: ["signalled", "-"]}, f"events: {events}")


def check_streams(text, facts):
    tables = shown(text)
    files, streams = by_place(tables["file"]), by_place(tables["stream"])
    file = {fact[1]: fact[2] for fact in facts if fact[0] == "file"}
    stream = {fact[1]: fact[2] for fact in facts if fact[0] == "stream"}
    name = "a-name-that-has-as-many-bytes-as-a-record-has--"
    expect(files[file["data"]][1:] == ["read and write, no sync", "-", "data"], f"data: {files}")
    expect(files[file["record"]][1:] == ["write, append", "-", name], f"record: {files}")
    descriptors = sorted(int(row[0]) for row in files.values())
    expect(descriptors == list(range(1, 8)), f"descriptors: {descriptors}")
    names = {row[3]: row for row in files.values()}
    expect(sorted(names) == sorted(["data", name, "text", "scene.lines", "scene.log", "stdout",
                                    "stderr"]), f"files: {sorted(names)}")
    expect(names["stdout"][0] == "1" and names["stderr"][0] == "2", f"standard: {names}")
    expect(names["text"][2] == stream["text"], f"file of a stream: {names['text']}")
    expect(streams[stream["text"]] == ["UTF16", "22", "6 bytes to write", "text"],
           f"written: {streams}")
    expect(streams[stream["lines"]] ==
           ["UTF8", "1", "12 bytes to read, 1 pushed back", "scene.lines"], f"read: {streams}")
    expect(len(streams) == 5, f"streams: {streams}")
    log = names["scene.log"][2]
    expect(tables["output"] == [
        ["stdout", "top", names["stdout"][2], "stdout"],
        ["stderr", "top", names["stderr"][2], "stderr"],
        ["log", "top", log, "scene.log"],
        ["log", "below", "-", "-"],
        ["log", "below", log, "scene.log"]], f"stacks: {tables['output']}")


CHECKS = {"tags": check_tags, "locks": check_locks, "streams": check_streams}


# ---- The cases ----


def look(name):
    def run(folder):
        text = gdb(folder, *started(), f"psp {name}")
        CHECKS[name](text, facts_of(folder))
        expect("damaged" not in text, text)
    return run


def core(folder):
    looks = [f"psp {name}" for name in CHECKS]
    alive = gdb(folder, *started(), "generate-core-file core", "echo ----\\n", *looks)
    dead = gdb(folder, "echo ----\\n", *looks, program=(PROGRAM, "core"))
    facts = facts_of(folder)
    for check in CHECKS.values():
        check(dead, facts)
    expect(alive.split("----\n")[1] == dead.split("----\n")[1], f"{alive}\nis not\n{dead}")


def attached(folder):
    with open(f"{folder}/facts", "w") as out:
        process = subprocess.Popen([PROGRAM, folder], stdin=subprocess.PIPE, stdout=out)
    try:
        while not os.path.exists(f"{folder}/scene.log") or len(facts_of(folder)) < 13:
            if process.poll() is not None:
                sys.exit(f"the process ended with {process.returncode}")
        text = gdb(folder, *[f"psp {name}" for name in CHECKS],
                   program=("-p", str(process.pid)))
        for check in CHECKS.values():
            check(text, facts_of(folder))
        expect(process.poll() is None, "the process did not survive the look at it")
    finally:
        process.stdin.close()
        process.wait()


def damage(folder):
    """Records that contradict each other end a list, and nothing else."""
    text = gdb(folder, *started(),
               # The list of tags: a link leads nowhere.
               "set language c++",
               "set var $log = '(anonymous namespace)::g_psp_log_stack'.tag",
               "set var $block = $log->t_next",
               "set var $list = $block->t_next",
               "set var $stack = $list->t_next",
               "set var $list->t_next = (TAG_ENTRY*)8",
               "set var tagGlobal->t_sem->obj.m.id = 1", "psp tags", "echo ----\\n",
               "set var $list->t_next = $stack", "set var tagGlobal->t_sem->obj.m.id = 0",
               # A chunk's length, a tag's allocator, a tag that comes again.
               "set var $chunk = ((BLOCK_ALLOCATOR_ENTRY*)$block->t_allocator)->chunks",
               "set var ((long*)$chunk)[-1] = 77",
               "set var $row = ((LIST_ALLOCATOR_ENTRY*)$list->t_allocator)->chunks",
               "set var $next = $row->next", "set var $row->next = $row",
               "set var $stack->t_fcns.alloc_fcn = 0", "psp tags", "echo ----\\n",
               "set var $row->next = $next", "set var ((LIST_HDR*)($row + 1))->size = 1 << 20",
               "psp tags", "echo ----\\n",
               # An object of no kind, a level of a stack that leads nowhere.
               "set var sem_table[0].entry[5].type = 99",
               "set var '(anonymous namespace)::g_psp_log_stack'.root->next = "
               "(PSP_FILE_ENTRY*)16",
               "psp locks", "psp streams")
    facts = facts_of(folder)
    place = {fact[1]: fact[2] for fact in facts if fact[0] == "tag"}
    link, records, row, others = text.split("----\n")
    expect(len(shown(link)["tag"]) == 10 and "damaged: the list of tags: " in link,
           f"the list is to be followed from both ends: {link}")
    held = [row[1] for row in shown(link)["tag"] if row[7] == "held"]
    expect(held == ["global"], f"held: {held}")
    rows = by_place(shown(records)["tag"])
    expect(rows[place["block"]][2] == "0+" and rows[place["list"]][2].endswith("+") and
           rows[place["stack"]][1] == "?" and rows[place["legacy"]][2] == "200",
           f"damaged tags: {rows}")
    for kind, reason in (("block", "the chunk at 0x.* has lost its length"), ("list", "comes to 0x.* again"),
                         ("stack", "it has no allocator of a known kind")):
        expect(re.search(f"damaged: tag {place[kind]}: .*{reason}", records), f"{kind}: {records}")
    expect(re.search(f"damaged: tag {place['list']}: .* reaches out of its chunk", row), row)
    expect(re.search("damaged: object 0x[0-9a-f]+: it is of kind 99", others), others)
    expect(len(shown(others)["mutex"]) == 3, f"the other mutexes: {others}")
    expect("damaged: output stack log: " in others and len(shown(others)["output"]) == 3 and
           "scene.lines" in others,
           f"the other stacks: {others}")


def deadlock(folder):
    text = gdb(folder, *started("deadlocked"), "psp locks")
    held = by_place(shown(text)["mutex"])
    place = {fact[1]: fact[2] for fact in facts_of(folder) if fact[0] == "lock"}
    one, other = (re.match(r"thread (\d+)", held[place[name]][2])[0] for name in ("outer", "inner"))
    expect(held[place["outer"]][3] == other and held[place["inner"]][3] == one, f"{held}")
    ways = re.findall("^Deadlock: (.*)\\.$", text, re.M)
    expect(ways in ([f"{one} waits for {other} waits for {one}"],
                    [f"{other} waits for {one} waits for {other}"]), text)


def nothing_there(folder):
    looks = [f"psp {name}" for name in CHECKS]
    for kind, answer in (((), "There is no process and no core dump to look at."),
                         (("unstarted",), "libzynpsp-14 is loaded but not started"),
                         (("stopped",), "libzynpsp-14 is loaded but not started")):
        text = gdb(folder, *(started(*kind) if kind else []), *looks, checked=False)
        expect(text.count(answer) == len(looks) and "Traceback" not in text, f"{kind}: {text}")
    text = gdb(folder, "catch syscall exit_group", "run", *looks, program=("/bin/true",),
               checked=False)
    expect(text.count("libzynpsp-14 is not loaded") == len(looks), text)


def usage(folder):
    text = gdb(folder, *[f"psp {name} everything" for name in CHECKS], checked=False)
    helps = gdb(folder, *[f"help psp {name}" for name in CHECKS], "help psp")
    for name in CHECKS:
        expect(text.count(f"usage: psp {name}\n") == 1, text)
        expect(helps.count(f"usage: psp {name}\n") == 1, helps)
        expect(re.search(f"^psp {name} -- .+\\.$", helps, re.M), helps)


CASES = {"core": core, "attached": attached, "damage": damage, "deadlock": deadlock,
         "nothing": nothing_there, "usage": usage, **{name: look(name) for name in CHECKS}}

with tempfile.TemporaryDirectory() as folder:
    CASES[CASE](folder)
for failure in failures:
    print(f"FAIL: {failure}")
sys.exit(1 if failures else 0)
