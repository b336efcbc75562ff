"""gdb commands that show what libzynpsp-14 keeps: `psp tags`, `psp locks` and `psp streams`.

    (gdb) source scripts/gdb/zynpsp.py
    (gdb) help psp

They only read memory and call nothing in the program, so that they work on a stopped process and on
a core dump alike. The records are read through the library's debug information; what is damaged is
named, and the rest is shown.
"""

import re
import struct

import gdb

class Damage(Exception):
    """A record that contradicts itself or its neighbours."""


# What reading damaged records may end in.
UNREADABLE = (Damage, gdb.MemoryError, gdb.error, OverflowError, ValueError)


# ---- Memory and records ----


def read_bytes(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, size))


def read_words(layout, address):
    """The fields at an address, packed as `layout` tells (see struct)."""
    return struct.unpack(layout, read_bytes(address, struct.calcsize(layout)))


LONGEST_TEXT = 4096


def read_text(pointer):
    """A path or a name; bytes that are no text are shown by their numbers."""
    place, raw = int(pointer), b""
    if place == 0:
        return "-"
    while b"\0" not in raw and len(raw) < LONGEST_TEXT:
        raw += read_bytes(place + len(raw), 16 - (place + len(raw)) % 16)  # never across pages
    text = raw.split(b"\0")[0].decode("utf-8", "backslashreplace")
    return "".join(c if c.isprintable() else repr(c)[1:-1] for c in text)


def has(pointer):
    """Whether a pointer or a handle leads anywhere."""
    return int(pointer) not in (0, 2**64 - 1)


def shown(pointer):
    return hex(int(pointer)) if has(pointer) else "-"


def chain(first, link, back=None):
    """The records of a list from its first on. Damage when it does not lead back, or not end."""
    before, record, seen = 0, first, set()
    while int(record):
        address = int(record)
        if address in seen:
            raise Damage(f"the list comes to {hex(address)} again")
        seen.add(address)
        if back and int(record[back]) != before:
            raise Damage(f"{hex(address)} does not lead back to {hex(before)}")
        yield record
        before, record = address, record[link]


def pair(info):
    """A counter of bytes: now, and at most so far."""
    return f"{int(info['current'])}/{int(info['max'])}"


class Report:
    """A table on the terminal, and what could not be read for it."""

    def __init__(self, *headings):
        self.rows = [headings]
        self.notes = []

    def add(self, *cells):
        self.rows.append([str(cell) for cell in cells])

    def note(self, place, error):
        self.notes.append(f"damaged: {place}: {error}")

    def show(self, nothing):
        if len(self.rows) == 1:
            gdb.write(nothing + "\n")
        else:
            self.show_rows()
        for note in self.notes:
            gdb.write(note + "\n")

    def show_rows(self):
        widths = [max(len(row[i]) for row in self.rows) for i in range(len(self.rows[0]))]
        numbers = [all(re.fullmatch(r"-|\d+(/\d+)?|\d+\+|\?", cell) for cell in column) and
                   set(column) != {"-"} for column in zip(*self.rows[1:])]
        for row in self.rows:
            cells = [cell.rjust(width) if number else cell.ljust(width)
                     for cell, width, number in zip(row, widths, numbers)]
            gdb.write("  ".join(cells).rstrip() + "\n")


# ---- The library ----


class Library:
    """The library's variables in the process or core dump that gdb looks at."""

    def __init__(self):
        if gdb.selected_inferior().pid == 0:
            raise gdb.GdbError("There is no process and no core dump to look at.")
        for self.objfile in gdb.objfiles():
            if self.objfile.lookup_global_symbol("static_list_tag"):
                break
        else:
            raise gdb.GdbError("libzynpsp-14 is not loaded, or its debug information is missing.")
        if int(self["psp_inited"]) <= 0:
            raise gdb.GdbError("libzynpsp-14 is loaded but not started: psp_init has not run, "
                               "or psp_term has ended it.")

    def __getitem__(self, name):
        """A variable or function of any file of the library."""
        symbol = (self.objfile.lookup_global_symbol(name) or
                  self.objfile.lookup_static_symbol(f"(anonymous namespace)::{name}"))
        if symbol is None:
            raise gdb.GdbError(f"This libzynpsp-14 has no '{name}': take the commands "
                               "that belong to it.")
        return symbol.value()

    def record(self, name, address):
        """The record of a type at an address."""
        return gdb.Value(int(address)).cast(gdb.lookup_type(name).pointer())

    def address(self, name):
        return int(self[name].address)

    def stacks(self):
        for name in ("stdout", "stderr", "log"):
            yield name, self[f"g_psp_{name}_stack"]

    def file_tag(self):
        """The tag of all file handles, a named global; None before the first file."""
        for i in range(int(self["psp_globals_num"])):
            entry = self["psp_globals_list"][i]
            if read_text(entry["name"]) == "pspfile":
                return self.record("PSP_FILE_GLOBALS", entry["data"])["fileTag"]
        return None


