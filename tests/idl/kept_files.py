"""What is kept with the sources is what the compiler makes of the interfaces beside it; and what it
makes without a source can be included by several units of a program."""
import filecmp
import glob
import os

from compiler_test import Test

test = Test()
found = glob.glob(os.path.join(test.options.source, "examples", "*", "generated", "*.json"))
test.expect(found, "nothing is kept")
for kept in found:
    folder, name = os.path.split(kept[: -len(".json")])
    idl = os.path.join(os.path.dirname(folder), name + ".idl")
    code, _, messages = test.compile("-o", test.work, idl)
    test.expect(code == 0, messages)
    for suffix in (".h", ".cpp", ".json"):
        same = filecmp.cmp(kept[: -len(".json")] + suffix, os.path.join(test.work, name + suffix), False)
        test.expect(same, "write %s%s anew: reflectorb-idl -o %s %s" % (name, suffix, folder, idl))

for idl, folder in (("gate.idl", test.work), ("parts/device.idl", os.path.join(test.work, "parts"))):
    code, _, messages = test.compile("--header-only", "-o", folder, idl)
    test.expect(code == 0, messages)
messages = test.check_header_alone("gate.h", [test.work])
test.expect(not messages, "a header alone: " + messages[:4000])
test.finish()
