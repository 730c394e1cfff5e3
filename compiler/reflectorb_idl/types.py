"""IDL types in C++: how they are written, passed and begun."""
from .cases import cases_of
from .description import types_in
from .parser import OWN_IDL
from .scopes import arguments, results

_BASES = {
    "void": "void",
    "short": "std::int16_t",
    "long": "int",
    "long long": "std::int64_t",
    "unsigned short": "std::uint16_t",
    "unsigned long": "unsigned int",
    "unsigned long long": "std::uint64_t",
    "float": "float",
    "double": "double",
    "boolean": "bool",
    "char": "char",
    "wchar": "wchar_t",
    "octet": "std::uint8_t",
    "any": "TipprmiAny",
    "string": "std::string",
    "wstring": "std::wstring",
    "TypeCode": "std::string",
    "Principal": "std::vector<std::uint8_t>",
}
_TEXTS = {
    "short": "int16",
    "long": "int",
    "long long": "int64",
    "unsigned short": "uint16",
    "unsigned long": "unsigned",
    "unsigned long long": "uint64",
    "float": "float",
    "double": "double",
    "boolean": "bool",
    "char": "char",
    "wchar": "uint32",
    "octet": "uint8",
    "any": "any",
    "string": "string",
    "wstring": "sequence<uint32>",
    "TypeCode": "string",
    "Principal": "bytes",
}
_SCALARS = frozenset(_BASES) - {"void", "any", "string", "wstring", "TypeCode", "Principal"}


