"""What the compiler's JSON says of a class is what the process object of a running process says: the
text of the one becomes that of the other, and back."""
import json
import os
import subprocess
import sys
import tempfile

from compiler_test import Test

test = Test()
sys.path.insert(0, os.path.join(test.options.source, "compiler"))
from reflectorb_idl import served  # noqa: E402

classes = []
for name in ("gate.idl", "parts/device.idl"):
    code, _, messages = test.compile("-o", test.work, name)
    test.expect(code == 0, messages)
    with open(os.path.join(test.work, os.path.basename(name)[:-4] + ".json"), encoding="utf-8") as file:
        classes += json.load(file)["classes"]

orders = ["describe %d" % made["id"] for made in classes]
orders += ["understand " + served.to_text(made) for made in classes]
with tempfile.TemporaryDirectory() as folder:
    done = subprocess.run(
        [test.options.actor],
        input="\n".join(orders) + "\n",
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
        env=dict(os.environ, TRANSPORT_DIR=folder),
    )
told = done.stdout.splitlines()
test.expect(done.returncode == 0 and told[:1] == ["ready"], "the actor failed: " + done.stderr)
told = told[1:]
test.expect(len(told) == len(orders), "not all was answered: %s" % told)
for made, line in zip(classes, told):
    running = served.from_text(line[len("described ") :])
    test.expect(running[0] == made, "of %s runs %s\nand is compiled %s" % (made["name"], running[0], made))
for made, line in zip(classes, told[len(classes) :]):
    test.expect(line == "understood ", "%s: %s" % (made["name"], line))
gate = next(made for made in classes if made["name"] == "works::Gate")
comments = {m["name"]: m["doc"] for m in gate["operations"]}
test.expect(gate["doc"] == "A gate: has two bases, of which C++ has one.", gate["doc"])
test.expect(comments["connect"] == "Words of C++ and of the library.", "no comment: %s" % comments)
test.finish()
