"""Finds the places in a source file where a small change makes sense.

The sources are laid out by clang-format, and that does most of the work: a binary operator has
blanks around it, an angle bracket of a template or the mark of a pointer or reference has not.
"""
import collections
import re

# What replaces what. Each alternative is a change of its own.
RELATIONAL = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
              "==": ["!="], "!=": ["=="]}
ARITHMETIC = {"+": ["-"], "-": ["+"], "*": ["+"], "/": ["*"], "%": ["/"], "<<": [">>"],
              ">>": ["<<"], "|": ["&"], "&": ["|"], "^": ["|"], "+=": ["-=", "="],
              "-=": ["+=", "="], "*=": ["="], "/=": ["*="], "%=": ["/="], "<<=": [">>="],
              ">>=": ["<<="], "|=": ["&=", "="], "&=": ["|=", "="]}
LOGICAL = {"&&": ["||"], "||": ["&&"]}
WORDS = {"true": "false", "false": "true", "ZYN_TRUE": "ZYN_FALSE", "ZYN_FALSE": "ZYN_TRUE",
         "min": "max", "max": "min"}

SPACED = re.compile(r"(?<=\s)(<<=|>>=|[-+*/%|&^]=|<=|>=|==|!=|&&|\|\||<<|>>|[-+*/%|&^<>])(?=\s|$)")
STEP = re.compile(r"\+\+|--")
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9A-Fa-f']+|\d[\d']*)([uUlL]*)(?![\w.'])")
WORD = re.compile(r"(?<![\w.])(true|false|ZYN_TRUE|ZYN_FALSE)\b|(?<=std::)(min|max)\b")
NOT = re.compile(r"!(?=[\w(*:])")
CODE = re.compile(r"(?<!case )\b(?:[es][A-Z][A-Z0-9]+|ePSP_[A-Z_]+)\b")
CONDITION = re.compile(r"\b(?:if|while) \(")
RETURN = re.compile(r"return (?!sOKAY;|nullptr;|false;|0;)([^;]+);")
ELSE = re.compile(r"\belse(?! if)(?=\s|$)")
JUMP = re.compile(r"(?:break|continue|return);")
# A call, an assignment or a step: what stands at the front has no blank in it, so it is no
# declaration.
STATEMENT = re.compile(r"(?:[*\w(][\w:.>\[\]*()-]*(?: [-+*/%|&^<>]{0,2}=|\(.*\)$|\(.*\);)|\+\+|--)")

DECLARATION = re.compile(r"\s*(?:template <|using |typedef |namespace |extern |enum |"
                         r"case |friend |static_assert)")
ARRAY_SIZE = re.compile(r"^\s*(?:static |const |constexpr )*[\w:]+[*&]? \w+\[[^]]*\]")
FUNCTION = re.compile(r"(?:    |\[\[.*?\]\] )?(?!return |else )(?=\w)[\w:<>*&, ]+[ *&](\w+)\(")
BLANKED = re.compile(r'//[^\n]*|/\*.*?\*/|\[\[.*?\]\]|'
                     r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.S)


def masked_lines(text):
    """The lines with comments and attributes blanked and strings emptied, as long as they were."""
    def blank(match):
        found = match.group(0)
        if found[0] == "'" and match.start() > 0 and text[match.start() - 1].isalnum():
            return found  # the separator of a long number
        if found[0] in "\"'":
            return found[0] + "_" * (len(found) - 2) + found[0]
        return re.sub(r"[^\n]", " ", found)

    return BLANKED.sub(blank, text).split("\n")


def code_lines(text):
    """Yields the number and the masked text of each line that may be changed."""
    inside = None  # what a construct of several lines ends with
    for number, line in enumerate(masked_lines(text)):
        if inside is not None:
            if inside in line:
                inside = None
        elif line.lstrip().startswith("#"):
            inside = None if not line.endswith("\\") else "\n"
        elif DECLARATION.match(line):
            if "static_assert" in line and ";" not in line:
                inside = ";"
            elif re.match(r"\s*enum ", line) and "}" not in line:
                inside = "}"
        elif line.strip():
            yield number, line


def closing(line, start):
    """Where the parenthesis that opens at `start` closes, or None."""
    depth = 0
    for pos in range(start, len(line)):
        depth += {"(": 1, ")": -1}.get(line[pos], 0)
        if depth == 0:
            return pos
    return None


def neighbours(digits, suffix):
    """The numbers beside a literal, written as it is."""
    base, form = (16, "0x{:X}") if digits[:2] in ("0x", "0X") else \
        (8, "0{:o}") if len(digits) > 1 and digits[0] == "0" else (10, "{}")
    value = int(digits.replace("'", ""), base)
    return [form.format(near) + suffix for near in (value + 1, value - 1) if near >= 0]


def operator_changes(line):
    for match in SPACED.finditer(line):
        for kind, table in (("relational", RELATIONAL), ("arithmetic", ARITHMETIC),
                            ("logical", LOGICAL)):
            for other in table.get(match[0], []):
                yield kind, match.span(), other
    for match in STEP.finditer(line):
        yield "arithmetic", match.span(), {"++": "--", "--": "++"}[match[0]]
    for match in NOT.finditer(line):
        yield "logical", match.span(), ""


def constant_changes(line):
    sizes = ARRAY_SIZE.match(line)
    for match in NUMBER.finditer(line):
        if sizes is None or match.start() > sizes.end():
            for other in neighbours(match[1], match[2]):
                yield "constant", match.span(), other
    for match in WORD.finditer(line):
        yield "constant", match.span(), WORDS[match[0]]
    for match in CODE.finditer(line):
        yield "code", match.span(), "ePSP_FAILURE" if match[0] == "sOKAY" else "sOKAY"


def flow_changes(line):
    for match in CONDITION.finditer(line):
        end = closing(line, match.end() - 1)
        if end is not None:
            start = max(match.end(), line.rfind("; ", match.end(), end) + 2)
            yield "condition", (start, start), "!("
            # The second half of the change stands behind; `apply` takes both.
            yield "condition end", (end, end), ")"
    for match in RETURN.finditer(line):
        yield "result", match.span(1), "{}"
    for match in ELSE.finditer(line):
        yield "else", match.span(), "else if (false)"


def statement_changes(line):
    start = len(line) - len(line.lstrip())
    body = line.strip()
    if body.endswith(";") and (STATEMENT.match(body) or JUMP.fullmatch(body)):
        yield "statement", (start, start + len(body)), ";"


def changes(text):
    """All changes to a source file, as dictionaries. A line that a function has more than once is
    told from the earlier ones by a number behind the function's name."""
    lines = text.split("\n")
    function = "-"  # in front of the first one
    seen = collections.Counter()
    for number, masked in code_lines(text):
        declared = FUNCTION.match(lines[number])
        if declared and not masked.endswith(";"):
            function = declared[1]
        old = lines[number].strip()
        seen[function, old] += 1
        nth = seen[function, old]
        found = []
        for kind, span, other in (*operator_changes(masked), *constant_changes(masked),
                                  *flow_changes(masked), *statement_changes(masked)):
            if kind == "condition end":
                found[-1][1].append((span, other))
            else:
                found.append((kind, [(span, other)]))
        for kind, edits in found:
            line = lines[number]
            for (start, end), other in sorted(edits, reverse=True):
                line = line[:start] + other + line[end:]
            yield {"line": number + 1, "kind": kind,
                   "function": function if nth == 1 else f"{function}#{nth}",
                   "old": old, "new": line.strip()}
