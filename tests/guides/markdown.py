"""What the tests of the guides read off a page of Markdown: its code blocks, headings and links.

Only what the house uses: fences of three or more backticks or tildes, headings with '#', links in
brackets. A block of code that is merely indented has no word that says what it is; it is reported.
"""
import dataclasses
import re

FENCE = re.compile(r"( *)(`{3,}|~{3,}) *([^`]*)$")
HEADING = re.compile(r"#{1,6} +(.*?)(?: +#+)?$")
LIST_ITEM = re.compile(r" *(?:[-*+]|\d+[.)]) ")
LINK = re.compile(r"\[(?:[^\[\]]|\[[^\]]*\])*\]\(\s*<?([^\s)>]+)>?(?:\s+\"[^\"]*\")?\s*\)")
DEFINITION = re.compile(r"^ {0,3}\[[^\]]+\]: *(\S+)", re.M)
CODE_SPAN = re.compile(r"(`+)(?!`).*?(?<!`)\1(?!`)")


class Malformed(Exception):
    """A page that cannot be read as it was meant; the text says file, line and why."""


@dataclasses.dataclass
class Block:
    page: str        # the page as messages name it
    line: int        # of the first line of its text
    word: str        # the first word of the fence's info string: what the block is
    file: str        # the second one: the file that the block is saved as, or ""
    lines: list      # its text
    between: list    # the lines of prose since the block before it, blank ones left out
    expected: "Block" = None  # what it must print

    @property
    def where(self):
        return f"{self.page}:{self.line}"

    @property
    def text(self):
        return "".join(f"{line}\n" for line in self.lines)


def _split(page, text):
    """Yields the blocks and, as pairs of number and line, the lines that are in none."""
    lines = text.split("\n")
    between = []
    number = 0
    while number < len(lines):
        line = lines[number]
        number += 1
        opened = FENCE.match(line)
        if not opened:
            if line.strip():
                between.append(line)
            yield number, line
            continue
        indent, fence, info = opened.groups()
        start = number
        closing = re.compile(rf" *{re.escape(fence[0])}{{{len(fence)},}} *$")
        while number < len(lines) and not closing.match(lines[number]):
            number += 1
        if number == len(lines):
            raise Malformed(f"{page}:{start}: the block that begins here has no end")
        words = info.split()
        if len(words) > 2:
            raise Malformed(f"{page}:{start}: more than a word and a file name: {info.strip()!r}")
        content = [re.sub(f"^ {{0,{len(indent)}}}", "", each) for each in lines[start:number]]
        yield Block(page, start + 1, *(words + ["", ""])[:2], content, between)
        between = []
        number += 1


def _refuse_indented(page, prose):
    """Lines indented by four after a blank one are code, unless they go on with a list."""
    blank, in_list = True, False
    for number, line in prose:
        indented = line.startswith("    ")
        if line.strip() and not indented and (blank or LIST_ITEM.match(line)):
            in_list = bool(LIST_ITEM.match(line))
        if line.strip() and indented and blank and not in_list:
            raise Malformed(f"{page}:{number}: an indented block: fence it and say what it is")
        blank = not line.strip()


def blocks(page, text):
    """The blocks in order; each knows the block of output that it must print."""
    parts = list(_split(page, text))
    _refuse_indented(page, [part for part in parts if isinstance(part, tuple)])
    found = [part for part in parts if isinstance(part, Block)]
    for block, following in zip(found, found[1:]):
        prose = following.between
        if following.word == "text" and not following.file and (
                not prose or len(prose) == 1 and prose[0].rstrip().endswith(":")):
            block.expected = following
    return found


def _prose(text):
    return [part for part in _split("", text) if isinstance(part, tuple)]


def anchors(text):
    """What a link may name after '#': the headings as the web pages of the repository do it."""
    names = set()
    for _, line in _prose(text):
        if heading := HEADING.match(line):
            title = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading[1])
            name = re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")
            number, base = 0, name
            while name in names:
                number += 1
                name = f"{base}-{number}"
            names.add(name)
    return names


def code_spans(text):
    """What stands between backticks, with the line it stands in."""
    for number, line in _prose(text):
        for span in CODE_SPAN.finditer(line):
            yield number, span[0].strip("`").strip()


def links(text):
    """The target of each link and picture with the line it stands in."""
    lines = [""] * text.count("\n") + [""]
    for number, line in _prose(text):
        lines[number - 1] = CODE_SPAN.sub("", line)
    whole = "\n".join(lines)
    for pattern in LINK, DEFINITION:
        for link in pattern.finditer(whole):
            yield whole.count("\n", 0, link.start(1)) + 1, link[1]
