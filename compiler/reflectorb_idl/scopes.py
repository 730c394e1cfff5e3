"""Where each name of the IDL stands in C++."""
from .description import walk
from .names import capital, constant, escaped, small


class Scopes:
    """Gives each declaration its place in C++, a tuple of names, and tells of names that meet.

    A module is a namespace. What stands in an interface, its codes and the structs of its results
    stand in a namespace of the interface's name in small letters. What stands in a struct stands
    beside it, under both their names.
    """

    def __init__(self, description, report):
        self._all = description
        self._report = report
        self._modules = {
            entry["scoped"] for entry in description.all() if entry["kind"] == "module"
        }
        # What each namespace declares: {name: entry}.
        self._declared = {}
        for entry in description.all():
            if entry["kind"] not in ("forward", "operation", "attribute"):
                self._enter(entry)
        self._check_cases()

    # ---- Places --------------------------------------------------------------------------------

    def namespace(self, entry):
        """The namespace in which a declaration stands."""
        return self._inside("::".join(entry["scoped"].split("::")[:-1]))

    def place(self, entry):
        """The place of a declaration that is a type or a constant of its own."""
        return self.namespace(entry) + (self._own_name(entry),)

    def client(self, interface):
        return self.namespace(interface) + (capital(interface["name"]) + "Client",)

    def skeleton(self, interface):
        return self.namespace(interface) + (capital(interface["name"]) + "Skeleton",)

    def meta(self, interface):
        return self.namespace(interface) + (small(interface["name"]) + "Meta",)

    def interior(self, interface):
        """The namespace of what stands in an interface."""
        return self._inside(interface["scoped"])

    def result(self, interface, operation):
        return self.interior(interface) + (capital(operation["name"]) + "Result",)

    def _inside(self, scoped):
        if not scoped:
            return ()
        names = scoped.split("::")
        around = self._inside("::".join(names[:-1]))
        if scoped in self._modules:
            return around + (escaped(names[-1]),)
        entry = self._all.find(scoped)
        if entry and entry["kind"] == "interface":
            return around + (escaped(small(names[-1])),)
        return around

    def _own_name(self, entry):
        """What is declared in a struct has both their names."""
        names = entry["scoped"].split("::")
        name = names[-1]
        owner = self._all.find("::".join(names[:-1]))
        while owner and owner["kind"] in ("struct", "union", "exception"):
            name = owner["name"] + capital(name)
            owner = self._all.find("::".join(owner["scoped"].split("::")[:-1]))
        return escaped(name)

    # ---- Names ---------------------------------------------------------------------------------

    def short(self, place, scope, hidden=frozenset()):
        """A name for what stands at `place`, to be used in the namespace `scope`: short where nothing
        else can be meant, whatever other headers declare; `hidden` has the names of a class around
        and of parameters."""
        depth = len(scope)
        if place[:depth] == scope and place[depth] not in hidden:
            return "::".join(place[depth:])
        return "::" + "::".join(place)

    def _enter(self, entry):
        if entry["kind"] == "module":
            self._declare(self._inside(entry["scoped"]), entry)
            return
        if entry["kind"] == "interface":
            self._enter_interface(entry)
            return
        self._declare(self.place(entry), entry)

    def _enter_interface(self, entry):
        for place in (self.client(entry), self.skeleton(entry), self.meta(entry), self.interior(entry)):
            self._declare(place, entry)
        inside = self.interior(entry)
        for name in ("kClass", "Method"):
            self._declare(inside + (name,), entry)
        for member in self._all.own(entry):
            names = [member["name"]]
            if member["kind"] == "attribute":
                names = ["get" + capital(names[0])]
                if not member["readonly"]:
                    names.append("set" + names[0][3:])
            elif has_result_struct(member):
                self._declare(self.result(entry, member), member)
            for name in names:
                self._declare(inside + (constant(name),), member)

    def _declare(self, place, entry):
        names = self._declared.setdefault(place[:-1], {})
        other = names.setdefault(place[-1], entry)
        if place[-1].startswith(("Tipprmi", "Treflect")):
            self._report.error(entry, "names of the library begin like %s" % place[-1])
        if other is entry or other["kind"] == entry["kind"] == "module":
            return
        # Told of by _check_members.
        if {other["kind"], entry["kind"]} <= {"operation", "attribute"}:
            return
        # An included file has been told of when it was compiled.
        if entry["main"] or other["main"]:
            self._report.error(
                entry,
                "%s of %s %s would be in C++ what %s %s (%s:%d) is as well"
                % (
                    "::".join(place),
                    entry["kind"],
                    entry["name"],
                    other["kind"],
                    other["name"],
                    other["file"],
                    other["line"],
                ),
            )

    # ---- Names that differ in case only --------------------------------------------------------

    def _check_cases(self):
        self._check_scope(self._all.tree["declarations"])
        for entry in walk(self._all.tree["declarations"]):
            for key in ("declarations", "contents", "fields", "cases", "enumerators", "parameters"):
                if key in entry:
                    self._check_scope(entry[key])
            if entry["kind"] == "interface":
                self._check_members(entry)

    def _check_scope(self, entries):
        """An attribute may have the name of its type in small letters."""
        known = {}
        for entry in entries:
            is_member = entry["kind"] in ("operation", "attribute")
            other = known.setdefault((entry["name"].lower(), is_member), entry)
            if other["name"] != entry["name"] and entry["main"]:
                self._report.error(
                    entry,
                    "%s and %s (line %d) differ in case only"
                    % (entry["name"], other["name"], other["line"]),
                )

    def _check_members(self, interface):
        """An attribute is a get and a set operation, in one class with those that are written so."""
        known = {}
        for owner in [interface] + self._all.bases(interface):
            for member in self._all.own(owner):
                names = [member["name"].lower()]
                if member["kind"] == "attribute":
                    names = ["get" + names[0]] + ([] if member["readonly"] else ["set" + names[0]])
                for name in names:
                    other = known.setdefault(name, member)
                    if other in owner["contents"] and other["name"].lower() == member["name"].lower():
                        continue  # the same member, or told of by _check_scope
                    if interface["main"]:
                        self._report.error(
                            interface,
                            "%s %s and %s %s (%s:%d), both of %s, would be the same operation"
                            % (
                                member["kind"],
                                member["name"],
                                other["kind"],
                                other["name"],
                                other["file"],
                                other["line"],
                                interface["scoped"],
                            ),
                        )


def results(operation):
    """The results of an operation in order: (name, type)."""
    found = []
    if operation["returns"] != {"base": "void"}:
        found.append(("returned", operation["returns"]))
    for parameter in operation["parameters"]:
        if parameter["direction"] != "in":
            found.append((parameter["name"], parameter["type"]))
    return found


def arguments(operation):
    return [(p["name"], p["type"]) for p in operation["parameters"] if p["direction"] != "out"]


def has_result_struct(operation):
    return len(results(operation)) > 1
