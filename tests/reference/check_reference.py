#!/usr/bin/env python3
"""Every public declaration tells its users all they must know: what it does, each argument, each
result and code by name, what may be NULL, and the four rules (threads, before psp_init(), jumps,
ownership). Every family has its page with a table that names each function and with an example.
usage: check_reference.py XML_DIRECTORY SURFACE_LIST CODES_HEADER"""

import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "docs"))
from reference_xml import RULES, Reference, text_of  # noqa: E402

PAGE = ["What it is for", "Which function when", "Ownership", "Threads", "Failure", "Example"]
# Types that are pointers behind a name: what NULL (or the invalid value) does must be told.
HANDLES = {"PSP_FH", "PSP_FILE_STREAM", "PSP_MEMTAG", "PSP_SEM"}
CODE = re.compile(r"^[se][A-Z][A-Za-z_]+$")


class Checker:
    def __init__(self, codes):
        self.codes = codes
        self.failures = []

    def expect(self, holds, declaration, lack):
        if not holds:
            self.failures.append(
                f"{declaration.file}:{declaration.line}: {declaration.name}: {lack}")

    def arguments(self, declaration):
        told = {}
        for names, description in declaration.parameter_list("param"):
            for name in names:
                told[name] = text_of(description)
        for name in declaration.parameters():
            if name != "...":
                self.expect(told.get(name), declaration, f"argument {name} is not described")

    def codes_named(self, declaration):
        """Whatever looks like a code is one, and a function that returns codes lists each."""
        for element in (declaration.brief, declaration.detail):
            for word in element.iter("computeroutput"):
                if CODE.match(text_of(word)):
                    self.expect(text_of(word) in self.codes, declaration,
                                f"{text_of(word)} is no code")
        listed = [name for names, _ in declaration.parameter_list("retval") for name in names]
        for name in listed:
            self.expect(name in self.codes, declaration, f"@retval {name} is no code")
        if declaration.type == "ZYN_RETCODE" and declaration.kind == "function":
            self.expect("sOKAY" in listed, declaration, "no @retval sOKAY")

    def result(self, declaration, kind):
        if kind != "void":
            self.expect(declaration.section("return") is not None or
                        declaration.parameter_list("retval"), declaration, "no result is told")
        for names, description in declaration.parameter_list("retval"):
            self.expect(text_of(description), declaration, f"@retval {names} without its case")

    def rules(self, declaration, titles):
        for title in titles:
            section = declaration.section("par", title)
            told = section is not None and any(text_of(para) for para in section.findall("para"))
            self.expect(told, declaration, f"nothing about: {title}")

    def null(self, declaration):
        """A function that takes pointers says what may be NULL, or whose rules it shares."""
        takes_pointers = any("*" in text_of(param.find("type")) or
                             text_of(param.find("type")) in HANDLES
                             for param in declaration.node.findall("param"))
        told = text_of(declaration.brief) + " " + text_of(declaration.detail)
        self.expect(not takes_pointers or "NULL" in told or "PSP_SEM_INVALID" in told or
                    re.search(r"\b(as for|like|as) psp_\w+\(\)", told),
                    declaration, "says nothing about NULL")

    def function(self, declaration):
        self.arguments(declaration)
        self.result(declaration, declaration.type)
        self.codes_named(declaration)
        self.rules(declaration, RULES)
        self.null(declaration)

    def values(self, declaration):
        """Doxygen does not miss these itself."""
        for value in declaration.node.findall("enumvalue"):
            told = text_of(value.find("briefdescription")) + text_of(
                value.find("detaileddescription"))
            self.expect(told, declaration, f"{value.findtext('name')} is not described")

    def callback(self, declaration):
        self.result(declaration, declaration.type.split("(")[0].removeprefix("typedef").strip())
        self.codes_named(declaration)
        self.rules(declaration, ("Threads", "Jumps"))

    def page(self, family):
        titles = [text_of(section.find("title")) for section in family.detail.iter("simplesect")
                  if section.get("kind") == "par"]
        if titles != PAGE:
            self.failures.append(f"{family.name}: the page's headings are {titles}")
            return
        table = next(section for section in family.detail.iter("simplesect")
                     if text_of(section.find("title")) == "Which function when")
        named = text_of(table)
        for declaration in family.declarations:
            if declaration.kind == "function" and declaration.file.endswith(".h"):
                self.expect(re.search(rf"\b{declaration.name}\b", named), declaration,
                            "is not in its family's table")
        for shown in ("programlisting", "verbatim"):
            if not any(text_of(listing) for listing in family.detail.iter(shown)):
                self.failures.append(f"{family.name}: the page shows no {shown}")

    def all(self, reference):
        for family in reference.families:
            if not text_of(family.brief):
                self.failures.append(f"{family.name}: no brief")
            self.page(family)
            for declaration in family.declarations:
                if declaration.name:
                    self.expect(text_of(declaration.brief), declaration, "no brief")
                if not declaration.file.endswith(".h"):
                    continue
                if declaration.kind == "function":
                    self.function(declaration)
                elif declaration.kind == "variable":
                    self.rules(declaration, ("Threads", "Before psp_init()"))
                elif declaration.is_callback:
                    self.callback(declaration)
                elif declaration.kind == "enum":
                    self.values(declaration)
                elif declaration.kind == "define" and declaration.parameters():
                    self.arguments(declaration)


def surface(path):
    """name -> (kind, family) of every exported name."""
    rows = [line.split() for line in pathlib.Path(path).read_text().splitlines()
            if line.startswith(("function", "data"))]
    return {row[1]: (row[0], pathlib.Path(row[3]).stem) for row in rows}


def main(xml, surface_list, codes_header):
    codes = set(re.findall(r"X\((\w+), -?\d+,", pathlib.Path(codes_header).read_text()))
    reference = Reference(xml)
    checker = Checker(codes)
    checker.all(reference)
    documented = {declaration.name: declaration.family.name
                  for declaration in reference.declarations("function", "variable")}
    for name, (_, family) in surface(surface_list).items():
        if documented.get(name) != family:
            checker.failures.append(f"{name}: is not on the page of the family {family}")
    for failure in checker.failures:
        print("FAIL:", failure)
    print(f"{len(documented)} functions and data objects, {len(reference.families)} families, "
          f"{len(checker.failures)} failures")
    return 1 if checker.failures else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
