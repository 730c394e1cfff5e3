"""What an interface is in C++: its codes, its table, the skeleton and the client class."""
from . import members
from .names import INHERITED, capital, escaped
from .part import Part
from .scopes import results
from .writer import WIDTH, plain

_KIND = "TreflectMetaClass::Attribute::"
_DISPATCH = "(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,"


class Classes(Part):
    def __init__(self, generator):
        super().__init__(generator)
        self._plain = generator.plain
        self._declared_tables = set()

    # ---- Codes and structs of results ----------------------------------------------------------

    def codes(self, out, entry):
        out.namespace(self._scopes.interior(entry))
        out.blank()
        out.line("constexpr unsigned int kClass = 0x%08X;" % entry["classId"])
        codes = ["%s = %s" % (m.constant, _code(m.code)) for m in members.own(self._all, entry)]
        out.enum("enum Method : unsigned int", codes)

    def result(self, out, entry, operation):
        place = self._scopes.result(entry, operation)
        doc = "What `%s` of %s yields." % (operation["name"], entry["name"])
        fields = [(name, type_, "") for name, type_ in results(operation)]
        self._plain.fields(out, place, doc, fields)

    # ---- Client class --------------------------------------------------------------------------

    def client(self, out, entry):
        place = self._scopes.client(entry)
        scope = place[:-1]
        base = "TreflectObject"
        bases = [self._all.find(name) for name in entry["bases"]]
        if bases:
            base = self._scopes.short(self._scopes.client(bases[0]), scope)
        out.namespace(scope)
        out.blank()
        about = plain(entry["doc"])
        out.doc(about if about else "A handle on objects of the class %s." % entry["name"])
        out.class_head(place[-1], base)
        out.label("public:")
        out.line("using %s::%s;" % (base, base.split("::")[-1]))
        for other in self._other_bases(entry):
            name = self._scopes.short(self._scopes.client(other), scope)
            out.blank()
            out.doc("The same object as one of its base class.")
            out.line("operator %s() const { return as<%s>(); }" % (name, name))
        self._client_functions(out, entry, scope)
        out.close("};")

    def _other_bases(self, entry):
        """The bases that the C++ class does not have as its own."""
        if not entry["bases"]:
            return []
        first = self._all.find(entry["bases"][0])
        inherited = [first] + self._all.bases(first)
        return [base for base in self._all.bases(entry) if base not in inherited]

    def _client_functions(self, out, entry, scope):
        for member in self._listed(out, entry):
            out.doc(member.doc)
            hidden = self._hidden(entry, member)
            result = self.client_result(member, scope, hidden)
            out.list(
                "%s %s(" % (result, member.function),
                self._parameters(member, scope, hidden),
                ") const;",
            )

    def _listed(self, out, entry):
        """The functions of a class, which stand in it behind an empty line."""
        functions = members.all_of_class(self._all, entry)
        if functions:
            out.blank()
        return functions

    def _hidden(self, entry, member):
        return (
            INHERITED
            | members.all_names(self._all, entry)
            | {escaped(name) for name in member.argument_names}
        )

    def _parameters(self, member, scope, hidden):
        return [
            "%s %s" % (self._types.passed(type_, scope, hidden), escaped(name))
            for name, type_ in member.arguments
        ]

    def _served_parameters(self, member, scope, hidden):
        if "views" not in member.entry:
            return self._parameters(member, scope, hidden)
        return [
            "%s %s" % (self._types.view(type_) or self._types.passed(type_, scope, hidden), escaped(name))
            for name, type_ in member.arguments
        ]

    def _value(self, member, scope, hidden):
        """The type of what an operation yields."""
        if member.has_struct:
            place = self._scopes.result(member.declaring, member.entry)
            return self._scopes.short(place, scope, hidden)
        return self._types.cpp(member.results[0][1], scope, hidden) if member.results else "void"

    def client_result(self, member, scope, hidden):
        if member.raises:
            return self._outcome(member, scope, hidden)
        return "TipprmiResult<%s>" % self._value(member, scope, hidden)

    def server_result(self, member, scope, hidden):
        if member.raises:
            return self._outcome(member, scope, hidden)
        return self._value(member, scope, hidden)

    def _outcome(self, member, scope, hidden):
        types = [self._value(member, scope, hidden)]
        types += [self._scopes.short(self._scopes.place(e), scope, hidden) for e in member.raises]
        return "TipprmiOutcome<%s>" % ", ".join(types)

    # ---- Table ---------------------------------------------------------------------------------

    def table(self, out, entry):
        place = self._scopes.meta(entry)
        scope = place[:-1]
        self._declare_tables(out, entry)
        self._declared_tables.add(entry["scoped"])
        out.namespace(scope)
        out.blank()
        out.line("inline TreflectMetaClass const %s(" % place[-1])
        bases = [self._all.find(name) for name in entry["bases"]]
        names = ["&" + self._scopes.short(self._scopes.meta(base), scope) for base in bases]
        interior = self._scopes.short(self._scopes.interior(entry), scope)
        operations = [self._operation(m, interior, scope) for m in members.own(self._all, entry)]
        attributes = [
            self._attribute(e, scope) for e in self._all.own(entry) if e["kind"] == "attribute"
        ]
        out.line('    "%s", %s::kClass, {%s},' % (entry["scoped"], interior, ", ".join(names)))
        docs = members.docs(self._all, entry)
        end = "," if attributes or docs else ");"
        if operations:
            self._operations(out, operations, end)
        else:
            out.line("    {}" + end)
        if attributes:
            out.list("    {", attributes, "}, {}," if docs else "});")
        elif docs:
            out.line("    {}, {},")
        if docs:
            self._docs(out, plain(entry["doc"]), docs)

    @staticmethod
    def _docs(out, text, docs):
        """The comments: that of the class, those of its members."""
        docs = [pair for pair in docs if pair[0]]
        out.literals("    {", [_literal(text)], "," if docs else "});")
        for index, (name, about) in enumerate(docs):
            head = ("     {{" if index == 0 else "      {") + '"%s", ' % name
            out.literals(head, [_literal(about)], "}}});" if index == len(docs) - 1 else "},")

    def _operations(self, out, operations, end):
        for index, (head, taken, given, raised) in enumerate(operations):
            tail = "}}" + end if index == len(operations) - 1 else "},"
            before = ("    {" if index == 0 else "     ") + head
            refusals = ", {%s}" % ", ".join("{%s, %s}" % pair for pair in raised) if raised else ""
            single = "%s{%s}, {%s}%s%s" % (
                before, ", ".join(taken), ", ".join(given), refusals, tail)
            if len(single) <= WIDTH:
                out.line(single)
                continue
            out.line(before.rstrip())
            for types, last in ((taken, ","), (given, "," if raised else tail)):
                out.literals("      {", types, "}" + last)
            self._refusals(out, raised, tail)

    @staticmethod
    def _refusals(out, raised, tail):
        for index, (code, type_) in enumerate(raised):
            head = ("      {{" if index == 0 else "       {") + code + ","
            last = "}}" + tail if index == len(raised) - 1 else "},"
            if len(head) + 1 + len(type_) + len(last) <= WIDTH:
                out.line("%s %s%s" % (head, type_, last))
                continue
            out.line(head)
            out.literals("        ", [type_], last)

    def _operation(self, member, interior, scope):
        head = '{"%s", %s::%s, ' % (member.name, interior, member.constant)
        taken = ['"%s %s"' % (self._types.text(type_), name) for name, type_ in member.arguments]
        given = ['"%s"' % self._types.text(type_) for _, type_ in member.results]
        raised = [
            (
                self._scopes.short(self._scopes.place(e), scope) + "::kCode",
                '"%s"' % self._types.exception_text(e),
            )
            for e in member.raises
        ]
        return head, taken, given, raised

    def _attribute(self, attribute, scope):
        name = '"%s"' % capital(attribute["name"])
        kind, length = self._types.elements(attribute["type"])
        parts = [name]
        owner = self._types.value_class(attribute["type"])
        if owner:
            parts.append(self._scopes.short(self._scopes.meta(owner), scope))
        if kind != "Plain":
            parts.append(_KIND + "k" + kind)
            if length or owner:
                parts.append(str(length))
        return name if len(parts) == 1 else "{%s}" % ", ".join(parts)

    def _declare_tables(self, out, entry):
        """Tables of the classes of values may come later, or be this very one."""
        for attribute in self._all.own(entry):
            is_attribute = attribute["kind"] == "attribute"
            owner = self._types.value_class(attribute["type"]) if is_attribute else None
            if not owner or not owner["main"] or owner is entry:
                continue
            if owner["scoped"] not in self._declared_tables:
                self._declared_tables.add(owner["scoped"])
                place = self._scopes.meta(owner)
                out.namespace(place[:-1])
                out.blank()
                out.line("extern TreflectMetaClass const %s;" % place[-1])

    # ---- Skeleton ------------------------------------------------------------------------------

    def skeleton(self, out, entry):
        place = self._scopes.skeleton(entry)
        scope = place[:-1]
        bases = [self._all.find(name) for name in entry["bases"]]
        arguments = [self._scopes.short(self._scopes.meta(entry), scope)]
        if bases:
            arguments.append(self._scopes.short(self._scopes.skeleton(bases[0]), scope))
        out.namespace(scope)
        out.blank()
        out.doc("What a server object of the class %s derives from and fills in." % entry["name"])
        out.class_head(place[-1], "TreflectSkeleton<%s>" % ", ".join(arguments))
        out.label("public:")
        out.line("using TreflectSkeleton::TreflectSkeleton;")
        functions = self._listed(out, entry)
        for member in functions:
            hidden = self._hidden(entry, member)
            result = self.server_result(member, scope, hidden)
            out.list(
                "virtual %s %s(" % (result, member.function),
                self._served_parameters(member, scope, hidden),
                ") = 0;",
            )
        if functions:
            out.blank()
            out.line("bool dispatch" + _DISPATCH)
            out.line("              TipprmiStream& out) override;")
        out.close("};")

    # ---- Bodies --------------------------------------------------------------------------------

    def bodies(self, out, entry, prefix):
        for operation in self._all.own(entry):
            if operation["kind"] == "operation" and len(results(operation)) > 1:
                place = self._scopes.result(entry, operation)
                self._plain.operator_bodies(out, place, [n for n, _ in results(operation)], prefix)
        functions = members.all_of_class(self._all, entry)
        if functions:
            self._dispatch_body(out, entry, functions, prefix)
        for member in functions:
            self._client_body(out, entry, member, prefix)

    def _dispatch_body(self, out, entry, functions, prefix):
        place = self._scopes.skeleton(entry)
        hidden = self._hidden(entry, functions[0])
        out.namespace(place[:-1])
        out.blank()
        head = "%sbool %s::dispatch(" % (prefix, place[-1])
        out.list(head, ["bool withResponse", "unsigned int cc", "unsigned int mc", "TipprmiStream& in", "TipprmiStream& out"], ") {")
        out.open("    switch (mc) {")
        for member in functions:
            names = self._scopes.short(self._scopes.interior(member.declaring), place[:-1], hidden)
            out.line("    case %s::%s:" % (names, member.constant))
            out.list(
                "        return serve(",
                ["%s::kClass" % names, "cc", "mc", "in", "out", "&%s::%s" % (place[-1], member.function)],
                ");",
            )
        out.line("    default:")
        out.line("        return TreflectSkeleton::dispatch(withResponse, cc, mc, in, out);")
        out.close("    }")
        out.line("}")

    def _client_body(self, out, entry, member, prefix):
        place = self._scopes.client(entry)
        scope = place[:-1]
        hidden = self._hidden(entry, member)
        out.namespace(scope)
        out.blank()
        # What stands ahead of the class is looked up outside of it.
        head = "%s%s %s::%s(" % (
            prefix,
            self.client_result(member, scope, frozenset()),
            place[-1],
            member.function,
        )
        out.list(head, self._parameters(member, scope, hidden), ") const {")
        names = self._scopes.short(self._scopes.interior(member.declaring), scope, hidden)
        codes = ["*this", "%s::kClass" % names, "%s::%s" % (names, member.constant)]
        skeleton = self._scopes.short(self._scopes.skeleton(entry), scope, hidden)
        call = "tipprmiSend("
        if not member.oneway:
            call = "treflectCall("
            codes.append("&%s::%s" % (skeleton, member.function))
        out.list("    return " + call, codes + member.argument_names, ");")
        out.line("}")


def _literal(text):
    """As a string of C++, without what compilers of old took for trigraphs."""
    replaced = (("\\", "\\\\"), ('"', '\\"'), ("\n", "\\n"), ("\r", ""), ("\t", " "), ("??", "?\\?"))
    for sign, written in replaced:
        text = text.replace(sign, written)
    return '"%s"' % text


def _code(code):
    """Codes of a block are easier to read in hexadecimal digits."""
    return "0x%08X" % code if code > 0xFFFF else str(code)