# ---- Tags and their blocks ----

CLASSES = [16 << i for i in range(10)]


def block_cut(payload):
    """How a chunk of a block tag is cut, by its bytes behind the header: size and number of the
    blocks. No length is cut in two ways, and most are not that of any chunk: None."""
    if payload > CLASSES[-1] and (payload - 8) % 32 == 0:
        return payload - 8, 1
    for size in CLASSES:
        count = payload // (size + 8)
        if count * (size + 8) == payload and count in (2, 4, 8, 16, 32, 64, 128):
            return size, count
    return None


def blocks_of_block_tag(allocator):
    """Address and requested size of each block in use: its header has both its sizes, where that
    of a free block has a link, whose upper half is no size of a block."""
    for chunk in chain(allocator["chunks"], "next", "prev"):
        address = int(chunk)
        (whole,) = read_words("<Q", address - 8)
        cut = block_cut(whole - 8 - 16)
        if not cut:
            raise Damage(f"the chunk at {hex(address)} has lost its length")
        size, count = cut
        step = size + 8
        raw = read_bytes(address + 16, (count - 1) * step + 8)
        for i in range(count):
            requested, actual = struct.unpack_from("<II", raw, i * step)
            if actual == size and requested <= size:
                yield address + 16 + i * step + 8, requested
            elif count == 1:
                raise Damage(f"the block at {hex(address + 24)} has lost its size")


def blocks_of_list_tag(allocator):
    """The same, by the row of blocks in each chunk."""
    for chunk in chain(allocator["chunks"], "next", "prev"):
        place = int(chunk) + 32
        end = place + int(chunk["size"])
        while place != end:
            size, marks = read_words("<II", place)
            if place + 16 + size > end:
                raise Damage(f"the block at {hex(place + 16)} reaches out of its chunk")
            if marks & 1 == 0:
                yield place + 16, size
            place += 16 + size


def blocks_of_legacy_tag(allocator):
    """The same, by the list of all blocks; their sizes are nowhere."""
    for header in chain(allocator["a_first"], "next", "prev"):
        yield int(header) + 16, None


# The record of each kind of allocator, which counters it keeps, and how its blocks are found: those
# of a stack tag have no headers.
ALLOCATORS = {
    "block": ("BLOCK_ALLOCATOR_ENTRY", ("used", "free", "overhead"), blocks_of_block_tag),
    "list": ("LIST_ALLOCATOR_ENTRY", ("used", "free"), blocks_of_list_tag),
    "stack": ("STACK_ALLOCATOR_ENTRY", ("used",), None),
    "legacy": ("LEGACY_ALLOCATOR_ENTRY", (), blocks_of_legacy_tag),
}


def allocator_of(library, tag):
    """Its kind, and its record."""
    function = int(tag["t_fcns"]["alloc_fcn"])
    for kind, (record, _, _) in ALLOCATORS.items():
        if function == library.address(f"{kind}_allocator_alloc"):
            return kind, library.record(record, tag["t_allocator"])
    raise Damage("it has no allocator of a known kind")


def blocks_of(library, tag):
    kind, allocator = allocator_of(library, tag)
    return ALLOCATORS[kind][2](allocator)


def count_blocks(library, tag):
    """How many blocks are in use, with a '+' when damage kept from counting on, and the damage."""
    count = 0
    try:
        for _ in blocks_of(library, tag):
            count += 1
    except UNREADABLE as error:
        return f"{count}+", error
    return str(count), None


def all_tags(library, report):
    """The tag of the tags' records, then all others in the order of their creation. Beyond damage
    the list is followed from its end."""
    yield library["static_list_tag"].address
    seen = []
    try:
        for tag in chain(library["taglisthead"], "t_next", "t_prev"):
            seen.append(int(tag))
            yield tag
    except UNREADABLE as error:
        report.note("the list of tags", error)
        rest = []
        try:
            for tag in chain(library["taglisttail"], "t_prev", "t_next"):
                if int(tag) in seen:
                    break
                rest.append(tag)
        except UNREADABLE as error_behind:
            report.note("the list of tags from its end", error_behind)
        yield from reversed(rest)


