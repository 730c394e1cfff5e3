"""Compiles interfaces that nobody here has written, those of the Object Management Group that Debian
packages as omniorb-idl: what is generated compiles without a warning, and what is not is refused
with a line and a reason."""
import glob
import json
import os
import re

from compiler_test import Test

_ROOT = "/usr/share/idl/omniORB/"
# Of the files that parse: 302 interfaces, of which four are local.
_LEAST_KEPT = 298
_MOST_UNPARSED = 10
# Files that are compiled as units of their own, too: each needs its own includes.
_ALONE = 6
# A second version of what COS/CosNaming.idl declares.
_DOUBLE = "Naming.idl"


def interfaces(declarations):
    for entry in declarations:
        if entry["kind"] == "interface" and entry["main"]:
            yield entry
        for inner in ("declarations", "contents"):
            yield from interfaces(entry.get(inner, []))


def run(test):
    files = sorted(glob.glob(_ROOT + "**/*.idl", recursive=True))
    if not files:
        print("omniorb-idl is not installed (./run setup installs it)")
        test.fault("nothing to compile")
        return
    unparsed, kept, sources = [], 0, []
    for path in files:
        name = os.path.relpath(path, _ROOT)
        folder = os.path.join(test.work, os.path.dirname(name))
        code, _, messages = test.compile(
            "--skip-refused", "-I", _ROOT, "-I", _ROOT + "COS", "-o", folder, path
        )
        if code != 0:
            unparsed.append(name)
            located = re.search(r"\.idl:\d+: error: .", messages)
            test.expect(located, "%s: refused without a place: %s" % (name, messages))
            continue
        stem = os.path.join(folder, os.path.basename(name)[: -len(".idl")])
        with open(stem + ".json", encoding="utf-8") as file:
            found = list(interfaces(json.load(file)["declarations"]))
        kept += sum(1 for entry in found if "refused" not in entry)
        for entry in found:
            if "refused" in entry:
                told = "%s:%d: warning: interface %s: " % (path, entry["line"], entry["name"])
                test.expect(told in messages, "%s: left out in silence" % entry["scoped"])
        sources.append(stem + ".cpp")
    print("%d files, %d not parsed, %d interfaces kept" % (len(files), len(unparsed), kept))
    test.expect(len(unparsed) <= _MOST_UNPARSED, "not parsed: %s" % unparsed)
    test.expect(kept >= _LEAST_KEPT, "only %d interfaces kept" % kept)

    folders = [test.work, os.path.join(test.work, "COS")]
    double = [s for s in sources if os.path.basename(s) == _DOUBLE[:-4] + ".cpp"]
    alone = [[source] for source in sources[:: len(sources) // _ALONE]]
    for unit in ([s for s in sources if s not in double], double, *alone):
        messages = test.check_sources(unit, folders)
        test.expect(not messages, "the C++ compiler says: " + messages[:4000])


test = Test()
run(test)
test.finish()
