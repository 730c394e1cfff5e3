"""Back end of omniidl: writes what it has parsed as JSON, in the order of declaration, judging nothing.

omniidl loads it by its name (-b reflectorb_json) and runs it with the Python that it is bound to.
The path to write to stands in the environment variable REFLECTORB_IDL_OUTPUT, since the arguments of
back ends end at commas. compiler/README.md describes the format.
"""
import json
import os

from omniidl import idlast, idltype

_BASES = {
    idltype.tk_void: "void",
    idltype.tk_short: "short",
    idltype.tk_long: "long",
    idltype.tk_ushort: "unsigned short",
    idltype.tk_ulong: "unsigned long",
    idltype.tk_longlong: "long long",
    idltype.tk_ulonglong: "unsigned long long",
    idltype.tk_float: "float",
    idltype.tk_double: "double",
    idltype.tk_longdouble: "long double",
    idltype.tk_boolean: "boolean",
    idltype.tk_char: "char",
    idltype.tk_wchar: "wchar",
    idltype.tk_octet: "octet",
    idltype.tk_any: "any",
    idltype.tk_TypeCode: "TypeCode",
}
_KINDS = {
    "Interface": "interface",
    "Struct": "struct",
    "Exception": "exception",
    "Union": "union",
    "Enum": "enum",
    "Declarator": "typedef",
    "Native": "native",
    "Forward": "forward",
    "StructForward": "struct",
    "UnionForward": "union",
    "Value": "valuetype",
    "ValueAbs": "valuetype",
    "ValueForward": "valuetype",
    "ValueBox": "valuebox",
}
_DIRECTIONS = ("in", "out", "inout")


def _scoped(names):
    return "::".join(names)


def _type(idl):
    if isinstance(idl, idltype.String):
        return {"base": "string", "bound": idl.bound()}
    if isinstance(idl, idltype.WString):
        return {"base": "wstring", "bound": idl.bound()}
    if isinstance(idl, idltype.Sequence):
        return {"sequence": _type(idl.seqType()), "bound": idl.bound()}
    if isinstance(idl, idltype.Fixed):
        return {"fixed": [idl.digits(), idl.scale()]}
    if isinstance(idl, idltype.Declared):
        # Object and ValueBase have no declaration.
        decl = idl.decl()
        if not isinstance(decl, idlast.Decl):
            return {"base": _scoped(idl.scopedName())}
        decl = decl.fullDecl() or decl
        return {"ref": _scoped(idl.scopedName()), "kind": _KINDS[type(decl).__name__]}
    return {"base": _BASES.get(idl.kind(), "kind %d" % idl.kind())}


def _declared(idl, declarator):
    """The type of one declarator, whose array dimensions stand behind its name."""
    result = _type(idl)
    for size in reversed(declarator.sizes()):
        result = {"array": result, "size": size}
    return result


def _value(kind, value):
    if isinstance(value, idlast.Decl):
        return {"enumerator": _scoped(value.scopedName())}
    if isinstance(value, str) and kind in (idltype.tk_string, idltype.tk_char):
        # omniidl reads bytes as Latin-1.
        return list(value.encode("latin-1"))
    if isinstance(value, float) and value not in (float("inf"), float("-inf")):
        return value
    if isinstance(value, (int, str)):
        return value
    return None