def tag_names(library):
    """The library's own tags by their addresses."""
    names = {library.address("static_list_tag"): "records", int(library["tagGlobal"]): "global"}
    try:
        names |= {int(stack["tag"]): name for name, stack in library.stacks()}
        names[int(library.file_tag() or 0)] = "files"
    except UNREADABLE:
        pass  # what has no name is shown without
    return names


def state_of(mutex):
    if not has(mutex):
        return "-"
    return "held" if int(mutex["obj"]["m"]["id"]) else "free"


def show_tags(library):
    report = Report("tag", "name", "kind", "blocks", "used/most", "free/most", "overhead/most",
                    "mutex", "jumps to")
    names = tag_names(library)
    for tag in all_tags(library, report):
        address = int(tag)
        name = names.get(address, "-")
        try:
            kind, allocator = allocator_of(library, tag)
            kept, find = ALLOCATORS[kind][1:]
            count, error = count_blocks(library, tag) if find else ("-", None)
            counters = [pair(allocator["mem_info"][c]) if c in kept else "-"
                        for c in ("used", "free", "overhead")]
            report.add(hex(address), name, kind, count, *counters, state_of(tag["t_sem"]),
                       shown(tag["t_jmpbuf"]))
        except UNREADABLE as unreadable:
            error = unreadable
            report.add(hex(address), name, *"???????")
        if error:
            report.note(f"tag {hex(address)}", error)
    report.show("There is no tag.")
    limit = int(library["psp_memlimit"])
    gdb.write(f"Chunks of all tags together: {pair(library['psp_mem_stats'])} bytes, "
              f"{f'limit {limit}' if limit else 'no limit'}.\n")


# ---- Threads ----

FUTEX = 202  # the system call that locks and events sleep in


class Threads:
    """The threads of the process: who has which thread pointer, who sleeps where, and who waits
    for whom."""

    def __init__(self):
        self.by_pointer, self.by_lwp, self.asleep, self.awaited = {}, {}, [], {}
        selected = gdb.selected_thread()
        frame = gdb.selected_frame()
        for thread in gdb.selected_inferior().threads():
            try:
                self.add(thread)
            except gdb.error:
                pass  # it runs, or its registers were not kept
        selected.switch()
        frame.select()

    def add(self, thread):
        self.by_lwp[thread.ptid[1]] = thread
        thread.switch()
        frame = gdb.newest_frame()
        self.by_pointer[int(frame.read_register("fs_base")) % 2**64] = thread
        if int(frame.read_register("orig_rax")) == FUTEX:
            self.asleep.append((int(frame.read_register("rdi")) % 2**64, thread.num))

    def sleepers(self, place, size):
        """The numbers of those who sleep in an object of so many bytes."""
        return sorted(n for address, n in self.asleep if place <= address < place + size)

    def held(self, mutex, pointer):
        """Who holds a mutex and who waits for it: by the id that the library keeps, 0 for a mutex
        without one, or by the one of the system."""
        lwp = int(mutex["__data"]["__owner"])
        holder = self.by_pointer.get(pointer) or self.by_lwp.get(lwp)
        waiting = self.sleepers(int(mutex.address), mutex.type.sizeof)
        if not holder:
            return f"LWP {lwp}, which is no thread any more", named(waiting)
        self.awaited |= {number: holder.num for number in waiting}
        return f"thread {holder.num} (LWP {holder.ptid[1]})", named(waiting)

    def circles(self):
        """Threads that wait for each other, in the order of their waiting."""
        seen = set()
        for number in self.awaited:
            way = []
            while number in self.awaited and number not in seen:
                seen.add(number)
                way.append(number)
                number = self.awaited[number]
            if number in way:
                yield way[way.index(number):] + [number]


def named(numbers):
    return ", ".join(f"thread {number}" for number in numbers) or "-"


# ---- Locks ----

FREE, MUTEX, EVENT = 0, 1, 2


def all_objects(library, report):
    """The synchronisation objects that are in use, block after block of the table."""
    table = library["sem_table"]
    for i in range(table.type.range()[1] + 1):
        slot = table[i]
        if not has(slot["entry"]):
            return
        for j in range(int(slot["untouched"])):
            entry = slot["entry"] + j
            try:
                if int(entry["avail"]) == -2:
                    yield entry
            except UNREADABLE as error:
                report.note(f"block {i} of the table", error)
                break


