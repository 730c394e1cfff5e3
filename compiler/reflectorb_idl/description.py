"""The description of an IDL file: what the parser has found, judged and completed.

It adds to each declaration what the rest of the compiler and other tools need: class ids, method
codes, what the pragmas say, and for what cannot be generated the reason ("refused").
"""
import hashlib
import json

from . import identity
from .names import capital
from .pragmas import Pragmas

FORMAT = 1
_UNSUPPORTED = {
    "long double": "long double has no encoding",
    "ValueBase": "value types are not supported",
}
_UNSUPPORTED_KINDS = {
    "valuetype": "value types are not supported",
    "valuebox": "value boxes are not supported",
}


def walk(declarations):
    """All declarations, in order, those of modules and interfaces behind them."""
    for entry in declarations:
        yield entry
        for inner in ("declarations", "contents"):
            yield from walk(entry.get(inner, []))


def parts(entry):
    """What a declaration consists of and pragmas may stand behind."""
    for key in ("fields", "cases", "enumerators", "parameters"):
        yield from entry.get(key, [])


def types_in(type_):
    """A type and all that stand in it."""
    yield type_
    for key in ("sequence", "array"):
        if key in type_:
            yield from types_in(type_[key])


def types_of(entry):
    for part in parts(entry):
        if "type" in part:
            yield from types_in(part["type"])
    for key in ("type", "returns", "switch"):
        if key in entry:
            yield from types_in(entry[key])


class Description:
    def __init__(self, tree):
        self.tree = tree
        self.by_name = {}
        for entry in walk(tree["declarations"]):
            if entry["kind"] not in ("forward", "module") and "scoped" in entry:
                self.by_name[entry["scoped"]] = entry

    def all(self):
        return walk(self.tree["declarations"])

    def interfaces(self):
        return [entry for entry in self.all() if entry["kind"] == "interface"]

    def find(self, scoped):
        return self.by_name.get(scoped)

    def resolve(self, type_):
        """The type behind its typedefs."""
        while type_.get("kind") == "typedef":
            type_ = self.by_name[type_["ref"]]["type"]
        return type_

    def bases(self, interface):
        """All bases of a class, each once, the nearest first, as its tables have them."""
        found = []
        for name in interface["bases"]:
            base = self.by_name[name]
            for entry in [base] + self.bases(base):
                if entry not in found:
                    found.append(entry)
        return found

    def own(self, interface):
        return [e for e in interface["contents"] if e["kind"] in ("operation", "attribute")]