class _Writer:
    def __init__(self):
        self.trailing = []  # comments behind what they are about
        self.entries = []

    def _doc(self, decl, line):
        """The comment that ends right above the declaration, or on its line."""
        lines = []
        for comment in decl.comments():
            text = comment.text().strip()
            if text.startswith(("/**<", "///<")):
                self.trailing.append((comment.file(), comment.line(), text))
            elif text.startswith(("/**", "///")) and comment.file() == decl.file():
                end = comment.line() + text.count("\n")
                if lines and lines[-1][0] < comment.line() - 1:
                    lines = []
                lines.append((end, text))
        if lines and lines[-1][0] in (line - 1, line):
            return [text for _, text in lines]
        return []

    def _entry(self, kind, decl, name=None, parent=None):
        line = decl.line()
        entry = {
            "kind": kind,
            "name": name if name is not None else decl.identifier(),
            "file": decl.file(),
            "line": line,
            "main": bool(decl.mainFile()),
            "doc": self._doc(decl, line),
            "pragmas": [
                {"text": p.text(), "file": p.file(), "line": p.line()}
                for owner in ([parent, decl] if parent else [decl])
                for p in owner.pragmas()
            ],
        }
        if isinstance(decl, idlast.DeclRepoId):
            entry["scoped"] = _scoped(decl.scopedName())
            entry["repoId"] = decl.repoId()
        self.entries.append(entry)
        return entry

    def declarations(self, decls):
        result = []
        for decl in decls:
            result.extend(getattr(self, "_" + type(decl).__name__)(decl))
        return result

    def _Module(self, decl):
        entry = self._entry("module", decl)
        entry["declarations"] = self.declarations(decl.definitions())
        return [entry]

    def _Interface(self, decl):
        entry = self._entry("interface", decl)
        # A base may be named by a typedef.
        entry["bases"] = [_scoped(base.fullDecl().scopedName()) for base in decl.inherits()]
        entry["abstract"] = bool(decl.abstract())
        entry["local"] = bool(decl.local())
        entry["contents"] = self.declarations(decl.contents())
        return [entry]

    def _forward(self, decl, of):
        entry = self._entry("forward", decl)
        entry["of"] = of
        entry["defined"] = decl.fullDecl() is not None
        return [entry]

    def _Forward(self, decl):
        return self._forward(decl, "interface")

    def _StructForward(self, decl):
        return self._forward(decl, "struct")

    def _UnionForward(self, decl):
        return self._forward(decl, "union")

    def _constructed(self, decl, idl):
        """A type that is declared in place comes ahead of its user."""
        return self.declarations([idl.decl()]) if decl.constrType() else []

    def _Typedef(self, decl):
        result = self._constructed(decl, decl.aliasType())
        for declarator in decl.declarators():
            entry = self._entry("typedef", declarator, parent=decl)
            entry["type"] = _declared(decl.aliasType(), declarator)
            result.append(entry)
        return result

    def _Const(self, decl):
        entry = self._entry("const", decl)
        entry["type"] = _type(decl.constType())
        entry["value"] = _value(decl.constKind(), decl.value())
        return [entry]

    def _members(self, entry, members):
        """The fields of a struct; yields the types that they declare."""
        result = []
        entry["fields"] = []
        for member in members:
            result.extend(self._constructed(member, member.memberType()))
            for declarator in member.declarators():
                field = self._entry("field", declarator, parent=member)
                field["type"] = _declared(member.memberType(), declarator)
                entry["fields"].append(field)
        return result

    def _Struct(self, decl):
        entry = self._entry("struct", decl)
        return self._members(entry, decl.members()) + [entry]

    def _Exception(self, decl):
        entry = self._entry("exception", decl)
        return self._members(entry, decl.members()) + [entry]

    def _Union(self, decl):
        entry = self._entry("union", decl)
        result = self._constructed(decl, decl.switchType())
        entry["switch"] = _type(decl.switchType())
        entry["cases"] = []
        for case in decl.cases():
            result.extend(self._constructed(case, case.caseType()))
            field = self._entry("case", case.declarator(), parent=case)
            field["type"] = _declared(case.caseType(), case.declarator())
            field["labels"] = [
                "default" if label.default() else _value(label.labelKind(), label.value())
                for label in case.labels()
            ]
            entry["cases"].append(field)
        return result + [entry]

    def _Enum(self, decl):
        entry = self._entry("enum", decl)
        entry["enumerators"] = [self._entry("enumerator", e) for e in decl.enumerators()]
        return [entry]

    def _Attribute(self, decl):
        result = []
        for declarator in decl.declarators():
            entry = self._entry("attribute", declarator, parent=decl)
            entry["type"] = _type(decl.attrType())
            entry["readonly"] = bool(decl.readonly())
            result.append(entry)
        return result

    def _Operation(self, decl):
        entry = self._entry("operation", decl)
        entry["oneway"] = bool(decl.oneway())
        entry["returns"] = _type(decl.returnType())
        entry["parameters"] = []
        for parameter in decl.parameters():
            item = self._entry("parameter", parameter)
            item["direction"] = _DIRECTIONS[parameter.direction()]
            item["type"] = _type(parameter.paramType())
            entry["parameters"].append(item)
        entry["raises"] = [_scoped(e.scopedName()) for e in decl.raises()]
        entry["contexts"] = list(decl.contexts())
        return [entry]

    def _Native(self, decl):
        return [self._entry("native", decl)]

    def _ValueBox(self, decl):
        return [self._entry("valuebox", decl)]

    def _Value(self, decl):
        return [self._entry("valuetype", decl)]

    _ValueAbs = _Value
    _ValueForward = _Value

    def give_back_trailing(self):
        """A comment that points back has arrived at the declaration behind it."""
        for file, line, text in self.trailing:
            for entry in reversed(self.entries):
                if entry["file"] == file and entry["line"] == line:
                    entry["doc"].append(text)
                    break


def _builtin(decl):
    return decl.builtIn()


def run(tree, _arguments):
    writer = _Writer()
    declarations = writer.declarations([d for d in tree.declarations() if not _builtin(d)])
    for comment in tree.comments():
        if comment.text().strip().startswith(("/**<", "///<")):
            writer.trailing.append((comment.file(), comment.line(), comment.text().strip()))
    writer.give_back_trailing()
    description = {
        "format": 1,
        "file": tree.file(),
        "pragmas": [
            {"text": p.text(), "file": p.file(), "line": p.line()} for p in tree.pragmas()
        ],
        "declarations": declarations,
    }
    with open(os.environ["REFLECTORB_IDL_OUTPUT"], "w", encoding="utf-8") as out:
        json.dump(description, out, allow_nan=False)
