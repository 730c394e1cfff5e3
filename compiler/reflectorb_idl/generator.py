"""Writes the header and the source for one description."""
import os

from .classes import Classes
from .order import Order
from .plain import Plain
from .types import Types
from .unions import Unions
from .writer import Writer

_STANDARD = (
    ("std::array<", "<array>"),
    ("std::int", "<cstdint>"),
    ("std::uint", "<cstdint>"),
    ("std::string", "<string>"),
    ("std::string_view", "<string_view>"),
    ("std::wstring", "<string>"),
    ("std::variant<", "<variant>"),
    ("std::vector<", "<vector>"),
)
# Headers that are included where they are needed in any case.
_BROUGHT = frozenset(["ipprmi.h", "reflect.h", "cstdint"])


class Generator:
    """`includes` are the headers of the files that this one includes, as they are written behind
    #include."""

    def __init__(self, description, scopes, header_name, includes, header_only=False):
        self.all = description
        self.scopes = scopes
        self.types = Types(description, scopes)
        self.plain = Plain(self)
        self.unions = Unions(self)
        self.classes = Classes(self)
        self.declarers = {
            kind: getattr(self.plain, kind) for kind in ("struct", "exception", "enum", "typedef", "const")
        }
        self.declarers["union"] = self.unions.union
        self._header_name = header_name
        self._includes = includes
        self._header_only = header_only

    def run(self):
        """The texts of the header and of the source; no source of a header alone."""
        body = Writer()
        nodes = Order(self).nodes()
        self._forwards(body, nodes)
        for node in nodes:
            node.emit(body)
        for entry in self.all.all():
            if entry["main"] and "refused" not in entry:
                self.plain.type_name(body, entry)
        for entry in self._own_interfaces():
            self.classes.table(body, entry)
            self.classes.skeleton(body, entry)
        if self._header_only:
            self._bodies(body, "inline ")
        body.namespace(())
        header = self._head(body.text()) + "\n" + body.text().lstrip("\n")
        return header, None if self._header_only else self._source()

    def _own_interfaces(self):
        return [e for e in self.all.interfaces() if e["main"] and "refused" not in e]

    def _first_line(self, out):
        name = os.path.basename(self.all.tree["file"])
        out.line("// Generated from %s by reflectorb-idl: change that file, not this one." % name)

    def _head(self, text):
        out = Writer()
        self._first_line(out)
        out.line("#pragma once")
        standard = sorted({header for mark, header in _STANDARD if mark in text})
        for group in (["<ipprmi.h>", "<reflect.h>"], standard, self._includes + self._natives(text)):
            if group:
                out.blank()
            for header in group:
                out.line("#include " + header)
        return out.text()

    def _natives(self, text):
        """The headers of the C++ types that stand for native ones."""
        found = []
        for entry in self.all.all():
            if entry["kind"] == "native" and "cpp" in entry and entry["cpp"]["type"] in text:
                header = entry["cpp"]["header"].strip('"<>')
                marked = entry["cpp"]["header"] if header != entry["cpp"]["header"] else '"%s"' % header
                if header not in _BROUGHT and marked not in found:
                    found.append(marked)
        return found

    def _source(self):
        out = Writer()
        self._first_line(out)
        out.line('#include "%s"' % self._header_name)
        self._bodies(out, "")
        out.namespace(())
        return out.text()

    def _bodies(self, out, prefix):
        for entry in self.all.all():
            if not entry["main"] or "refused" in entry:
                continue
            if entry["kind"] in ("struct", "exception"):
                names = [field["name"] for field in entry["fields"]]
                self.plain.operator_bodies(out, self.scopes.place(entry), names, prefix)
            elif entry["kind"] == "union":
                self.unions.bodies(out, entry, prefix)
            elif entry["kind"] == "interface":
                self.classes.bodies(out, entry, prefix)

    def _forwards(self, out, nodes):
        """Declares what is named before it is there."""
        later = {id(entry) for node in nodes for entry in node.declares}
        declared = []
        for node in nodes:
            for entry in node.mentions:
                if entry and id(entry) in later and entry not in declared and entry not in node.declares:
                    declared.append(entry)
            later.difference_update(id(entry) for entry in node.declares)
        for entry in declared:
            key, place = self._forward(entry)
            out.namespace(place[:-1])
            out.line("%s %s;" % (key, place[-1]))

    def _forward(self, entry):
        if entry["kind"] == "interface":
            return "class", self.scopes.client(entry)
        if entry["kind"] == "operation":
            owner = self.all.find(entry["scoped"].rpartition("::")[0])
            return "struct", self.scopes.result(owner, entry)
        return "class" if entry["kind"] == "union" else "struct", self.scopes.place(entry)
