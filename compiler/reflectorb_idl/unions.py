"""Unions in C++: a class that holds one of its cases and tells which.

It travels as a std::variant of its cases does: the number of the case, in the order of the IDL, then
its value, with the discriminator ahead of it where several mean this case. Number 0 says that the
discriminator that follows means no case.
"""
from .cases import cases_of
from .part import Part
from .writer import plain


class Unions(Part):
    def __init__(self, generator):
        super().__init__(generator)
        self._plain = generator.plain

    # ---- Declaration ---------------------------------------------------------------------------

    def union(self, out, entry):
        place = self._scopes.place(entry)
        scope = place[:-1]
        cases = cases_of(self._all, entry)
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
        if case.has_choice:
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
        cases = cases_of(self._all, entry)
        hidden = {case.name for case in cases} | {"which"}
        out.namespace(scope)
        for case in cases:
            self._accessor_bodies(out, entry, case, place, hidden, prefix)
        self._write_body(out, cases, place, prefix)
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
        if case.has_choice:
            parameters.append(kind + " which")
            chosen = "which"
        out.open("%svoid %s::%s(%s) {" % (prefix, place[-1], case.name, ", ".join(parameters)))
        out.line("discriminator_ = %s;" % chosen)
        out.line("value_.emplace<%d>(value);" % case.index)
        out.close()

    def _write_body(self, out, cases, place, prefix):
        out.blank()
        out.open(
            "%sTipprmiStream& operator<<(TipprmiStream& stream, %s const& value) {"
            % (prefix, place[-1])
        )
        out.open("switch (value.value_.index()) {")
        for case in cases:
            chosen = "value.discriminator_ << " if case.has_choice else ""
            out.line("case %d:" % case.index)
            out.line("    return stream << %du << %s*value.%s();" % (case.index, chosen, case.name))
        out.line("default:")
        out.line("    return stream << 0u << value.discriminator_;")
        out.close()
        out.close()

    def _read_body(self, out, entry, cases, place, prefix):
        out.blank()
        out.open(
            "%sTipprmiStream& operator>>(TipprmiStream& stream, %s& value) {" % (prefix, place[-1])
        )
        out.line("unsigned int index = 0;")
        out.line("stream >> index;")
        out.open("switch (index) {")
        out.line("case 0:")
        out.line("    value.value_.emplace<0>();")
        out.line("    return stream >> value.discriminator_;")
        for case in cases:
            self._read_case(out, entry, case, place[:-1])
        out.line("default:")
        out.line("    stream.stopUnmarshalling();")
        out.line("    return stream;")
        out.close()
        out.close()

    def _read_case(self, out, entry, case, scope):
        out.line("case %d:" % case.index)
        if case.has_choice:
            out.line("    stream >> value.discriminator_;")
        else:
            out.line("    value.discriminator_ = %s;" % self._first(entry, case, scope))
        cpp = self._types.cpp(case.entry["type"], scope)
        emplace = "value.value_.emplace<%d>(tipprmiBlank<%s>());" % (case.index, cpp)
        out.line("    return stream >> " + emplace)

    def _first(self, entry, case, scope):
        """The discriminator that a case has unless told otherwise."""
        return self._plain.literal(entry["switch"], case.first, scope)
