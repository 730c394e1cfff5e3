"""Compares two versions of an interface: which changes break peers that were built from the other one."""
from . import members
from .cases import cases_of

SAME, FITS, BREAKS = 0, 1, 2
# What travels. Typedefs and constants do not: a type is compared where it is used.
_COMPARED = ("interface", "struct", "exception", "enum", "union")
_WORDS = {FITS: "fits", BREAKS: "breaks"}


class _Comparison:
    def __init__(self, old, new):
        self._old = old
        self._new = new
        self.verdict = SAME

    def run(self):
        for name, entry in self._old.by_name.items():
            if entry["kind"] not in _COMPARED:
                continue
            other = self._new.find(name)
            if other is None or other["kind"] != entry["kind"]:
                self._tell(BREAKS, entry, "%s %s is gone" % (entry["kind"], name))
            else:
                getattr(self, "_" + entry["kind"])(entry, other)
        for name, entry in self._new.by_name.items():
            if entry["kind"] in _COMPARED and self._old.find(name) is None:
                self._tell(FITS, entry, "%s %s is new" % (entry["kind"], name))
        return self.verdict

    def _tell(self, verdict, where, text):
        self.verdict = max(self.verdict, verdict)
        print("%s:%d: %s: %s" % (where["file"], where["line"], _WORDS[verdict], text))

    def _expect(self, same, where, text):
        if not same:
            self._tell(BREAKS, where, text)

    # ---- Kinds of declarations -----------------------------------------------------------------

    def _interface(self, old, new):
        name = new["scoped"]
        self._expect(
            old["classId"] == new["classId"],
            new,
            "the class id of %s was 0x%08X and is 0x%08X" % (name, old["classId"], new["classId"]),
        )
        for base in old["bases"]:
            self._expect(base in new["bases"], new, "%s has no base %s any more" % (name, base))
        for base in new["bases"]:
            if base not in old["bases"]:
                self._tell(FITS, new, "%s has a new base %s" % (name, base))
        before = {m.name: m for m in members.own(self._old, old)}
        after = {m.name: m for m in members.own(self._new, new)}
        for member in before.values():
            if member.name in after:
                self._member(name, member, after[member.name])
            else:
                self._tell(BREAKS, new, "%s has no operation %s any more" % (name, member.name))
        for member in after.values():
            if member.name not in before:
                self._tell(FITS, member.entry, "%s has a new operation %s" % (name, member.name))

    def _member(self, owner, old, new):
        name = "%s::%s" % (owner, new.name)
        where = new.entry
        self._expect(
            old.code == new.code, where, "the code of %s was %d and is %d" % (name, old.code, new.code)
        )
        self._expect(old.oneway == new.oneway, where, "%s was or is now oneway" % name)
        self._values(where, "arguments of " + name, old.arguments, new.arguments)
        self._values(where, "results of " + name, old.results, new.results)
        before, after = ({e["scoped"] for e in m.raises} for m in (old, new))
        if before != after:
            self._tell(FITS, where, "%s raises other exceptions" % name)

    def _values(self, where, what, old, new):
        before = [self._old_form(type_) for _, type_ in old]
        after = [self._new_form(type_) for _, type_ in new]
        self._expect(
            before == after,
            where,
            "the %s were (%s) and are (%s)" % (what, ", ".join(before), ", ".join(after)),
        )

    def _struct(self, old, new):
        fields = [[(f["name"], f["type"]) for f in entry["fields"]] for entry in (old, new)]
        self._values(new, "fields of " + new["scoped"], *fields)

    def _exception(self, old, new):
        """Who reads fewer fields than came leaves the rest; fewer than it knows, all of them."""
        self._expect(
            old["code"] == new["code"],
            new,
            "the code of %s was %d and is %d" % (new["scoped"], old["code"], new["code"]),
        )
        before = [self._old_form(f["type"]) for f in old["fields"]]
        after = [self._new_form(f["type"]) for f in new["fields"]]
        if after[: len(before)] == before and len(after) > len(before):
            self._tell(FITS, new, "exception %s has new fields at its end" % new["scoped"])
        else:
            self._struct(old, new)

    def _enum(self, old, new):
        before, after = ([e["name"] for e in entry["enumerators"]] for entry in (old, new))
        for value, name in enumerate(before):
            self._expect(
                name in after and after.index(name) == value,
                new,
                "%s::%s was %d and is not any more" % (new["scoped"], name, value),
            )
        for name in after[len(before) :]:
            if name not in before:
                self._tell(FITS, new, "%s::%s is new" % (new["scoped"], name))

    def _union(self, old, new):
        self._expect(
            self._old_form(old["switch"]) == self._new_form(new["switch"]),
            new,
            "%s is switched by another type" % new["scoped"],
        )
        before, after = _labels(self._old, old), _labels(self._new, new)
        gone = ("gone", None)
        for label, (form, way) in before.items():
            now, other_way = after.get(label, gone)
            where = "case %s of %s" % (label, new["scoped"])
            self._expect(form == now, new, "%s was %s and is %s" % (where, form, now))
            self._expect(
                form != now or way == other_way,
                new,
                "%s has another place, or other labels beside it" % where,
            )
        for label in after:
            if label not in before:
                self._tell(FITS, new, "%s has a new case %s" % (new["scoped"], label))

    # ---- Types ---------------------------------------------------------------------------------

    def _old_form(self, type_):
        return _form(self._old, type_)

    def _new_form(self, type_):
        return _form(self._new, type_)


def _form(description, type_):
    """A type as it travels: named types by their names, since each is compared on its own."""
    type_ = description.resolve(type_)
    if "sequence" in type_:
        return "sequence<%s>" % _form(description, type_["sequence"])
    if "array" in type_:
        return "%s[%d]" % (_form(description, type_["array"]), type_["size"])
    if "ref" not in type_:
        return type_.get("base", "fixed")
    entry = description.find(type_["ref"])
    if entry is None or entry["kind"] == "interface":
        return "Object"
    return entry["cpp"]["grammar"] if entry.get("cpp") else entry["scoped"]


def _labels(description, union):
    """The type of each label's case, and how it travels."""
    return {
        str(label["enumerator"] if isinstance(label, dict) else label): (
            _form(description, case.entry["type"]),
            (case.index, case.has_choice),
        )
        for case in cases_of(description, union)
        for label in case.entry["labels"]
    }


def compare(old, new):
    """Tells all differences; the exit code."""
    verdict = _Comparison(old, new).run()
    if verdict == SAME:
        print("nothing differs")
    return verdict
