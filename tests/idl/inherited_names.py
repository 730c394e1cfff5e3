"""The compiler knows all members that its classes inherit from the library's: it reads them from the
headers, since a generated function of the same name would hide or override one of them."""
import os
import re
import sys

from compiler_test import Test

_CLASSES = {
    "ipprmi/TipprmiObjectBase.h": "TipprmiObjectBase",
    "ipprmi/TipprmiObjectSkeleton.h": "TipprmiObjectSkeleton",
    "ipprmi/TipprmiObjectClient.h": "TipprmiObjectClient",
    "reflect/TreflectObservable.h": "TreflectObservable",
    "reflect/TreflectServerObject.h": "TreflectServerObject",
    "reflect/TreflectSkeleton.h": "TreflectSkeleton",
    "reflect/TreflectObject.h": "TreflectObject",
}


def body(text, name):
    """What stands between the braces of a class, without comments and what stands in other braces."""
    text = re.sub(r"/\*.*?\*/|//[^\n]*|decltype\(auto\)", "", text, flags=re.S)
    start = re.search(r"class (?:\w+ )*%s\b[^;{]*\{" % name, text).end()
    depth, kept = 1, []
    for letter in text[start:]:
        depth += {"{": 1, "}": -1}.get(letter, 0)
        if depth == 0:
            break
        kept.append(letter if depth == 1 else ";" if letter == "}" else "")
    return "".join(kept)


def members(text):
    """Functions and static objects that derived classes can see, and all types: also those that they
    cannot use are found by their names."""
    private = False
    for statement in re.split(r"[;{}]|(?<=public):|(?<=protected):|(?<=private):", text):
        words = statement.strip()
        if words in ("public", "protected", "private"):
            private = words == "private"
            continue
        types = re.match(r"(?:class|struct|enum|using) (\w+)(?: =|$)", words)
        if types:
            yield types.group(1)
        function = re.search(r"(\w+)\s*\((?!\))?", words)
        if private or types or not function:
            continue
        name = function.group(1)
        if not re.match(r"(T[ir]|operator|new|delete|noexcept)", name) and "friend" not in words:
            yield name


test = Test()
sys.path.insert(0, os.path.dirname(test.options.compiler))
from reflectorb_idl.names import INHERITED  # noqa: E402

found = set()
for header, name in _CLASSES.items():
    with open(os.path.join(test.options.source, "include", header), encoding="utf-8") as file:
        found.update(members(body(file.read(), name)))
test.expect(len(found) > 40, "only %d members were found" % len(found))
for missing in sorted(found - INHERITED):
    test.fault("compiler/reflectorb_idl/names.py does not know the member " + missing)
test.finish()
