"""The classes of a description as the process object of a running process serves them: values of
TreflectClassDescription, with the same members in the same order, and their text as
TreflectParameterType prints and reads it. So tools turn what a process tells into JSON, and back."""
import re

from . import members
from .names import capital
from .writer import plain

VERSION = 1
# Members that are no texts, though JSON has them as such.
_WORDS = frozenset(["kind", "hash"])


class Served:
    def __init__(self, description, types):
        self._all = description
        self._types = types
        self._made = {}

    def classes(self):
        """Those that the file itself declares."""
        own = [e for e in self._all.interfaces() if e["main"] and "refused" not in e]
        return [self.of(entry) for entry in own]

    def of(self, interface):
        name = interface["scoped"]
        if name not in self._made:
            self._made[name] = self._describe(interface)
        return self._made[name]

    def _describe(self, interface):
        comments = dict(members.docs(self._all, interface))
        described = {
            "version": VERSION,
            "name": interface["scoped"],
            "id": interface["classId"],
            "hash": "",
            "bases": [self._base(self._all.find(name)) for name in interface["bases"]],
            "operations": [
                self._operation(member, comments)
                for member in _in_order(members.own(self._all, interface), lambda m: m.name)
            ],
            "attributes": [
                self._attribute(entry, comments)
                for entry in _in_order(self._all.own(interface), lambda e: capital(e["name"]))
                if entry["kind"] == "attribute"
            ],
            "types": [],
            "doc": comments.get("", ""),
            "more": {},
        }
        described["hash"] = "0x%016X" % _hash(outline(described))
        return described

    def _base(self, interface):
        described = self.of(interface)
        return {key: described[key] for key in ("name", "id", "hash")}

    def _operation(self, member, comments):
        raises = {e["code"]: self._types.exception_text(e) for e in member.raises}
        return {
            "name": member.name,
            "code": member.code,
            "in": [self._parameter(type_, name) for name, type_ in member.arguments],
            "out": [self._parameter(type_, "") for _, type_ in member.results],
            "raises": [{"code": code, "type": raises[code]} for code in sorted(raises)],
            "doc": comments.get(member.name, ""),
            "more": {},
        }

    def _parameter(self, type_, name):
        return {"name": name, "type": self._types.text(type_)}

    def _attribute(self, entry, comments):
        kind, length = self._types.elements(entry["type"])
        owner = self._types.value_class(entry["type"])
        return {
            "name": capital(entry["name"]),
            "kind": kind,
            "length": length,
            "writable": not entry["readonly"],
            "valueClass": owner["scoped"] if owner else "",
            "valueClassId": owner["classId"] if owner else 0,
            "doc": comments.get(capital(entry["name"]), ""),
            "more": {},
        }


def _in_order(entries, name):
    return sorted(entries, key=lambda entry: name(entry).encode("utf-8"))


# ---- What makes the class ------------------------------------------------------------------------


def outline(described):
    """As TreflectClassDescription::outline."""
    lines = ["base %s %s" % (_class(b["name"], b["id"]), b["hash"][2:].lower())
             for b in described["bases"]]
    lines += [_operation_line(operation) for operation in described["operations"]]
    lines += [_attribute_line(attribute) for attribute in described["attributes"]]
    lines += ["type " + type_ for type_ in described["types"]]
    lines.sort(key=lambda line: line.encode("utf-8"))
    return ["class " + _class(described["name"], described["id"])] + lines


def _class(name, class_id):
    return "%s 0x%08X" % (name, class_id)


def _operation_line(operation):
    taken, given = (", ".join(p["type"] or "?" for p in operation[key]) for key in ("in", "out"))
    raised = sorted({" raises 0x%08X %s" % (e["code"], e["type"]) for e in operation["raises"]})
    return "operation %s %d (%s) -> (%s)%s" % (
        operation["name"], operation["code"], taken, given, "".join(raised))


def _attribute_line(attribute):
    line = "attribute " + attribute["name"]
    if attribute["kind"] != "Plain":
        line += " %s %d" % (attribute["kind"].lower(), attribute["length"])
    if attribute["writable"]:
        line += " writable"
    if attribute["valueClass"]:
        line += " of " + _class(attribute["valueClass"], attribute["valueClassId"])
    return line


def _hash(lines):
    value = 0xCBF29CE484222325
    for byte in "".join(line + "\n" for line in lines).encode("utf-8"):
        value = ((value ^ byte) * 0x100000001B3) & 0xFFFFFFFFFFFFFFFF
    return value


# ---- As text -------------------------------------------------------------------------------------


def to_text(value, key=""):
    """A description, or a list of them, as TreflectParameterType reads it."""
    if isinstance(value, dict):
        named = "%s: %s" if key != "more" else '"%s": %s'
        return "{%s}" % ", ".join(named % (k, to_text(v, k)) for k, v in value.items())
    if isinstance(value, list):
        return "[%s]" % ", ".join(to_text(entry) for entry in value)
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, str) and key not in _WORDS:
        return '"%s"' % re.sub(r'["\\\x00-\x1f\x7f]', _escape, value)
    return str(value)


def _escape(found):
    sign = found.group()
    return "\\" + sign if sign in '"\\' else "\\x%02X" % ord(sign)


_TOKEN = re.compile(r'\s*(?:("(?:[^"\\]|\\.)*")|([^\s\[\]{},:"]+)|([\[\]{},:]))', re.S)
_SIGNS = {"n": "\n", "r": "\r", "t": "\t"}


def from_text(text):
    """What TreflectParameterType has printed: structs and maps as dict, sequences as list."""
    tokens = [found.groups() for found in _TOKEN.finditer(text)]
    value, rest = _value(tokens, "")
    if rest:
        raise ValueError("something stands behind the value")
    return value


def _value(tokens, key):
    quoted, word, sign = tokens[0]
    if quoted:
        return _unescaped(quoted[1:-1]), tokens[1:]
    if word:
        return _word(word, key), tokens[1:]
    result, closing = ({}, "}") if sign == "{" else ([], "]")
    tokens = tokens[1:]
    while tokens[0][2] != closing:
        if tokens[0][2] == ",":
            tokens = tokens[1:]
        elif closing == "}":
            name = _unescaped(tokens[0][0][1:-1]) if tokens[0][0] else tokens[0][1]
            result[name], tokens = _value(tokens[2:], name)
        else:
            value, tokens = _value(tokens, key)
            result.append(value)
    return result, tokens[1:]


def _word(word, key):
    if word in ("true", "false"):
        return word == "true"
    if key == "hash":
        return "0x%016X" % int(word, 0)
    return word if key in _WORDS else int(word, 0)


def _unescaped(text):
    return re.sub(
        r"\\(x[0-9A-Fa-f]{2}|.)",
        lambda found: chr(int(found.group(1)[1:], 16))
        if len(found.group(1)) == 3
        else _SIGNS.get(found.group(1), found.group(1)),
        text,
        flags=re.S,
    )
