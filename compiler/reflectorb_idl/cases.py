"""The cases of a union."""
from .names import escaped

_RANGES = {
    "boolean": range(0, 2),
    "char": range(0, 256),
    "octet": range(0, 256),
}
# Members of every union.
_OWN = frozenset(["which", "discriminator_", "value_"])


class Case:
    def __init__(self, index, entry, free):
        self.index = index  # from 1, in the order of the IDL: as it travels
        self.entry = entry
        self.name = escaped(entry["name"])
        if self.name in _OWN:
            self.name += "_"
        labels = [label for label in entry["labels"] if label != "default"]
        is_default = "default" in entry["labels"]
        # Whether more than one discriminator means this case, and the one that does unless told.
        self.has_choice = len(labels) > 1 or (is_default and free is not None)
        self.first = labels[0] if labels else free


def cases_of(description, union):
    free = _free(description, union)
    return [Case(index, entry, free) for index, entry in enumerate(union["cases"], 1)]


def _free(description, union):
    """The first discriminator that is nobody's label; none when all are taken."""
    used = [label for case in union["cases"] for label in case["labels"]]
    base = description.resolve(union["switch"])
    if base.get("kind") == "enum":
        values = [{"enumerator": e["scoped"]} for e in description.find(base["ref"])["enumerators"]]
    elif base.get("base") == "char":
        values = [[code] for code in _RANGES["char"]]
    else:
        values = _RANGES.get(base.get("base"), range(0, len(used) + 1))
    return next((value for value in values if value not in used), None)
