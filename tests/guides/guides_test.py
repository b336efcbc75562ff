#!/usr/bin/env python3
"""The tests of the tests of the guides: each makes a page and looks what is said of it.

usage: guides_test.py [NAME...]   (a unittest program)
  PSPTEST_LIBRARY   where libzynpsp-14.so is
"""
import os
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent


class Guides(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.directory = Path(scratch.name).resolve()
        self.page = self.directory / "page.md"

    def write(self, text):
        self.page.write_text(textwrap.dedent(text).lstrip("\n"))

    def call(self, program, *arguments):
        result = subprocess.run([sys.executable, "-B", HERE / program, *arguments],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertNotIn("Traceback", result.stdout)
        return result.returncode, result.stdout

    def run_page(self, text, *options):
        self.write(text)
        return self.call("run_blocks.py", "--library", os.environ["PSPTEST_LIBRARY"], *options,
                         self.page)

    def passes(self, text, *options):
        status, said = self.run_page(text, *options)
        self.assertEqual(status, 0, said)
        return said

    def fails(self, line, reason, text, *options):
        """The page fails, with the line of the place and the reason in what is said."""
        status, said = self.run_page(text, *options)
        self.assertEqual(status, 1, said)
        self.assertIn(f"{self.page}:{line}:", said)
        self.assertIn(reason, said)

    # ---- Programs ----

    def test_AFragmentRunsBetweenStartAndStopOfTheLibrary(self):
        self.passes("""
            ```c
            #include <ctype.h>
            assert(psp_inited == 1 && isdigit('7'));
            printf("seven\\n");
            ```
            It prints:
            ```text
            seven
            ```
            """)

    def test_AFragmentMayBeCpp(self):
        self.passes("""
            ```cpp
            #include <vector>
            std::vector<int> numbers{1, 2};
            if constexpr (sizeof(int) == 4) printf("%zu\\n", numbers.size());
            ```

            ```text
            2
            ```
            """)

    def test_AWholeProgramIsTakenAsItIs(self):
        self.passes("""
            ```c
            #include "psp.h"
            int main(void) { return psp_inited; }
            ```
            """)

    def test_ABlockThatDoesNotCompileFailsAtItsLine(self):
        self.fails(6, "undeclared", """
            Words.

            ```c
            int known = 1;
            (void)known;
            (void)unknown;
            ```
            """)

    def test_AWarningFails(self):
        self.fails(2, "unused", """
            ```c
            int idle;
            ```
            """)

    def test_AFragmentThatDefinesAFunctionFails(self):
        self.fails(2, "function", """
            ```c
            int twice(int n) { return 2 * n; }
            assert(twice(2) == 4);
            ```
            """)

    def test_AnExitThatIsNotZeroFails(self):
        self.fails(2, "exit status 3", """
            ```c
            return 3;
            ```
            """)

    def test_AFailedAssertionFailsAtItsLine(self):
        self.fails(3, "errno == 4711", """
            ```c
            errno = 0;
            assert(errno == 4711);
            ```
            """)

    def test_ABlockWithoutEndFails(self):
        self.fails(2, "no end after 1 seconds", """
            ```c
            for (;;) {}
            ```
            """, "--limit", "1")

    # ---- Output ----

    def test_OtherOutputThanSaidFails(self):
        self.fails(2, "is said to print\n2", """
            ```c
            printf("1\\n");
            ```
            ```text
            2
            ```
            """)

    def test_AMissingLastLineFails(self):
        self.fails(2, "is said to print", """
            ```sh
            echo 1
            ```
            ```text
            1
            2
            ```
            """)

    def test_ThreeDotsStandForAnyLinesButNotForPartsOfOne(self):
        page = """
            ```sh
            seq %d
            ```
            ```text
            1
            ...
            9
            ```
            """
        self.passes(page % 9)
        self.fails(2, "is said to print", page % 19)

    def test_TextBehindOtherProseIsNoOutput(self):
        self.passes("""
            ```sh
            echo 1
            ```
            This is how a file is laid out.

            ```text
            magic length
            ```
            """)

    # ---- Commands ----

    def test_CommandsOfAPageAreOneTerminal(self):
        self.passes("""
            ```sh
            mkdir new
            cd new
            export FRUIT="a pear"
            echo seed >file
            ```

            ```c
            char seed[5] = "";
            FILE* file = fopen("file", "r");
            assert(file && fread(seed, 1, 4, file) == 4 && strcmp(seed, "seed") == 0);
            fclose(file);
            ```

            ```sh
            echo "$FRUIT, $(cat file), $(basename "$PWD")"
            ```
            ```text
            a pear, seed, new
            ```
            """)

    def test_ACommandThatFailsIsNamedWithItsLine(self):
        self.fails(3, "false\n", """
            ```sh
            true
            false
            true
            ```
            """)

    def test_ALineThatIsLeftOutMustExist(self):
        page = """
            ```sh
            exit 1     # would fail
            echo ran
            ```
            ```text
            ran
            ```
            """
        self.assertIn("exit 1: left out", self.passes(page, "--leave-out", "exit 1"))
        status, said = self.run_page(page.replace("exit 1", "true"), "--leave-out", "exit 1")
        self.assertEqual(status, 1, said)

    def test_ASavedBlockIsThereForLaterCommands(self):
        self.passes("""
            ```c three.c
            int main(void) { return 3; }
            ```

            ```sh
            cc three.c -o three
            ./three || echo $?
            ```
            ```text
            3
            ```
            """)

    def test_ASavedBlockThatNoCommandUsesFails(self):
        self.fails(2, "does anything with three.c", """
            ```c three.c
            int main(void) { return 3; }
            ```
            """)

    def test_CommandsFindTheLibrary(self):
        self.passes("""
            ```c start.c
            #include "psp.h"
            int main(void) { return psp_init() != sOKAY; }
            ```

            ```sh
            cc start.c -lzynpsp-14 -o start && ./start
            ```
            """)

    # ---- Clones ----

    def tree(self):
        """A repository with a page that is committed and changed, and a file that it lacks."""
        tree = self.directory / "tree"
        tree.mkdir()
        self.page = tree / "page.md"
        self.write("```sh\necho old $(ls)\n```\n```text\nold page.md\n```\n")
        return tree

    def git(self, tree, *arguments):
        subprocess.run(["git", "-C", tree, "-c", "user.name=x", "-c", "user.email=x@example.org",
                        *arguments], check=True, stdout=subprocess.DEVNULL)

    def run_clone(self, tree):
        return self.call("run_blocks.py", "--clone", "--tree", tree, "page.md")

    @unittest.skipUnless(shutil.which("git"), "git is not there")
    def test_ACloneHasWhatIsCommittedAndItsChangesAlone(self):
        tree = self.tree()
        self.git(tree, "init", "-q")
        self.git(tree, "add", "page.md")
        self.git(tree, "commit", "-q", "-m", "A page")
        (tree / "build").mkdir()
        (tree / "forgotten").write_text("")
        status, said = self.run_clone(tree)
        self.assertEqual((status, said), (0, "page.md:2: sh: runs and prints what is said\n"))
        self.page.write_text(self.page.read_text().replace("old", "new"))
        status, said = self.run_clone(tree)
        self.assertEqual((status, said), (0, "a clone with the changes that are not committed\n"
                                             "page.md:2: sh: runs and prints what is said\n"))
        self.page.write_text(self.page.read_text().replace("echo new", "echo newer"))
        self.assertEqual(self.run_clone(tree)[0], 1)

    def test_ATreeThatIsNoRepositoryIsCopiedWithoutItsBuilds(self):
        tree = self.tree()
        (tree / "build").mkdir()
        status, said = self.run_clone(tree)
        self.assertEqual((status, said), (0, "a copy of the tree: git does not know it\n"
                                             "page.md:2: sh: runs and prints what is said\n"))

    # ---- What is no block to run ----

    def test_AnUnknownWordFails(self):
        self.fails(2, "'fortran'", """
            ```fortran
            PRINT *, 1
            ```
            """)

    def test_ABlockWithoutAWordFails(self):
        self.fails(2, "''", """
            ```
            make
            ```
            """)

    def test_AnIndentedBlockFailsOutsideAList(self):
        self.fails(3, "an indented block", """
            Run this.

                make it so

            """)
        self.passes("""
            - Run this.

                Or do not.

            ```sh
            true
            ```
            """)

    def test_AFenceThatDoesNotEndFails(self):
        self.fails(3, "has no end", """
            Run this.

            ```sh
            true
            """)

    def test_APageOfWhichNothingRunsFails(self):
        status, said = self.run_page("Words.\n")
        self.assertEqual((status, said), (1, "FAIL: nothing was run\n"))

    # ---- Links ----

    def links(self, text):
        self.write(text)
        return self.call("check_links.py", self.directory, "page.md")

    def test_LinksThatLeadSomewherePass(self):
        status, said = self.links("""
            # A title, with `code` & signs
            [itself](page.md#a-title-with-code--signs), [here](#a-title-with-code--signs),
            ![`picture` of [it]](page.md "it"), [a line
            break](page.md), [far](https://example.org/no), `[code](nowhere.md)`.

            ```text
            [code](nowhere.md)
            ```

            [there]: page.md
            """)
        self.assertEqual((status, said), (0, "1 pages: every link leads somewhere\n"))

    def test_ALinkToNoFileFails(self):
        for text in ("[x](no.md)", "![x](no.svg)", "[x\ny](no.md)", "[x]: no.md", "[x](../)"):
            with self.subTest(text):
                status, said = self.links(text)
                self.assertEqual(status, 1, said)
                self.assertIn("there is no such file", said)

    def test_ANameOfNoFileBetweenBackticksFails(self):
        status, said = self.links("`scripts/x y`, `scripts/<x>`, `a/b`\n`scripts/x`")
        self.assertEqual(status, 1, said)
        self.assertEqual(said, "page.md:2: scripts/x: there is no such file\n")

    def test_ALinkToNoHeadingFails(self):
        status, said = self.links("# One\n\n[two](#two)")
        self.assertEqual(status, 1, said)
        self.assertIn("page.md:3: #two: there is no such heading", said)


if __name__ == "__main__":
    unittest.main()
