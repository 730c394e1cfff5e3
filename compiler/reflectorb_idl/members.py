"""The operations of a class as its skeleton and its client class have them: those of the IDL, and a
getter and a setter for each attribute."""
from dataclasses import dataclass

from . import scopes
from .description import attribute_operations
from .names import capital, constant, escaped, member
from .writer import plain


@dataclass
class Member:
    name: str  # in tables
    code: int
    declaring: dict  # the interface that declares it
    entry: dict  # the operation or attribute
    arguments: list  # (name, type)
    results: list  # (name, type)
    raises: list  # exceptions
    doc: str
    oneway: bool = False

    @property
    def function(self):
        return member(self.name)

    @property
    def constant(self):
        return constant(self.name)

    @property
    def has_struct(self):
        return len(self.results) > 1

    @property
    def argument_names(self):
        return [escaped(name) for name, _ in self.arguments]


def own(description, interface):
    found = []
    for entry in description.own(interface):
        if entry["kind"] == "operation":
            found.append(
                Member(
                    entry["name"],
                    entry["code"],
                    interface,
                    entry,
                    scopes.arguments(entry),
                    scopes.results(entry),
                    [description.find(name) for name in entry["raises"]],
                    _doc(entry),
                    entry["oneway"],
                )
            )
        else:
            found.extend(_accessors(description, interface, entry))
    return found


def _accessors(description, interface, entry):
    for name, code, sets in attribute_operations(entry):
        value = [(entry["name"], entry["type"])]
        yield Member(
            name,
            code,
            interface,
            entry,
            value if sets else [],
            [] if sets else [("returned", entry["type"])],
            [description.find(e) for e in entry["setRaises" if sets else "getRaises"]],
            "" if sets else _doc(entry),
        )


def repeated(description, interface):
    """The operations of bases other than the first, which the C++ classes do not inherit."""
    if not interface["bases"]:
        return []
    first = description.find(interface["bases"][0])
    inherited = [first] + description.bases(first)
    found = []
    for base in description.bases(interface):
        if base not in inherited:
            found.extend(own(description, base))
    return found


def all_of_class(description, interface):
    """The functions that a class has in C++ beside those of its base class."""
    return own(description, interface) + repeated(description, interface)


def all_names(description, interface):
    """The functions of a class and all its bases."""
    names = set()
    for owner in [interface] + description.bases(interface):
        names.update(m.function for m in own(description, owner))
    return names


def docs(description, interface):
    """The comments of an interface, (name in tables, text): its own without a name, then those of its
    members. Nothing when there are none."""
    found = [("", plain(interface["doc"]))]
    for entry in description.own(interface):
        name = entry["name"] if entry["kind"] == "operation" else capital(entry["name"])
        found.append((name, _doc(entry)))
    return [pair for pair in found if pair[1]]


def _doc(entry):
    """The comment of an operation, with those of its parameters."""
    text = plain(entry["doc"])
    for parameter in entry.get("parameters", []):
        about = plain(parameter["doc"]).replace("\n", " ")
        if about:
            text += "%s`%s`: %s" % ("\n" if text else "", parameter["name"], about)
    return text
