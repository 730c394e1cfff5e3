"""What the compiler refuses, it refuses where the fault is: in each file of refused/ a comment tells the
message that is expected for its line, and no others come."""
import glob
import os
import re

from compiler_test import Test


def expected_in(path):
    """Messages by line: `//! text` on that line, or `//! 3: text` anywhere."""
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            match = re.search(r"//! (?:(\d+): )?(.*)", line)
            if match:
                yield int(match.group(1) or number), match.group(2).strip()


test = Test()
for path in sorted(glob.glob(os.path.join(test.here, "refused", "*.idl"))):
    name = os.path.relpath(path, test.here)
    code, _, messages = test.compile("-o", test.work, name)
    test.expect(code == 1, "%s: exit code %d" % (name, code))
    written = os.path.exists(os.path.join(test.work, os.path.basename(name)[:-4] + ".h"))
    test.expect(not written, "%s: files were written" % name)
    left = messages.splitlines()
    for number, text in expected_in(path):
        found = [line for line in left if line.startswith("%s:%d: " % (name, number)) and text in line]
        test.expect(found, "%s:%d: expected: %s" % (name, number, text))
        left = [line for line in left if line not in found]
    for line in left:
        test.fault("not expected: " + line)

code, _, messages = test.compile("-o", test.work, "no_such_file.idl")
test.expect(code == 1 and "no_such_file.idl: no such file" in messages, "a missing file: " + messages)
test.finish()
