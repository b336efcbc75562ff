#!/usr/bin/env python3
"""Makes the manual pages from Doxygen's XML, compressed as they are installed: one a function and
data object (man3), one a family (man7).
usage: manual_pages.py XML_DIRECTORY OUTPUT_DIRECTORY VERSION"""

import gzip
import pathlib
import re
import sys
import textwrap

from reference_xml import RULES, Reference, text_of


def escaped(text):
    """Text as roff shows it literally."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("~", "\\(ti").replace("^", "\\(ha")
    text = text.replace("`", "\\(ga")
    return re.sub(r"^([.'])", r"\\&\1", text, flags=re.MULTILINE)


class Roff:
    """The body of one page."""

    def __init__(self):
        self.lines = []

    def macro(self, line):
        self.lines.append(line)

    def text(self, text):
        text = text.strip()
        if text:
            self.lines.append(text)

    def literal(self, text):
        self.lines += [".PP", ".RS 4", ".nf", escaped(text.strip("\n")).replace("\n\n", "\n.sp\n"),
                       ".fi", ".RE"]

    def __str__(self):
        return "\n".join(self.lines) + "\n"


FONTS = {"computeroutput": "B", "bold": "B", "emphasis": "I", "ref": "B", "ulink": "I"}


def inline(element):
    """Running text of an element, its block-like children left out."""
    parts = [escaped(" ".join(re.split(r"\s+", element.text or "")))]
    for child in element:
        if child.tag in FONTS:
            # Fonts do not nest: the outermost one holds.
            parts.append(f"\\f{FONTS[child.tag]}{escaped(text_of(child))}\\fR")
        elif child.tag in SYMBOLS:
            parts.append(SYMBOLS[child.tag])
        elif child.tag not in BLOCKS:
            parts.append(inline(child))
        parts.append(escaped(" ".join(re.split(r"\s+", child.tail or ""))))
    return re.sub(r" {2,}", " ", "".join(parts))


def table(element, page):
    """Rows as tagged paragraphs: a terminal has no room for columns of prose."""
    rows = [[inline_all(entry) for entry in row.findall("entry")] for row in element.findall("row")]
    has_head = all(entry.get("thead") == "yes" for entry in element.find("row").findall("entry"))
    for row in rows[1:] if has_head else rows:
        page.macro(".TP")
        page.text(row[0] or "\\&")
        page.text("; ".join(cell for cell in row[1:] if cell) or "\\&")


def inline_all(element):
    return " ".join(inline(para).strip() for para in element.findall("para")).strip()


def items(element, page):
    for number, item in enumerate(element.findall("listitem"), 1):
        page.macro(f".IP {number}. 4" if element.tag == "orderedlist" else ".IP \\(bu 2")
        blocks(item, page, first=True)


def program(element, page):
    page.literal("\n".join(code_text(line) for line in element.findall("codeline")))


def code_text(line):
    """A line of a listing, its spaces, which are elements of their own, put back."""
    parts = []
    for node in line.iter():
        parts.append(" " if node.tag == "sp" else node.text or "")
        if node is not line:
            parts.append(node.tail or "")
    return "".join(parts)


def flow(para, page):
    """One paragraph: runs of text with the blocks between them."""
    run = [escaped(" ".join(re.split(r"\s+", para.text or "")))]

    def flush():
        page.text(re.sub(r" {2,}", " ", "".join(run)))
        run.clear()

    for child in para:
        if child.tag in BLOCKS:
            flush()
            BLOCKS[child.tag](child, page)
        elif child.tag in FONTS:
            run.append(f"\\f{FONTS[child.tag]}{escaped(text_of(child))}\\fR")
        elif child.tag in SYMBOLS:
            run.append(SYMBOLS[child.tag])
        else:
            run.append(inline(child))
        tail = escaped(" ".join(re.split(r"\s+", child.tail or "")))
        if child.tag in BLOCKS and tail.strip():
            page.macro(".PP")
        run.append(tail)
    flush()


def blocks(element, page, first=False):
    """The paragraphs of a description; the first may follow a heading or a tag directly."""
    for para in element.findall("para"):
        before = len(page.lines)
        flow(para, page)
        if len(page.lines) > before and not first and not page.lines[before].startswith("."):
            page.lines.insert(before, ".PP")
        first = first and len(page.lines) == before


def titled(element, page):
    """A paragraph with a title, a note or a warning, as part of a family's page."""
    title = text_of(element.find("title")) or element.get("kind").capitalize()
    page.macro(f'.SH "{escaped(title).upper()}"')
    blocks(element, page, first=True)


def nothing(_element, _page):
    """What the page shows in a section of its own."""


BLOCKS = {
    "itemizedlist": items, "orderedlist": items, "table": table, "programlisting": program,
    "verbatim": lambda element, page: page.literal("".join(element.itertext())),
    "simplesect": titled, "parameterlist": nothing,
}
SYMBOLS = {"ndash": "\\(en", "mdash": "\\(em", "nonbreakablespace": "\\ ", "linebreak": "\n.br\n",
           "sp": " ", "hellip": "...", "times": "\\(mu", "sect": "\\(sc", "le": "<=", "ge": ">="}


