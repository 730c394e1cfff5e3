"""`#pragma reflectorb ...`: what IDL cannot say. A pragma belongs to the declaration before it, or, first in
the body of an interface, to that interface.

    #pragma reflectorb class 0x4C414D50        the class id of an interface
    #pragma reflectorb codes 1                 the first method code of an interface
    #pragma reflectorb code 6 [7]              that of an operation, attribute (getter, setter) or exception
    #pragma reflectorb setraises TooBright ... what writing an attribute may raise
    #pragma reflectorb getraises NotLit ...    what reading it may raise
    #pragma reflectorb raises NotLit ...       what both may raise
    #pragma reflectorb views                   texts and bytes that an operation takes, or an attribute is set
                                               to, are shown to the server where they have arrived
    #pragma reflectorb cpp TYPE HEADER NAME    what a native type is in C++, and in tables
"""
import re

_OWNERS = {
    "class": ("interface",),
    "codes": ("interface",),
    "code": ("operation", "attribute", "exception"),
    "raises": ("attribute",),
    "getraises": ("attribute",),
    "setraises": ("attribute",),
    "views": ("operation", "attribute"),
    "cpp": ("native",),
}


def _number(text):
    if not re.fullmatch(r"0[xX][0-9a-fA-F]+|[0-9]+", text):
        return None
    value = int(text, 0) if text.lower().startswith("0x") else int(text)
    return value if 0 < value <= 0xFFFFFFFF else None


class Pragmas:
    """Gives each declaration what its pragmas say: classId, firstCode, code, setCode,
    getRaises, setRaises, views, cpp."""

    def __init__(self, report):
        self._report = report

    def apply(self, entry):
        for pragma in entry.pop("pragmas", []):
            words = pragma["text"].split()
            if words[:1] == ["reflectorb"]:
                self._apply(entry, pragma, words[1:])

    def refuse_loose(self, pragmas):
        for pragma in pragmas:
            if pragma["text"].split()[:1] == ["reflectorb"]:
                self._report.error(pragma, "this pragma stands before any declaration")

    def _apply(self, entry, pragma, words):
        kind = words[0] if words else ""
        if kind not in _OWNERS:
            self._report.error(pragma, "unknown pragma reflectorb %s" % kind)
        elif pragma["file"] != entry["file"]:
            self._report.error(
                pragma,
                "this pragma stands before any declaration of this file: it would belong to %s of %s"
                % (entry["name"], entry["file"]),
            )
        elif entry["kind"] not in _OWNERS[kind]:
            self._report.error(
                pragma,
                "pragma %s belongs to an %s, here it follows the %s %s"
                % (kind, " or ".join(_OWNERS[kind]), entry["kind"], entry["name"]),
            )
        else:
            getattr(self, "_" + kind)(entry, pragma, words[1:])

    def _numbers(self, pragma, words, most):
        values = [_number(word) for word in words]
        if not 1 <= len(words) <= most or None in values:
            self._report.error(pragma, "pragma %s takes numbers from 1" % pragma["text"].split()[1])
            return None
        return values

    def _class(self, entry, pragma, words):
        values = self._numbers(pragma, words, 1)
        if values:
            entry["classId"] = values[0]

    def _codes(self, entry, pragma, words):
        values = self._numbers(pragma, words, 1)
        if values:
            entry["firstCode"] = values[0]

    def _code(self, entry, pragma, words):
        most = 2 if entry["kind"] == "attribute" and not entry["readonly"] else 1
        values = self._numbers(pragma, words, most)
        if not values:
            return
        entry["code"] = values[0]
        if most == 2:
            entry["setCode"] = values[-1] if len(values) == 2 else values[0] + 1

    def _raises(self, entry, pragma, words):
        self._getraises(entry, pragma, words)
        if not entry["readonly"]:
            self._setraises(entry, pragma, words)

    def _getraises(self, entry, pragma, words):
        self._raise(entry, pragma, words, "getRaises")

    def _setraises(self, entry, pragma, words):
        if entry["readonly"]:
            self._report.error(pragma, "nobody writes a readonly attribute")
        self._raise(entry, pragma, words, "setRaises")

    def _raise(self, entry, pragma, words, key):
        if not words:
            self._report.error(pragma, "this pragma takes names of exceptions")
        entry.setdefault(key, []).extend((word, pragma) for word in words)

    def _views(self, entry, pragma, words):
        if words:
            self._report.error(pragma, "pragma views takes nothing")
        entry["views"] = True

    def _cpp(self, entry, pragma, words):
        if len(words) < 3:
            self._report.error(pragma, "pragma cpp takes a C++ type, its header and a name for tables")
            return
        # The type may have blanks in it; header and name have none.
        entry["cpp"] = {"type": " ".join(words[:-2]), "header": words[-2], "grammar": words[-1]}
