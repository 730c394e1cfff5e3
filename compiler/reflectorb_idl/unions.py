"""Unions in C++: a class that holds one of its cases and tells which."""
from .names import escaped
from .writer import plain

_RANGES = {
    "boolean": range(0, 2),
    "char": range(0, 128),
    "octet": range(0, 256),
}
# Members of every union.
_OWN = frozenset(["which", "discriminator_", "value_"])


class _Case:
    def __init__(self, index, entry):
        self.index = index  # in the variant, where nothing is 0
        self.entry = entry
        self.name = escaped(entry["name"])
        if self.name in _OWN:
            self.name += "_"
        self.is_default = "default" in entry["labels"]
        self.labels = [label for label in entry["labels"] if label != "default"]


class Unions:
    def __init__(self, generator):
        self._all = generator.all
        self._scopes = generator.scopes
        self._types = generator.types
        self._plain = generator.plain

    # ---- Declaration ---------------------------------------------------------------------------

    def union(self, out, entry):
        place = self._scopes.place(entry)
        scope = place[:-1]
        cases = self._cases(entry)
        hidden = {case.name for case in cases} | {"which"}
        kind = self._types.cpp(entry["switch"], scope, hidden)
        out.namespace(scope)
        out.blank()
        out.doc(plain(entry["doc"]))
        out.open("class %s {" % place[-1])
        out.label("public:")
        out.line("/** Says which case is held. */")
        out.line("%s which() const { return discriminator_; }" % kind)
        for case in cases:
            self._functions(out, entry, case, kind, scope, hidden)
        out.blank()
        out.label("private:")
        for operator, const in (("<<", " const"), (">>", "")):
            out.line(
                "friend TipprmiStream& operator%s(TipprmiStream& stream, %s%s& value);"
                % (operator, place[-1], const)
            )
        self._state(out, entry, cases, kind, scope, hidden)
        out.close("};")
        self._plain.operators(out, place)

    def _functions(self, out, entry, case, kind, scope, hidden):
        type_ = case.entry["type"]
        out.blank()
        about = plain(case.entry["doc"])
        out.doc((about + "\n" if about else "") + "Null when another case is held.")
        out.line("%s const* %s() const;" % (self._types.cpp(type_, scope, hidden), case.name))
        passed = self._types.passed(type_, scope, hidden)
        first = self._first(entry, case, scope)
        if self._has_choice(entry, case):
            out.list("void %s(" % case.name, [passed + " value", "%s which = %s" % (kind, first)], ");")
        else:
            out.line("void %s(%s value);" % (case.name, passed))

    def _state(self, out, entry, cases, kind, scope, hidden):
        first = cases[0]
        out.line("%s discriminator_ = %s;" % (kind, self._first(entry, first, scope)))
        held = ["std::monostate"]
        held += [self._types.cpp(case.entry["type"], scope, hidden) for case in cases]
        blank = "tipprmiBlank<%s>()" % held[1]
        out.line("// Nothing, or the value of the case of that number.")
        out.list("std::variant<", held, "> value_{")
        out.line("    std::in_place_index<1>, %s};" % blank)

    # ---- Bodies --------------------------------------------------------------------------------

    def bodies(self, out, entry, prefix):
        place = self._scopes.place(entry)
        scope = place[:-1]
        cases = self._cases(entry)
        hidden = {case.name for case in cases} | {"which"}
        out.namespace(scope)
        for case in cases:
            self._accessor_bodies(out, entry, case, place, hidden, prefix)
        self._write_body(out, place, prefix)
        self._read_body(out, entry, cases, place, prefix)

    def _accessor_bodies(self, out, entry, case, place, hidden, prefix):
        scope = place[:-1]
        type_ = case.entry["type"]
        kind = self._types.cpp(entry["switch"], scope, hidden)
        out.blank()
        # What stands ahead of the class is looked up outside of it.
        outside = self._types.cpp(type_, scope)
        out.open("%s%s const* %s::%s() const {" % (prefix, outside, place[-1], case.name))
        out.line("return std::get_if<%d>(&value_);" % case.index)
        out.close()
        out.blank()
        parameters = [self._types.passed(type_, scope, hidden) + " value"]
        chosen = self._first(entry, case, scope)
        if self._has_choice(entry, case):
            parameters.append(kind + " which")
            chosen = "which"
        out.open("%svoid %s::%s(%s) {" % (prefix, place[-1], case.name, ", ".join(parameters)))
        out.line("discriminator_ = %s;" % chosen)
        out.line("value_.emplace<%d>(value);" % case.index)
        out.close()

    def _write_body(self, out, place, prefix):
        out.blank()
        out.open(
            "%sTipprmiStream& operator<<(TipprmiStream& stream, %s const& value) {"
            % (prefix, place[-1])
        )
        out.line("stream << value.discriminator_;")
        out.line("std::visit([&](auto const& held) { stream << held; }, value.value_);")
        out.line("return stream;")
        out.close()

    def _read_body(self, out, entry, cases, place, prefix):
        out.blank()
        out.open(
            "%sTipprmiStream& operator>>(TipprmiStream& stream, %s& value) {" % (prefix, place[-1])
        )
        out.line("stream >> value.discriminator_;")
        is_bool = self._all.resolve(entry["switch"]).get("base") == "boolean"
        out.open("switch (%s) {" % ("static_cast<int>(value.discriminator_)" if is_bool else "value.discriminator_"))
        for case in cases:
            if not case.is_default:
                self._labels(out, entry, case, place[:-1], is_bool)
                self._read_case(out, case, place[:-1])
        out.line("default:")
        default = [case for case in cases if case.is_default]
        if default:
            self._read_case(out, default[0], place[:-1])
        else:
            out.line("    value.value_.emplace<0>();")
            out.line("    return stream;")
        out.close()
        out.close()

    def _labels(self, out, entry, case, scope, is_bool):
        for label in case.labels:
            text = str(int(label)) if is_bool else self._plain.literal(entry["switch"], label, scope)
            out.line("case %s:" % text)

    def _read_case(self, out, case, scope):
        cpp = self._types.cpp(case.entry["type"], scope)
        out.line("    return stream >> value.value_.emplace<%d>(tipprmiBlank<%s>());" % (case.index, cpp))

    # ---- Cases ---------------------------------------------------------------------------------

    def _cases(self, entry):
        return [_Case(index + 1, case) for index, case in enumerate(entry["cases"])]

    def _has_choice(self, entry, case):
        """Whether more than one discriminator means this case."""
        return len(case.labels) > 1 or (case.is_default and self._free(entry) is not None)

    def _first(self, entry, case, scope):
        """The discriminator that a case has unless told otherwise."""
        value = case.labels[0] if case.labels else self._free(entry)
        return self._plain.literal(entry["switch"], value, scope)

    def _free(self, entry):
        """The first value that is nobody's label; null when all are taken."""
        used = [label for case in entry["cases"] for label in case["labels"]]
        base = self._all.resolve(entry["switch"])
        if base.get("kind") == "enum":
            values = [{"enumerator": e["scoped"]} for e in self._all.find(base["ref"])["enumerators"]]
        elif base.get("base") == "char":
            values = [[code] for code in _RANGES["char"]]
        else:
            values = _RANGES.get(base.get("base"), range(0, len(used) + 1))
        return next((value for value in values if value not in used), None)