def own_text(declaration, page):
    """The description without the parts that have sections of their own."""
    titled_before, BLOCKS["simplesect"] = BLOCKS["simplesect"], nothing
    blocks(declaration.detail, page)
    for section in declaration.detail.iter("simplesect"):
        if section.get("kind") in ("note", "warning") or (
                section.get("kind") == "par" and text_of(section.find("title")) not in RULES):
            page.macro(".PP")
            blocks(section, page)
    BLOCKS["simplesect"] = titled_before


def head(name, section, brief, version):
    page = Roff()
    page.macro(f'.TH "{name}" {section} "" "zynpsp {version}" "zynpsp"')
    page.macro(".SH NAME")
    page.text(f"{escaped(name)} \\- {inline_all(brief).rstrip('.')}")
    return page


def see_also(page, family, names):
    page.macro(".SH SEE ALSO")
    others = [f".BR {escaped(name)} (3)," for name in names[:12]]
    page.lines += others + [f".BR zynpsp\\-{family.name} (7)"]


def synopsis(declaration):
    """The declaration as C writes it, its arguments under one another where the line is too long."""
    whole = f"{declaration.type} {declaration.name}{declaration.arguments};".replace("* ", "*")
    if declaration.kind == "variable":
        whole = f"extern {whole}"
    # It breaks between arguments, nowhere else.
    kept = re.sub(r"(?<!,) ", "\xa0", whole)
    return [line.replace("\xa0", " ") for line in textwrap.wrap(kept, 72, subsequent_indent=" " * 8)]


def declaration_page(declaration, version):
    """The page of a function or a data object."""
    page = head(declaration.name, 3, declaration.brief, version)
    page.macro(".SH LIBRARY")
    page.text("zynpsp (\\fB\\-lzynpsp\\-14\\fR)")
    page.macro(".SH SYNOPSIS")
    page.lines += [".nf", ".B #include <psp.h>", ".sp"]
    for line in synopsis(declaration):
        page.text(f"\\fB{escaped(line)}\\fR")
    page.macro(".fi")
    page.macro(".SH DESCRIPTION")
    blocks(declaration.brief, page, first=True)
    own_text(declaration, page)
    for title, kind in (("ARGUMENTS", "param"), ("RETURN VALUE", "retval")):
        entries = declaration.parameter_list(kind)
        result = declaration.section("return") if kind == "retval" else None
        if entries or result is not None:
            page.macro(f".SH {title}")
        if result is not None:
            blocks(result, page, first=True)
        for names, description in entries:
            page.macro(".TP")
            page.text("\\fB" + escaped(", ".join(names)) + "\\fR")
            blocks(description, page, first=True)
    for title in RULES:
        section = declaration.section("par", title)
        if section is not None:
            page.macro(f'.SH "{title.upper().replace("PSP_INIT()", "psp_init()")}"')
            blocks(section, page, first=True)
    neighbours = [other.name for other in declaration.family.declarations
                  if other.kind == "function" and other is not declaration]
    at = [other.name for other in declaration.family.declarations
          if other.kind == "function" or other is declaration].index(declaration.name)
    see_also(page, declaration.family, neighbours[max(0, at - 4):at + 4])
    return page


def family_page(family, version):
    """The page of a family: its text, its types and constants, and the names of its functions."""
    page = head(f"zynpsp-{family.name}", 7, family.brief, version)
    page.macro(".SH SYNOPSIS")
    page.macro(".B #include <psp.h>")
    page.macro(".SH DESCRIPTION")
    blocks(family.brief, page, first=True)
    blocks(family.detail, page, first=True)
    for title, kinds in (("TYPES AND CONSTANTS", ("typedef", "enum", "define")),
                         ("FUNCTIONS", ("function",)), ("DATA", ("variable",))):
        listed = [declaration for declaration in family.declarations
                  if declaration.kind in kinds and declaration.name]
        if listed:
            page.macro(f'.SH "{title}"')
        for declaration in listed:
            page.macro(".TP")
            page.text(f"\\fB{escaped(declaration.name)}\\fR")
            page.text(inline_all(declaration.brief) or "\\&")
    return page


def write(directory, name, page):
    """The same bytes whenever the page is the same: no time of making inside."""
    directory.mkdir(parents=True, exist_ok=True)
    (directory / f"{name}.gz").write_bytes(gzip.compress(str(page).encode(), mtime=0))


def main(xml, output, version):
    sections = {section: pathlib.Path(output) / f"man{section}" for section in (3, 7)}
    for directory in sections.values():
        for old in directory.glob("*.gz"):
            old.unlink()
    reference = Reference(xml)
    for declaration in reference.declarations("function", "variable"):
        if declaration.file.endswith(".h"):
            write(sections[3], f"{declaration.name}.3", declaration_page(declaration, version))
    for family in reference.families:
        write(sections[7], f"zynpsp-{family.name}.7", family_page(family, version))


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    main(*sys.argv[1:])