def lock_names(library):
    """What the library's own locks guard, and those of tags and files."""
    names = {}

    def name(handle, text):
        if has(handle):
            names[int(handle)] = text

    name(library["tagTabSem"], "list of tags")
    name(library["largeBlockSem"], "large blocks")
    name(library["psp_globals_sem"], "named globals")
    for stack_name, stack in library.stacks():
        name(stack["sem"], f"output stack {stack_name}")
    known = tag_names(library)
    for tag in all_tags(library, Report()):
        try:
            name(tag["t_sem"], f"tag {known.get(int(tag), hex(int(tag)))}")
        except UNREADABLE:
            pass
    for file in open_files(library, Report()).values():
        try:
            name(file["lock"], f"file {read_text(file['name'])}")
        except UNREADABLE:
            pass
    return names


def show_locks(library):
    mutexes = Report("mutex", "guards", "depth", "holder", "waiting")
    events = Report("event", "state", "waiting")
    threads = Threads()
    names = lock_names(library)
    for variable, guards in (("globalMutex", "start and stop"), ("semTabMutex", "table of locks")):
        mutex = library[variable]
        if int(mutex["__data"]["__owner"]):
            mutexes.add(shown(mutex.address), guards, 1, *threads.held(mutex, 0))
    number = {MUTEX: 0, EVENT: 0}
    for entry in all_objects(library, mutexes):
        place = int(entry)
        try:
            kind = int(entry["type"])
            if kind not in number:
                raise Damage(f"it is of kind {kind}")
            number[kind] += 1
            if kind == EVENT:
                event = entry["obj"]["e"]
                waiting = threads.sleepers(place, event["cond"].type.sizeof)
                events.add(hex(place), "signalled" if int(event["flag"]) else "cleared",
                           named(waiting))
            elif int(entry["obj"]["m"]["id"]):
                held = entry["obj"]["m"]
                mutexes.add(hex(place), names.get(place, "-"), int(held["count"]),
                            *threads.held(held["mutex"], int(held["id"])))
        except UNREADABLE as error:
            mutexes.note(f"object {hex(place)}", error)
    mutexes.show("No mutex is held.")
    for circle in threads.circles():
        gdb.write("Deadlock: " + " waits for ".join(f"thread {n}" for n in circle) + ".\n")
    events.show("There is no event.")
    gdb.write(f"In use: {number[MUTEX]} mutexes, {number[EVENT]} events.\n")


# ---- Files, streams and output stacks ----


def found_blocks(library, tag, record, report, place):
    """The blocks of a tag that were asked for with the size of a record, as such records."""
    size = gdb.lookup_type(record).sizeof
    try:
        for address, requested in blocks_of(library, tag):
            if requested == size:
                yield library.record(record, address)
    except UNREADABLE as error:
        report.note(place, error)


def open_files(library, report):
    """The records of open files by their addresses. There is no list of them: they are those
    blocks of their tag that name one of the two kinds of files, which no name of a file does."""
    tag = library.file_tag()
    if tag is None or not has(tag):
        return {}
    kinds = {library.address("stdio_file_fcns"), library.address("normal_file_fcns")}
    return {int(file): file for file in found_blocks(library, tag, "PSPFTAB", report, "open files")
            if int(file["fcns"]) in kinds}


def open_streams(library, files, report):
    """The records of streams by the addresses of their files: those blocks of the global tag that
    lead to a cache, which is one that leads to an open file."""
    tag = library["tagGlobal"]
    caches = {int(cache) for cache in
              found_blocks(library, tag, "PSP_FILE_CACHE_CTX", report, "caches of streams")
              if int(cache["fh"]) in files}
    return {int(stream["fh"]["fh"]): stream for stream in
            found_blocks(library, tag, "PSP_FILE_CTX", report, "streams")
            if int(stream["fh"]) in caches}


ACCESS = ("read", "write", "read and write", "write")
APPEND = 0o2000
NOSYNC = 0x200


def access_of(file):
    flags = int(file["flags"])
    return (ACCESS[flags & 3] + (", append" if flags & APPEND else "") +
            (", no sync" if int(file["xflags"]) & NOSYNC else ""))


def encoding_of(stream):
    name = str(stream["fmode"]).removeprefix("PSP_FILE_MODE_")
    return name + (" swapped" if int(stream["swap"]) else "")


def buffered(stream):
    """What the cache holds between the stream and its file."""
    cache = stream["fh"]
    offset = int(cache["off"]) - int(cache["buff_off"])
    if int(cache["modified"]):
        return f"{offset} bytes to write"
    ahead = max(int(cache["bytes"]) - offset, 0)
    pushed = int(stream["pboff"])
    return f"{ahead} bytes to read" + (f", {pushed} pushed back" if pushed else "")


