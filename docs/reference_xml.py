"""What Doxygen's XML tells of the public declarations: the one reader that the manual pages and the
tests share."""

import pathlib
import xml.etree.ElementTree as ET

RULES = ("Threads", "Before psp_init()", "Jumps", "Ownership")


def text_of(element):
    """All text below an element with its white space joined."""
    return " ".join("".join(element.itertext()).split()) if element is not None else ""


class Declaration:
    """A function, data object, type, enumerator, member or macro."""

    def __init__(self, node, family):
        self.node = node
        self.family = family
        self.kind = node.get("kind")
        self.name = node.findtext("name")
        self.type = text_of(node.find("type"))
        self.arguments = node.findtext("argsstring") or ""
        self.brief = node.find("briefdescription")
        self.detail = node.find("detaileddescription")
        location = node.find("location")
        self.file = location.get("file") if location is not None else ""
        self.line = location.get("line") if location is not None else ""

    @property
    def is_callback(self):
        return self.kind == "typedef" and "(*" in self.type

    def parameters(self):
        """The names of the declared arguments of a function or of a macro."""
        found = []
        for param in self.node.findall("param"):
            name = param.findtext("declname") or param.findtext("defname")
            if name is None and text_of(param.find("type")) == "...":
                name = "..."
            if name is not None:
                found.append(name)
        return found

    def parameter_list(self, kind):
        """(names, description element) of each entry of a list: kind is param or retval."""
        return [([text_of(name) for name in item.iter("parametername")],
                 item.find("parameterdescription"))
                for entries in self.detail.iter("parameterlist") if entries.get("kind") == kind
                for item in entries.findall("parameteritem")]

    def section(self, kind, title=None):
        """The first simple section of a kind (return, par, note …), a paragraph section by title."""
        for section in self.detail.iter("simplesect"):
            if section.get("kind") == kind and (
                    title is None or text_of(section.find("title")) == title):
                return section
        return None


class Family:
    """A group of declarations: a page of the site."""

    def __init__(self, compound):
        self.name = compound.findtext("compoundname")
        self.title = compound.findtext("title") or ""
        self.brief = compound.find("briefdescription")
        self.detail = compound.find("detaileddescription")
        self.declarations = [Declaration(node, self) for node in compound.iter("memberdef")]
        self.records = [inner.get("refid") for inner in compound.findall("innerclass")]


class Reference:
    def __init__(self, xml):
        self.directory = pathlib.Path(xml)
        index = ET.parse(self.directory / "index.xml").getroot()
        self.families = [Family(self.compound(entry.get("refid")))
                         for entry in index.findall("compound") if entry.get("kind") == "group"]
        self.families.sort(key=lambda family: family.name)

    def compound(self, refid):
        return ET.parse(self.directory / f"{refid}.xml").getroot().find("compounddef")

    def declarations(self, *kinds):
        return [declaration for family in self.families for declaration in family.declarations
                if declaration.kind in kinds]
