"""The order of declarations in a header: that of the IDL, except that what must be complete comes before
its user. (An interface may be declared, used in a struct, and defined later.)"""
from dataclasses import dataclass, field

from . import members
from .description import types_of
from .scopes import has_result_struct, results


@dataclass
class Node:
    """A piece of the header."""

    emit: object  # writes it
    declares: list = field(default_factory=list)  # entries of the description
    needs: list = field(default_factory=list)  # entries that must be complete before
    mentions: list = field(default_factory=list)  # entries that must be declared before


class Order:
    def __init__(self, generator):
        self._all = generator.all
        self._types = generator.types
        self._generator = generator

    def nodes(self):
        return _sorted(self._visit(self._all.tree["declarations"]))

    def _visit(self, entries):
        found = []
        for entry in entries:
            if entry["kind"] == "module":
                found.extend(self._visit(entry["declarations"]))
            elif not entry["main"]:
                continue
            elif entry["kind"] == "interface":
                found.extend(self._interface(entry))
            elif "refused" not in entry and entry["kind"] in self._generator.declarers:
                found.append(self._type(entry))
        return found

    def _interface(self, entry):
        """Its codes stand ahead of what is declared in it, its client class behind."""
        inside = self._visit(entry["contents"])
        if "refused" in entry:
            return inside
        classes = self._generator.classes
        codes = Node(lambda out: classes.codes(out, entry))
        structs = [
            self._result(entry, operation)
            for operation in self._all.own(entry)
            if operation["kind"] == "operation" and has_result_struct(operation)
        ]
        return [codes] + inside + structs + [self._client(entry)]

    def _type(self, entry):
        emit = self._generator.declarers[entry["kind"]]
        node = Node(lambda out: emit(out, entry), [entry])
        for type_ in types_of(entry):
            self._use(node, type_)
        for part in entry.get("fields", []) + entry.get("cases", []):
            node.needs.extend(self._types.by_value(part["type"]))
        return node

    def _client(self, entry):
        node = Node(lambda out: self._generator.classes.client(out, entry), [entry])
        node.needs.extend(self._all.find(name) for name in entry["bases"])
        for member in members.all_of_class(self._all, entry):
            for _, type_ in member.arguments + member.results:
                self._use(node, type_)
            node.mentions.extend(member.raises)
            if member.has_struct:
                node.mentions.append(member.entry)
        return node

    def _result(self, entry, operation):
        classes = self._generator.classes
        node = Node(lambda out: classes.result(out, entry, operation), [operation])
        for _, type_ in results(operation):
            self._use(node, type_)
            node.needs.extend(self._types.by_value(type_))
        return node

    def _use(self, node, type_):
        node.needs.extend(self._types.aliases(type_))
        node.mentions.extend(self._types.mentioned(type_))


def _sorted(nodes):
    owner = {id(entry): node for node in nodes for entry in node.declares}
    done, result = set(), []

    def place(node):
        if id(node) in done:
            return
        done.add(id(node))
        for entry in node.needs:
            if id(entry) in owner:
                place(owner[id(entry)])
        result.append(node)

    for node in nodes:
        place(node)
    return result
