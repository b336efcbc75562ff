#!/usr/bin/env python3
"""Compiles and runs the code blocks of pages of Markdown.

usage: run_blocks.py [option...] PAGE...
  --check              runs nothing, only reads the pages
  --tree DIRECTORY     the repository; pages are named from there (the one this program lies in)
  --library DIRECTORY  where libzynpsp-14.so is (the tree's build/test)
  --clone              works in a fresh clone of the tree and reads the pages there; programs are
                       linked with the library that their commands build, in build/release
  --leave-out COMMAND  does not run this line of the `sh` blocks, which must be there exactly once
  --limit SECONDS      of one block (60)
CC and CXX name the compilers.

The word behind a block's fence says what happens to it:
  c, cpp   is compiled as C11 or C++17 with all warnings as errors, linked with the shared
           library and run. With a function `main` it is a whole program. Without, it is the body of
           one: the usual headers and psp.h (psp.hpp too in C++) stand before it, psp_init() is
           called ahead of it and psp_term() behind it. Its own `#include`s move to the front.
  sh       is run by bash, and ends at the first command that fails. The blocks of a page are one
           terminal: directory and exported variables carry over. But for --clone, $ZYNPSP is the
           repository, and compilers find headers and library: `cc x.c -lzynpsp-14`.
  text     is what the block right before it must print to standard output, if nothing but one line
           of prose that ends in ":" lies between; a line "..." stands for any lines. Elsewhere it
           is not looked at.
  console  and the other words of SHOWN are for reading: commands that take minutes or need other
           machines, pictures, layouts.
Any other word is an error, and so is a block that is only indented: it has no word.

A second word is a file name: `c rows.c`. Such a block is saved under that name for the `sh` blocks
behind it, one of which must name the file or its directory's build; a program is compiled, too, to
see that it can be, but not run.

The blocks of a page run in order in one fresh directory that is empty but for what they write.
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

import markdown

PROGRAMS = {"c": ("CC", "cc", "c11"), "cpp": ("CXX", "c++", "c++17")}
SHOWN = {"text", "console", "cmake", "json", "mermaid", "gdb"}
WARNINGS = ["-Wall", "-Wextra", "-Werror"]
# Extensions of C, functions within functions above all, are looked for apart: the same switch would
# forbid flags of formats that the library has and C has not.
STRICT = ["-fsyntax-only", "-Wpedantic", "-Werror", "-Wno-format"]
HEADERS = ["assert", "errno", "fcntl", "stdarg", "stdio", "stdlib", "string"]
MAIN = re.compile(r"\bint\s+main\s*\(")
INCLUDE = re.compile(r"\s*#\s*include\b")


class Failure(Exception):
    """A block that is not what the page says; the text tells where and how."""


def check(blocks):
    """What can be said of a page without running it."""
    for number, block in enumerate(blocks):
        if block.word not in {"sh"} | SHOWN | PROGRAMS.keys():
            raise Failure(f"{block.where}: a block of the kind {block.word!r}, which is not known")
        if not block.file:
            continue
        if block.word == "sh" or "/" in block.file:
            raise Failure(f"{block.where}: a block is not saved as {block.file!r}")
        if block.file == "CMakeLists.txt":
            used = re.compile(r"\bcmake\b")
        else:
            used = re.compile(rf"(?<![\w.]){re.escape(block.file)}(?![\w.])")
        if not any(later.word in {"sh", "cmake"} and used.search(later.text)
                   for later in blocks[number + 1:]):
            raise Failure(f"{block.where}: no later block does anything with {block.file}")


def program(block):
    """The source to compile, its lines numbered as in the page."""
    def marked(line):
        return f'#line {line} "{block.page}"\n'
    if MAIN.search(block.text):
        return marked(block.line) + block.text
    front = "".join(f"#include <{header}.h>\n" for header in HEADERS) + '#include "psp.h"\n'
    if block.word == "cpp":
        front += '#if __has_include("psp.hpp")\n#include "psp.hpp"\n#endif\n'
    body = ""
    for number, line in enumerate(block.lines, block.line):
        if INCLUDE.match(line):
            front += marked(number) + line + "\n"
            line = ""
        body += line + "\n"
    return (f"{front}int main(void) {{\nif (psp_init() != sOKAY) return 1;\n{{\n"
            f"{marked(block.line)}{body}}}\npsp_term();\nreturn 0;\n}}\n")


def printed_as_expected(output, expected):
    """Whether the output is what the lines say, where "..." is any number of lines."""
    pattern = b"".join(rb"(?:[^\n]*\n)*?" if line == "..." else re.escape(f"{line}\n".encode())
                       for line in expected)
    return re.fullmatch(pattern, output) is not None


class Runner:
    """A fresh directory and what a page's blocks leave behind in it."""

    def __init__(self, options, scratch):
        self.options = options
        self.scratch = scratch
        for name in "home", "tmp", "program", "shell":
            (scratch / name).mkdir()
        self.directory = scratch / "page"
        self.left_out = []
        self.environment = os.environ | {
            "HOME": str(scratch / "home"), "TMPDIR": str(scratch / "tmp"), "LC_ALL": "C.UTF-8"}

    def begin(self):
        """Makes the directory, empty or a clone, which then counts as the tree."""
        if self.options.clone:
            clone(self.options.tree, self.directory)
            self.options.tree = self.directory
            self.options.library = self.directory / "build/release"
            return
        self.directory.mkdir()
        self.environment |= {"ZYNPSP": str(self.options.tree),
                             "CPATH": f"{self.options.tree}/include",
                             "LIBRARY_PATH": str(self.options.library),
                             "LD_LIBRARY_PATH": str(self.options.library)}

    def turn_page(self):
        """A new page is a new terminal."""
        for name in "variables", "directory":
            (self.scratch / "shell" / name).unlink(missing_ok=True)

    def _call(self, block, command, doing, **further):
        """Runs a command without a terminal, in a process group of its own, which ends with it."""
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT if doing == "compile" else
                                   subprocess.PIPE, preexec_fn=os.setsid, **further)
        try:
            output, errors = process.communicate(timeout=self.options.limit)
            if process.returncode == 0:
                return output
            how = f"exit status {process.returncode}"
            if process.returncode < 0:
                how = f"signal {-process.returncode}"
        except subprocess.TimeoutExpired:
            how = f"no end after {self.options.limit} seconds"
            os.killpg(process.pid, signal.SIGKILL)
            output, errors = process.communicate()
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        shown = "".join(text.decode(errors="replace") for text in (output, errors or b""))
        raise Failure(f"{block.where}: does not {doing}: {how}\n{shown}")

    def _compile(self, block):
        variable, usual, standard = PROGRAMS[block.word]
        source = self.scratch / "program" / f"block_{block.line}.{block.word}"
        source.write_text(program(block))
        target = source.with_suffix("")
        compiler = [os.environ.get(variable, usual), f"-std={standard}", source,
                    f"-I{self.options.tree}/include"]
        if block.word == "c":
            self._call(block, compiler + STRICT, "compile", cwd=self.options.tree)
        self._call(block, compiler + WARNINGS + [
            "-g", "-o", target, f"-L{self.options.library}", "-lzynpsp-14", "-lm", "-pthread"],
            "compile", cwd=self.options.tree)
        return target

    def _script(self, block):
        """One line that takes up where the block before ended, then the block, line by line where
        the page has it: what bash says of a line is right."""
        text = block.text
        for command in self.options.leave_out:
            line = re.compile(rf"^{re.escape(command)}[ \t]*(?:#.*)?$", re.M)
            text, times = line.subn(":", text)
            if times:
                print(f"{block.where}: {command}: left out")
                self.left_out += times * [command]
        state = self.scratch / "shell"
        resume = ""
        if (state / "variables").exists():
            resume = f'. {state}/variables; cd "$(<{state}/directory)"; '
        keep = f"export -p >{state}/variables; pwd >{state}/directory"
        report = f'printf "%s:%s: %s\\n" {block.page} "$LINENO" "$BASH_COMMAND" >&2'
        front = f"set -euo pipefail; {resume}trap '{keep}' EXIT; trap '{report}' ERR; "
        return front + "\n" * (block.line - 1) + text

    def run(self, block):
        """Runs one block, or saves it, and holds its output against what the page says."""
        if block.file:
            (self._current() / block.file).write_text(block.text)
            if block.word in PROGRAMS:
                self._compile(block)
            return
        if block.word in PROGRAMS:
            command = [self._compile(block)]
        elif block.word == "sh":
            script = self.scratch / "shell" / Path(block.page).name
            script.write_text(self._script(block))
            command = ["bash", script]
        else:
            return
        directory = self.directory if block.word == "sh" else self._current()
        print(f"{block.where}: {block.word}: ", end="", flush=True)
        try:
            output = self._call(block, command, "run", cwd=directory, env=self.environment | (
                {} if block.word == "sh" else {"LD_LIBRARY_PATH": str(self.options.library)}))
        except Failure:
            print("fails", flush=True)
            raise
        if block.expected and not printed_as_expected(output, block.expected.lines):
            print("prints something else", flush=True)
            raise Failure(f"{block.where}: prints\n{output.decode(errors='replace')}"
                          f"{block.expected.where}: but is said to print\n{block.expected.text}")
        print("runs and prints what is said" if block.expected else "runs", flush=True)

    def _current(self):
        """Where the page's terminal is."""
        told = self.scratch / "shell/directory"
        return Path(told.read_text().rstrip("\n")) if told.exists() else self.directory


