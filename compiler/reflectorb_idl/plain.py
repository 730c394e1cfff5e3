"""Structs, exceptions, enums, typedefs and constants in C++."""
from .names import escaped
from .part import Part
from .writer import WIDTH, plain

_ESCAPES = {9: "\\t", 10: "\\n", 13: "\\r"}


class Plain(Part):
    # ---- Declarations --------------------------------------------------------------------------

    def struct(self, out, entry):
        self._fields(out, entry, [])

    def exception(self, out, entry):
        self._fields(out, entry, ["static constexpr unsigned int kCode = 0x%X;" % entry["code"]])

    def _fields(self, out, entry, first):
        place = self._scopes.place(entry)
        fields = [(f["name"], f["type"], plain(f["doc"])) for f in entry["fields"]]
        self.fields(out, place, plain(entry["doc"]), fields, first)

    def fields(self, out, place, doc, fields, first=()):
        """A struct, with its operators declared."""
        scope = place[:-1]
        hidden = {escaped(name) for name, _, _ in fields}
        out.namespace(scope)
        out.blank()
        out.doc(doc)
        out.open("struct %s {" % place[-1])
        for line in first:
            out.line(line)
        if first and fields:
            out.blank()
        for name, type_, about in fields:
            out.doc(about)
            out.line(self._types.field(type_, escaped(name), scope, hidden))
        out.close("};")
        self.operators(out, place)

    def operators(self, out, place):
        out.blank()
        out.line("TipprmiStream& operator<<(TipprmiStream& stream, %s const& value);" % place[-1])
        out.line("TipprmiStream& operator>>(TipprmiStream& stream, %s& value);" % place[-1])

    def enum(self, out, entry):
        place = self._scopes.place(entry)
        out.namespace(place[:-1])
        out.blank()
        out.doc(plain(entry["doc"]))
        names = [escaped(e["name"]) for e in entry["enumerators"]]
        abouts = [plain(e["doc"]) for e in entry["enumerators"]]
        if not any(abouts):
            out.enum("enum class %s : int" % place[-1], names)
            return
        out.open("enum class %s : int {" % place[-1])
        for name, about in zip(names, abouts):
            out.doc(about)
            out.line(name + ",")
        out.close("};")

    def typedef(self, out, entry):
        place = self._scopes.place(entry)
        out.namespace(place[:-1])
        out.blank()
        out.doc(plain(entry["doc"]))
        out.line("using %s = %s;" % (place[-1], self._types.cpp(entry["type"], place[:-1])))

    def const(self, out, entry):
        place = self._scopes.place(entry)
        out.namespace(place[:-1])
        out.blank()
        out.doc(plain(entry["doc"]))
        base = self._all.resolve(entry["type"])
        value = self.literal(base, entry["value"], place[:-1])
        if base.get("base") == "string":
            out.line("constexpr char %s[] = %s;" % (place[-1], value))
            return
        type_ = self._types.cpp(entry["type"], place[:-1])
        out.line("constexpr %s %s = %s;" % (type_, place[-1], value))

    def type_name(self, out, entry):
        """The name that a type of its own has in tables, by which values of it are checked."""
        if entry["kind"] == "exception":
            text = '"%s"' % self._types.exception_text(entry)
        elif entry["kind"] in ("struct", "union", "enum"):
            text = '"%s"' % self._types.text({"ref": entry["scoped"]})
        else:
            return
        out.namespace(())
        out.blank()
        out.line("template <>")
        out.open("struct TreflectTypeName<%s> {" % "::".join(self._scopes.place(entry)))
        out.function("static std::string text()", text)
        out.close("};")

    # ---- Values --------------------------------------------------------------------------------

    def literal(self, type_, value, scope):
        """A constant or a label of a case."""
        base = self._all.resolve(type_).get("base")
        if isinstance(value, dict):
            return self._enumerator(value["enumerator"], scope)
        if base == "boolean":
            return "true" if value else "false"
        if base == "string":
            return '"%s"' % "".join(_character(byte, '"') for byte in value)
        if base == "char":
            return "'%s'" % _character(value[0], "'")
        if base == "wchar":
            return "static_cast<wchar_t>(%d)" % (ord(value) if isinstance(value, str) else value)
        if base == "float":
            return repr(value) + "F"
        if base == "double":
            return repr(value)
        if base in ("unsigned long", "unsigned long long"):
            return "%du" % value
        # The smallest number cannot be written as such.
        if value in (-(2**31), -(2**63)):
            return "%d - 1" % (value + 1)
        return str(value)

    def _enumerator(self, scoped, scope):
        """An enumerator stands beside its enum in the IDL, and in it in C++."""
        for entry in self._all.all():
            if entry["kind"] == "enum":
                for enumerator in entry["enumerators"]:
                    if enumerator["scoped"] == scoped:
                        place = self._scopes.place(entry)
                        return self._scopes.short(place, scope) + "::" + escaped(enumerator["name"])
        raise KeyError(scoped)

    # ---- Bodies --------------------------------------------------------------------------------

    def operator_bodies(self, out, place, names, prefix):
        out.namespace(place[:-1])
        for operator, const in (("<<", " const"), (">>", "")):
            out.blank()
            value = " value" if names else ""
            out.open(
                "%sTipprmiStream& operator%s(TipprmiStream& stream, %s%s&%s) {"
                % (prefix, operator, place[-1], const, value)
            )
            if names:
                parts = ["%s value.%s" % (operator, escaped(name)) for name in names]
                _chain(out, "return stream", parts)
            else:
                out.line("return stream;")
            out.close()


def _chain(out, head, parts):
    """Operators one behind the other, in as few lines as they fit."""
    margin = " " * len(head)
    current = head
    for index, part in enumerate(parts):
        end = ";" if index == len(parts) - 1 else ""
        if len(current) + 1 + len(part) + len(end) > WIDTH - 4:
            out.line(current)
            current = margin
        current += " " + part + end
    out.line(current)


def _character(byte, quote):
    if chr(byte) in (quote, "\\"):
        return "\\" + chr(byte)
    if byte in _ESCAPES:
        return _ESCAPES[byte]
    if 32 <= byte < 127:
        return chr(byte)
    # Three octal digits, since a digit behind a shorter number would belong to it.
    return "\\%03o" % byte
