"""A copy of the sources and of what the test build made of them, in which one object at a time is
replaced by a changed one."""
import dataclasses
import json
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import time
from pathlib import Path

from . import report, suites

OBJECT = "changed.o"
LIBRARY = "libzynpsp-14.so"
TWIN = "libzynpsp-14.a"
NAMES = "zynpsp-14.map"  # what the library is linked with besides objects
LEAST_LIMIT = 10  # seconds that a suite gets at least
TIMES = 4         # and how many times its usual time
ADDRESS_SPACE = 16 << 30  # bytes, against a change that allocates for ever


@dataclasses.dataclass
class Suite:
    name: str
    link: list  # the command that links it
    seconds: float = 0.0

    @property
    def shared(self):
        return LIBRARY in self.link


class Build:
    def __init__(self, root, tree, files):
        self.root, self.tree, self.dir = root, tree, tree / "build/test"
        self.scratch = tree / "tmp"
        self.base = b""
        names = [f"{path.parent.name}_{path.stem}"
                 for path in sorted((root / "tests").glob("*/*_test.cpp"))
                 if path.parent.name in ("api", "unit", "fault", "stress")]
        self.families = {file: suites.family(file, names) for file in files}
        needed = sorted({n for parts in self.families.values() for part in parts for n in part})
        print(f"building {len(needed)} suites", flush=True)
        subprocess.run(["cmake", "--preset", "test", "-G", "Ninja"], check=True,
                       stdout=subprocess.DEVNULL)
        subprocess.run(["cmake", "--build", "--preset", "test", "--target", "zynpsp",
                        "zynpsp_static", *needed], check=True, stdout=subprocess.DEVNULL)
        self._copy(needed)
        self._measure()

    # ---- The copy ----

    def _moved(self, text):
        return text.replace(str(self.root), str(self.tree))

    def _link_command(self, target):
        """The command that links a target of the test build, for the copy."""
        steps = subprocess.run(["ninja", "-C", self.root / "build/test", "-t", "commands", target],
                               check=True, capture_output=True, text=True).stdout
        last = steps.strip().split("\n")[-1]
        return shlex.split(next(p for p in last.split(" && ") if f" -o {target} " in p))

    def _copy(self, needed):
        shutil.rmtree(self.tree, ignore_errors=True)
        for part in ("source", "include"):
            shutil.copytree(self.root / part, self.tree / part)
        built = self.root / "build/test"
        self.library = self._link_command(LIBRARY)
        self.suites = {n: Suite(n, self._link_command(f"tests/{n}")) for n in needed}
        files = {TWIN, NAMES, *(str(p.relative_to(built)) for p in (built / "tests").glob("*.so"))}
        for command in (self.library, *(suite.link for suite in self.suites.values())):
            files.update(arg for arg in command if arg.endswith(".o"))
        for file in files:
            (self.dir / file).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(built / file, self.dir / file)
        self.library = [self._moved(arg) for arg in self.library]
        for suite in self.suites.values():
            suite.link = [self._moved(arg) for arg in suite.link]
        recorded = json.loads((built / "compile_commands.json").read_text())
        self.compilers = {
            Path(entry["file"]).name: self._plain(shlex.split(self._moved(entry["command"])))
            for entry in recorded if "/zynpsp_objects.dir/" in entry["command"]}

    @staticmethod
    def _plain(command):
        """Without warnings, which are errors, and without what only tells lines apart."""
        kept = [arg for arg in command if arg != "-g" and not re.match(r"-W(?!l,)", arg)]
        kept[kept.index("-o") + 1] = OBJECT
        return [*kept, "-w"]

    # ---- Making ----

    def _made(self, command):
        return subprocess.run(command, cwd=self.dir, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0

    def original(self, file):
        """Prepares for changes to a file: makes what they are compared with."""
        self.file = f"CMakeFiles/zynpsp_objects.dir/source/psp/{file}.o"
        if not self._made(self.compilers[file]):
            raise SystemExit(f"mutate: {file} does not compile")
        self.base = (self.dir / OBJECT).read_bytes()

    def compile(self, file, text):
        """Makes the changed object and the shared library: None when it cannot be done, False when
        the object is the original one."""
        path = self.tree / "source/psp" / file
        path.write_text(text)
        if not self._made(self.compilers[file]):
            return None
        if (self.dir / OBJECT).read_bytes() == self.base:
            return False
        changed = [OBJECT if arg == self.file else arg for arg in self.library]
        return True if self._made(changed) else None

    # ---- Running ----

    def family(self, file):
        return [suite for part in self.families[file]
                for suite in sorted((self.suites[n] for n in part), key=lambda s: s.seconds)]

    def _measure(self):
        """Links every suite as it is and notes how long it takes; all of them must pass."""
        print(f"measuring {len(self.suites)} suites", flush=True)
        if not self._made(self.library):
            raise SystemExit("mutate: the library does not link")
        for suite in self.suites.values():
            began = time.monotonic()
            how = self._run(suite, 120) if self._made(suite.link) else "does not link"
            if how:
                raise SystemExit(f"mutate: {suite.name} fails without any change: {how}")
            suite.seconds = time.monotonic() - began

    def run_mutant(self, suite):
        """How the suite fails with the changed object, or ""."""
        if not suite.shared:
            at = suite.link.index(TWIN)  # what the object defines is not looked for in the archive
            if not self._made([*suite.link[:at], OBJECT, *suite.link[at:]]):
                return "does not link"
        return self._run(suite, max(LEAST_LIMIT, TIMES * suite.seconds))

    def _run(self, suite, limit):
        """All tests of a suite in one process, up to the first failure."""
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir()
        log = self.tree / "output.txt"

        def bounds():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_AS, (ADDRESS_SPACE, ADDRESS_SPACE))
            resource.setrlimit(resource.RLIMIT_CPU, (int(limit) + 1, int(limit) + 1))

        with log.open("wb") as output:
            process = subprocess.Popen(
                [self.dir / "tests" / suite.name, "--gtest_fail_fast=1", "--gtest_brief=1"],
                cwd=self.scratch, env={**os.environ, "TMPDIR": str(self.scratch)},
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True,
                preexec_fn=bounds)
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = None
            finally:
                try:
                    os.killpg(process.pid, signal.SIGKILL)  # and what it has left behind
                except ProcessLookupError:
                    pass
                process.wait()
        failed = re.search(rb"\[  FAILED  \] (\w+\.\w+)", log.read_bytes())
        if failed:
            return failed[1].decode()
        if status is None:
            return report.NO_END
        return "" if status == 0 else f"status {status}"