def add_row(report, place, cells):
    """A row of what `cells` gives, or a note why there is none."""
    try:
        report.add(hex(place), *cells())
    except UNREADABLE as error:
        report.note(hex(place), error)


def show_streams(library):
    files = Report("file", "descriptor", "open to", "stream", "name")
    streams = Report("stream", "encoding", "position", "buffered", "name")
    found = open_files(library, files)
    by_file = open_streams(library, found, streams)
    for place, file in found.items():
        stream = by_file.get(place)
        add_row(files, place, lambda: (int(file["handle"]), access_of(file),
                                       hex(int(stream)) if stream else "-",
                                       read_text(file["name"])))
    for place, stream in by_file.items():
        add_row(streams, int(stream), lambda: (
            encoding_of(stream), int(stream["fh"]["off"]), buffered(stream),
            read_text(found[place]["name"])))
    files.show("No file is open.")
    streams.show("No stream is open.")
    levels = Report("output", "level", "stream", "name")
    for name, stack in library.stacks():
        add_levels(levels, name, stack)
    levels.show("There is no output stack.")


def add_levels(report, name, stack):
    """The levels of an output stack, the one in use first. One without a stream swallows all."""
    try:
        depth = 0
        for depth, level in enumerate(chain(stack["root"], "next"), 1):
            info = level["info"]
            report.add(name, "top" if depth == 1 else "below", shown(info["file"]),
                       read_text(info["name"]))
        if depth == 0:
            report.add(name, "empty", "-", "-")
    except UNREADABLE as error:
        report.note(f"output stack {name}", error)


# ---- The commands ----


class PspCommand(gdb.Command):
    """What libzynpsp-14 keeps: memory tags, locks, files and streams.

The commands read memory and call nothing, so they work on a stopped process
and on a core dump. The library needs its debug information."""

    def __init__(self):
        super().__init__("psp", gdb.COMMAND_DATA, gdb.COMPLETE_NONE, True)


class ShowCommand(gdb.Command):
    """One command below psp; it takes no argument."""

    def __init__(self):
        super().__init__(f"psp {self.name}", gdb.COMMAND_DATA, gdb.COMPLETE_NONE)

    def invoke(self, argument, _):
        if argument.strip():
            raise gdb.GdbError(f"usage: psp {self.name}")
        try:
            type(self).show(Library())
        except UNREADABLE as error:
            raise gdb.GdbError(f"psp {self.name}: {error}")


class TagsCommand(ShowCommand):
    """List every memory tag with what its allocator keeps.
usage: psp tags

One line a tag, in the order of creation, bytes as NOW/MOST SO FAR:
  name         of the library's own: records (of tags and allocators), global,
               files, and the tags of the three output stacks; else '-'
  kind         block, list, stack or legacy
  blocks       in use, counted along the allocator's chunks; '-' for stack tags,
               whose blocks have no headers; '12+': 12 were found before damage
  used         bytes handed out; legacy tags count nothing
  free         block: bytes of idle blocks; list: bytes of all chunks
  overhead     block: headers and rounding; the others do not count it
  mutex        free or held ('psp locks' tells by whom); '-' in tags without one
  jumps to     the jump buffer of a failed allocation; '-': it gives NULL
A tag does not record where it was made. The last line tells the bytes of all
chunks, against which the limit is held; legacy tags have none."""

    name = "tags"
    show = staticmethod(show_tags)


class LocksCommand(ShowCommand):
    """List the mutexes that are held, with holder, depth and who waits; and all events.
usage: psp locks

  guards   what a lock of the library's own is for; '-' for a caller's mutex
  depth    how often its holder has entered it
  holder   gdb's number of the thread and the system's (LWP)
  waiting  gdb's numbers of the threads that sleep in the mutex or the event
An event is signalled, or cleared, which lets threads wait. Threads that wait
for each other's mutexes are named as a deadlock."""

    name = "locks"
    show = staticmethod(show_locks)


class StreamsCommand(ShowCommand):
    """List open files, streams, and the levels of the three output stacks.
usage: psp streams

  stream    the stream that a file belongs to; '-' for a file by itself
  position  of the stream in its file, in bytes
  buffered  bytes that the file has not seen, or that were read ahead
The library keeps no list of open files: they are found by their records among
the blocks of their tag, and streams in the same way. The streams of a log
context of the caller's are among them, its stacks are not."""

    name = "streams"
    show = staticmethod(show_streams)


PspCommand()
for command in (TagsCommand, LocksCommand, StreamsCommand):
    command()