class Completion:
    """Completes a description, and tells of what is wrong with it."""

    def __init__(self, description, report, skip=False):
        self._all = description
        self._report = report
        self._skip = skip

    def run(self):
        self._apply_pragmas()
        for interface in self._all.interfaces():
            self._number_class(interface)
            self._number_members(interface)
        for entry in self._all.all():
            if entry["kind"] == "exception":
                self._number_exception(entry)
        self._check_class_ids()
        for interface in self._all.interfaces():
            self._check_codes(interface)
            self._check_raised(interface)
        self._refuse()
        self._all.tree["hash"] = self._hash()

    # ---- Pragmas -------------------------------------------------------------------------------

    def _apply_pragmas(self):
        pragmas = Pragmas(self._report)
        pragmas.refuse_loose(self._all.tree.pop("pragmas", []))
        for entry in self._all.all():
            pragmas.apply(entry)
            for part in parts(entry):
                pragmas.apply(part)
        for interface in self._all.interfaces():
            for entry in interface["contents"]:
                if entry["kind"] == "attribute":
                    self._find_raised(entry, interface)

    def _find_raised(self, attribute, interface):
        for key in ("getRaises", "setRaises"):
            names = attribute.pop(key, [])
            attribute[key] = []
            for name, pragma in names:
                exception = self._look_up(name, interface)
                if exception:
                    attribute[key].append(exception["scoped"])
                else:
                    self._report.error(pragma, "no exception %s is known here" % name)

    def _look_up(self, name, interface):
        """As in IDL: in the interface and its bases, then in what stands around."""
        scopes = [interface["scoped"]] + [base["scoped"] for base in self._all.bases(interface)]
        around = interface["scoped"].split("::")[:-1]
        scopes += ["::".join(around[:n]) for n in range(len(around), 0, -1)] + [""]
        for scope in [""] if name.startswith("::") else scopes:
            found = self._all.find("::".join(filter(None, [scope, name.lstrip(":")])))
            if found and found["kind"] == "exception":
                return found
        return None

    # ---- Numbers -------------------------------------------------------------------------------

    def _number_class(self, interface):
        if "classId" in interface:
            return
        interface["classId"] = identity.class_id(interface["repoId"])
        if interface["classId"] < identity.FIRST_MADE_CLASS_ID:
            self._report.error(
                interface, "no class id can be made of this name: #pragma reflectorb class N"
            )

    def _number_members(self, interface):
        """Those with a code of their own do not count, so that they may stand anywhere."""
        code = interface.pop("firstCode", None) or identity.first_code(interface["repoId"])
        for entry in self._all.own(interface):
            if "code" in entry:
                continue
            entry["code"] = code
            code += 1
            if entry["kind"] == "attribute" and not entry["readonly"]:
                entry["setCode"] = code
                code += 1

    def _number_exception(self, exception):
        code = exception.setdefault("code", identity.exception_code(exception["repoId"]))
        if code > identity.LARGEST_EXCEPTION_CODE:
            self._report.error(exception, "codes above 0x%08X are failures of the library itself"
                               % identity.LARGEST_EXCEPTION_CODE)

    def _check_class_ids(self):
        known = {}
        for interface in self._all.interfaces():
            other = known.setdefault(interface["classId"], interface)
            if other is not interface:
                self._report.error(
                    interface,
                    "%s has the class id 0x%08X of %s (%s:%d): give one of them another by "
                    "#pragma reflectorb class N"
                    % (
                        interface["scoped"],
                        interface["classId"],
                        other["scoped"],
                        other["file"],
                        other["line"],
                    ),
                )

    def _check_codes(self, interface):
        known = {}
        for owner in [interface] + self._all.bases(interface):
            for entry in self._all.own(owner):
                for code in [entry["code"]] + ([entry["setCode"]] if "setCode" in entry else []):
                    self._check_code(interface, entry, code, known)

    def _check_code(self, interface, entry, code, known):
        if identity.is_standard(code) or code > identity.LARGEST_CODE:
            self._report.error(entry, "method code %d is one that every object has, or too large" % code)
            return
        outcome = code ^ identity.OUTCOME_MARK
        if identity.is_standard(outcome):
            self._report.error(
                entry, "method code 0x%X is that of the outcome of one that every object has" % code
            )
            return
        other = known.setdefault(code, entry)
        if other is not entry or (entry.get("setCode") == entry["code"]):
            self._report_clash(interface, entry, other, "have the method code %d" % code)
        elif outcome in known:
            self._report_clash(
                interface,
                entry,
                known[outcome],
                "have method codes that differ by 0x%X only, which stands for the outcome of a call"
                % identity.OUTCOME_MARK,
            )

    def _report_clash(self, interface, entry, other, what):
        self._report.error(
            interface,
            "%s and %s (%s:%d), both of %s, %s: give one of them another by #pragma reflectorb code N"
            % (entry["name"], other["name"], other["file"], other["line"], interface["scoped"], what),
        )

    def _check_raised(self, interface):
        """A caller tells by the code alone which of them it is."""
        for entry in self._all.own(interface):
            for key in ("raises", "getRaises", "setRaises"):
                known = {}
                for name in dict.fromkeys(entry.get(key, [])):
                    code = self._all.find(name)["code"]
                    other = known.setdefault(code, name)
                    if other != name:
                        self._report.error(
                            entry,
                            "%s raises %s and %s, both of code 0x%08X: give one of them another by "
                            "#pragma reflectorb code N" % (entry["name"], other, name, code),
                        )

    # ---- What cannot be generated --------------------------------------------------------------

    def _refuse(self):
        """Marks what cannot be expressed, then what stands on it. Of an interface that is not
        generated a handle is one of no class in particular, so such users stay."""
        for entry in self._all.all():
            reason = self._own_reason(entry)
            if reason:
                entry["refused"] = reason
        changed = True
        while changed:
            changed = False
            for entry in self._all.all():
                if "refused" in entry:
                    continue
                reason = self._inherited_reason(entry)
                if reason:
                    entry["refused"] = reason
                    changed = True
        for entry in self._all.all():
            if "refused" in entry and entry["main"]:
                self._tell_refused(entry)

    def _tell_refused(self, entry):
        text = "%s %s: %s" % (entry["kind"], entry["name"], entry["refused"])
        if self._skip:
            self._report.warning(entry, text + ": left out")
        else:
            self._report.error(entry, text)

    def _own_reason(self, entry):
        if entry["kind"] in _UNSUPPORTED_KINDS:
            return _UNSUPPORTED_KINDS[entry["kind"]]
        if entry["kind"] == "interface" and entry["local"]:
            return "local interfaces have no objects that others could call"
        if entry["kind"] == "native" and "cpp" not in entry:
            return "say by #pragma reflectorb cpp TYPE HEADER NAME what it is in C++"
        if entry["kind"] == "const" and self._has_no_constant(entry):
            return "constants of this type or value are not supported"
        if entry["kind"] == "operation" and entry["contexts"]:
            self._report.warning(entry, "operation %s: its context is left out" % entry["name"])
        for type_ in types_of(entry):
            reason = _UNSUPPORTED.get(type_.get("base"))
            if "fixed" in type_:
                reason = "fixed-point numbers are not supported"
            elif type_.get("base", "").startswith("kind "):
                reason = "a type that is not supported"
            if reason:
                return reason
        return None

    def _has_no_constant(self, entry):
        base = self._all.resolve(entry["type"])
        return entry["value"] is None or base.get("base") in ("wstring", "long double", "fixed")

    def _inherited_reason(self, entry):
        for type_ in types_of(entry):
            owner = self._all.find(type_.get("ref", ""))
            if owner and "refused" in owner and owner["kind"] != "interface":
                return "%s is refused: %s" % (owner["scoped"], owner["refused"])
        if entry["kind"] != "interface":
            return None
        for name in entry["bases"]:
            base = self._all.find(name)
            if "refused" in base:
                return "its base %s is refused: %s" % (name, base["refused"])
        for inner in self._all.own(entry):
            if "refused" in inner:
                return "its %s %s is refused: %s" % (inner["kind"], inner["name"], inner["refused"])
        return None

    # ---- Hash ----------------------------------------------------------------------------------

    def _hash(self):
        """Over all that peers must agree on: not over comments, places and names of files."""

        def essence(value):
            if isinstance(value, dict):
                hidden = ("doc", "file", "line", "main", "files", "refused", "views")
                return {k: essence(v) for k, v in value.items() if k not in hidden}
            if isinstance(value, list):
                return [essence(v) for v in value]
            return value

        own = [essence(entry) for entry in self._all.all() if entry["main"]]
        return hashlib.sha256(json.dumps(own, sort_keys=True).encode("utf-8")).hexdigest()


def attribute_operations(attribute):
    """The operations that serve an attribute: (name, code, is the setter)."""
    yield "get" + capital(attribute["name"]), attribute["code"], False
    if not attribute["readonly"]:
        yield "set" + capital(attribute["name"]), attribute["setCode"], True