def git(tree, *arguments, **further):
    return subprocess.run(["git", "-C", tree, *arguments], stdout=subprocess.PIPE, **further)


def is_repository(tree):
    """Whether git reads the tree, and not one that the tree is a part of."""
    if not shutil.which("git"):
        return False
    way_up = git(tree, "rev-parse", "--show-cdup", stderr=subprocess.DEVNULL)
    return way_up.returncode == 0 and not way_up.stdout.strip()


def clone(tree, target):
    """What somebody gets who fetches the repository, with the changes not yet committed to it.
    Where there is none, a copy without what builds left."""
    if not is_repository(tree):
        def built(directory, names):
            return [name for name in names if Path(directory) == tree and name.startswith("build")]
        shutil.copytree(tree, target, symlinks=True, ignore=built)
        print("a copy of the tree: git does not know it")
        return
    git(tree, "clone", "--quiet", tree, target, check=True)
    changes = git(tree, "diff", "--binary", "HEAD", check=True).stdout
    if changes:
        git(target, "apply", input=changes, check=True)
        print("a clone with the changes that are not committed")


def main():
    home = Path(__file__).resolve().parents[2]
    parser = argparse.ArgumentParser(allow_abbrev=False)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--tree", type=Path, default=home)
    parser.add_argument("--library", type=Path)
    parser.add_argument("--clone", action="store_true")
    parser.add_argument("--leave-out", action="append", default=[])
    parser.add_argument("--limit", type=int, default=60)
    parser.add_argument("pages", nargs="+")
    options = parser.parse_args()
    options.tree = options.tree.resolve()
    options.library = (options.library or options.tree / "build/test").resolve()

    with tempfile.TemporaryDirectory(prefix="zynpsp-pages-") as scratch:
        runner = Runner(options, Path(scratch))
        runner.begin()
        ran = 0
        for page in options.pages:
            blocks = markdown.blocks(page, (options.tree / page).read_text())
            check(blocks)
            runner.turn_page()
            for block in [] if options.check else blocks:
                runner.run(block)
                ran += block.word not in SHOWN
        if sorted(runner.left_out) != sorted(options.leave_out):
            raise Failure(f"left out {runner.left_out}, not {options.leave_out}")
        if not ran and not options.check:
            raise Failure("nothing was run")


if __name__ == "__main__":
    try:
        main()
    except (Failure, markdown.Malformed) as failure:
        sys.exit(f"FAIL: {failure}")