class Types:
    def __init__(self, description, scopes):
        self._all = description
        self._scopes = scopes

    # ---- C++ -----------------------------------------------------------------------------------

    def cpp(self, type_, scope, hidden=frozenset()):
        """The C++ type, to be named in the namespace `scope`."""
        if "sequence" in type_:
            return "std::vector<%s>" % self.cpp(type_["sequence"], scope, hidden)
        if "array" in type_:
            return "std::array<%s, %d>" % (self.cpp(type_["array"], scope, hidden), type_["size"])
        if "ref" in type_:
            return self._named(type_["ref"], scope, hidden)
        return _BASES.get(type_["base"], "TreflectObject")

    def _named(self, scoped, scope, hidden):
        entry = self._all.find(scoped)
        if entry is None or (entry["kind"] == "interface" and "refused" in entry):
            return "TreflectObject"
        if entry["kind"] == "interface":
            return self._scopes.short(self._scopes.client(entry), scope, hidden)
        if entry["kind"] == "native":
            return entry["cpp"]["type"]
        # No header is made of the compiler's own IDL: its names mean what they stand for.
        if entry["kind"] == "typedef" and entry["file"].startswith(OWN_IDL):
            return self.cpp(entry["type"], scope, hidden)
        return self._scopes.short(self._scopes.place(entry), scope, hidden)

    def passed(self, type_, scope, hidden=frozenset()):
        """The type of a parameter."""
        name = self.cpp(type_, scope, hidden)
        return name if self.is_scalar(type_) else name + " const&"

    def view(self, type_):
        """The type that shows a text, or bytes, without owning them; None for all else."""
        type_ = self._all.resolve(type_)
        cpp = _BASES.get(type_.get("base"))
        if cpp == "std::string":
            return "std::string_view"
        if cpp == "std::vector<std::uint8_t>" or self._is_bytes(type_):
            return "TipprmiByteView"
        return None

    def _is_bytes(self, type_):
        return "sequence" in type_ and self._all.resolve(type_["sequence"]) == {"base": "octet"}

    def is_scalar(self, type_):
        type_ = self._all.resolve(type_)
        return type_.get("base") in _SCALARS or type_.get("kind") == "enum"

    def field(self, type_, name, scope, hidden=frozenset()):
        """A field with the value that it begins with."""
        base = self._all.resolve(type_)
        cpp = self.cpp(type_, scope, hidden)
        if base.get("base") == "boolean":
            return "%s %s = false;" % (cpp, name)
        if base.get("base") in _SCALARS:
            return "%s %s = 0;" % (cpp, name)
        if base.get("kind") == "native":
            return "%s %s = tipprmiBlank<%s>();" % (cpp, name, cpp)
        return "%s %s{};" % (cpp, name)

    def result(self, interface, operation, scope, hidden=frozenset()):
        """What a call of an operation yields."""
        values = results(operation)
        if len(values) > 1:
            return self._scopes.short(self._scopes.result(interface, operation), scope, hidden)
        return self.cpp(values[0][1], scope, hidden) if values else "void"

    # ---- What must be declared before ----------------------------------------------------------

    def by_value(self, type_):
        """The declarations that must be complete where a value of the type stands."""
        type_ = self._all.resolve(type_)
        while "array" in type_:
            type_ = self._all.resolve(type_["array"])
        return [self._all.find(type_["ref"])] if "ref" in type_ else []

    def aliases(self, type_):
        """The declarations that have no forward declaration: typedefs and enums."""
        for inner in types_in(type_):
            if inner.get("kind") in ("typedef", "enum"):
                yield self._all.find(inner["ref"])

    def mentioned(self, type_):
        for inner in types_in(type_):
            if "ref" in inner:
                yield self._all.find(inner["ref"])

    # ---- Tables --------------------------------------------------------------------------------

    def text(self, type_, told=None):
        """The name that the type has in class tables. A type that was told in a text is named there
        from then on, also within itself."""
        told = set() if told is None else told
        if "sequence" in type_:
            if self._is_bytes(type_):
                return "bytes"
            return "sequence<%s>" % self.text(type_["sequence"], told)
        if "array" in type_:
            return "array<%s, %d>" % (self.text(type_["array"], told), type_["size"])
        if "ref" in type_:
            return self._named_text(type_, told)
        return _TEXTS.get(type_["base"], "object")

    def _named_text(self, type_, told):
        entry = self._all.find(type_["ref"])
        if entry is None or entry["kind"] == "interface":
            return "object"
        if entry["kind"] == "typedef":
            return self.text(entry["type"], told)
        if entry["kind"] == "native":
            return entry["cpp"]["grammar"]
        if entry["scoped"] in told:
            return entry["scoped"]
        told.add(entry["scoped"])
        parts = getattr(self, "_parts_of_" + entry["kind"])(entry, told)
        return "%s %s{%s}" % (entry["kind"], entry["scoped"], parts)

    @staticmethod
    def _parts_of_enum(entry, _told):
        return ", ".join("%s=%d" % (e["name"], i) for i, e in enumerate(entry["enumerators"]))

    def _parts_of_struct(self, entry, told):
        return ", ".join("%s %s" % (self.text(f["type"], told), f["name"]) for f in entry["fields"])

    def _parts_of_union(self, entry, told):
        """Case 0 is none, and a case that several labels mean tells which: see unions.py."""
        parts = ["%s nothing" % self.text(entry["switch"], told)]
        for case in cases_of(self._all, entry):
            text = self.text(case.entry["type"], told)
            if case.has_choice:
                text = "struct{%s which, %s value}" % (self.text(entry["switch"], told), text)
            parts.append("%s %s" % (text, case.entry["name"]))
        return ", ".join(parts)

    def exception_text(self, entry):
        """That of what comes with a refusal, which is a struct."""
        told = {entry["scoped"]}
        return "struct %s{%s}" % (entry["scoped"], self._parts_of_struct(entry, told))

    def elements(self, type_):
        """How the value of an attribute is made up of elements: the kind, and how many there are; of
        a sequence at most, where 0 sets no limit."""
        type_ = self._all.resolve(type_)
        if "sequence" in type_ and self.text(type_) != "bytes":
            return "Sequence", type_["bound"]
        return ("Array", type_["size"]) if "array" in type_ else ("Plain", 1)

    def value_class(self, type_):
        """The interface of the objects that are an attribute's value, or its elements."""
        type_ = self._all.resolve(type_)
        if "sequence" in type_ or "array" in type_:
            type_ = self._all.resolve(type_.get("sequence") or type_["array"])
        owner = self._all.find(type_.get("ref", ""))
        is_class = owner and owner["kind"] == "interface" and "refused" not in owner
        return owner if is_class else None

    def arguments(self, operation):
        return [self.text(type_) for _, type_ in arguments(operation)]

    def results(self, operation):
        return [self.text(type_) for _, type_ in results(operation)]
