#!/usr/bin/env python3
"""The check of the reference notices each kind of gap: from a copy of the XML one thing is taken
away at a time, and the check must fail and name the declaration.
usage: check_reference_test.py XML_DIRECTORY SURFACE_LIST CODES_HEADER"""

import contextlib
import io
import pathlib
import shutil
import sys
import tempfile
import xml.etree.ElementTree as ET

import check_reference


def described(root, name):
    """The declaration of that name, or the page of the family."""
    return next((node for node in root.iter("memberdef") if node.findtext("name") == name),
                root.find("compounddef"))


def drop(root, tag, keep):
    """Takes every element of a kind for which keep() is false from wherever it hangs."""
    for parent in list(root.iter()):
        for child in list(parent):
            if child.tag == tag and not keep(child):
                parent.remove(child)


def without_rule(title):
    return lambda node: drop(node, "simplesect",
                             lambda section: section.findtext("title") != title)


def without_list(kind):
    return lambda node: drop(node, "parameterlist", lambda entries: entries.get("kind") != kind)


def without_result(node):
    drop(node, "simplesect", lambda section: section.get("kind") != "return")
    without_list("retval")(node)


def without_brief(node):
    node.find("briefdescription").clear()


def without_case(node):
    next(node.iter("parameterdescription")).clear()


def without_listing(node):
    drop(node, "programlisting", lambda _: False)


def without_value(node):
    without_brief(node.find("enumvalue"))


def with_unknown_code(node):
    next(node.iter("parametername")).text = "eNOSUCHCODE"


def without_null(node):
    for element in node.iter():
        element.text = (element.text or "").replace("NULL", "nothing")
        element.tail = (element.tail or "").replace("NULL", "nothing")


GAPS = [
    ("file", "file", "no brief", without_brief),
    ("file", "file", "the page's headings are", without_rule("Failure")),
    ("file", "file", "the page shows no programlisting", without_listing),
    ("file", "psp_fileOpen", "nothing about: Threads", without_rule("Threads")),
    ("file", "psp_fileOpen", "nothing about: Before psp_init()", without_rule("Before psp_init()")),
    ("file", "psp_fileOpen", "nothing about: Jumps", without_rule("Jumps")),
    ("file", "psp_fileOpen", "nothing about: Ownership", without_rule("Ownership")),
    ("file", "psp_fileOpen", "argument flags is not described", without_list("param")),
    ("file", "psp_fileOpen", "no result is told", without_result),
    ("file", "psp_fileOpen", "says nothing about NULL", without_null),
    ("file", "psp_fileOpen", "no brief", without_brief),
    ("file", "psp_fileSync", "no @retval sOKAY", without_list("retval")),
    ("file", "psp_fileOpen", "is not on the page of the family file", ET.Element.clear),
    ("core", "psp_init", "@retval ['sOKAY'] without its case", without_case),
    ("core", "psp_init", "@retval eNOSUCHCODE is no code", with_unknown_code),
    ("core", "psp_inited", "nothing about: Threads", without_rule("Threads")),
    ("types", "PSP_UTF8_ERROR_BEHAVIOR", "PSP_UTF8_ERROR_BREAK is not described", without_value),
    ("mem", "PSP_DESTROY_FCN", "nothing about: Jumps", without_rule("Jumps")),
]


def check(xml, *lists):
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        status = check_reference.main(xml, *lists)
    return status, printed.getvalue()


def main(xml, *lists):
    failed = 0
    for family, name, complaint, take_away in GAPS:
        with tempfile.TemporaryDirectory() as scratch:
            copy = pathlib.Path(scratch) / "xml"
            shutil.copytree(xml, copy)
            page = copy / f"group__{family}.xml"
            tree = ET.parse(page)
            take_away(described(tree.getroot(), name))
            tree.write(page)
            status, printed = check(copy, *lists)
            if status == 0 or f"{name}: {complaint}" not in printed:
                print(f"FAIL: not noticed: {name}: {complaint}\n{printed}")
                failed = 1
    return failed


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
