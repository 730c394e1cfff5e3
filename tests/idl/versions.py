"""`reflectorb-idl --check` tells which changes of an interface break peers of the other version."""
import os

from compiler_test import Test

_OLD = """
enum Light { red, green };
struct Point { long x; long y; };
union Value switch (long) { case 1: long number; };
exception Jammed { long force; };
typedef sequence<Point> Points;
interface Device { void reset(); };
interface Gate : Device {
    attribute long level;
    Points move(in Point to, out Light light) raises (Jammed);
    void stop();
};
"""

_SAME, _FITS, _BREAKS = 0, 1, 2
# What is replaced by what, the verdict, and words of the reason.
_CHANGES = [
    ("", "", _SAME, "nothing differs"),
    ("sequence<Point> Points", "sequence<Point> Dots; typedef Dots Points", _SAME, "nothing differs"),
    ("in Point to", "in Point where", _SAME, "nothing differs"),
    ("void stop();", "void stop(); void open();", _FITS, "Gate has a new operation open"),
    ("void stop();", "void stop(); attribute long load;", _FITS, "Gate has a new operation setLoad"),
    ("green", "green, blue", _FITS, "Light::blue is new"),
    ("long force;", "long force; string why;", _FITS, "exception Jammed has new fields at its end"),
    ("case 1: long number;", "case 1: long number; case 2: string text;", _FITS, "has a new case 2"),
    ("interface Gate", "interface Other {}; interface Gate", _FITS, "interface Other is new"),
    ("void stop();", "", _BREAKS, "Gate has no operation stop any more"),
    ("void stop();", "void open(); void stop();", _BREAKS, "the code of Gate::stop was"),
    ("void stop();", "oneway void stop();", _BREAKS, "Gate::stop was or is now oneway"),
    ("in Point to", "in long to", _BREAKS, "the arguments of Gate::move were (Point) and are (long)"),
    ("out Light light", "out long light", _BREAKS, "the results of Gate::move were"),
    ("attribute", "readonly attribute", _BREAKS, "Gate has no operation setLevel any more"),
    ("long y;", "long y; long z;", _BREAKS, "fields of Point"),
    ("red, green", "green, red", _BREAKS, "Light::red was 0"),
    ("long force;", "short force;", _BREAKS, "fields of Jammed"),
    ("case 1: long", "case 1: case 2: long", _BREAKS, "case 1 of Value has another place, or"),
    ("case 1: long", "case 2: string text; case 1: long", _BREAKS, "case 1 of Value has another"),
    ("case 1:", "case 3:", _BREAKS, "case 1 of Value was long and is gone"),
    ("Gate : Device", "Gate", _BREAKS, "Gate has no base Device any more"),
    ("{ void reset(); }", "{\n#pragma reflectorb class 0x4C414D50\nvoid reset(); }", _BREAKS,
     "the class id of Device was"),
    ("void reset();", "void reset();\n#pragma reflectorb code 9\n", _BREAKS, "the code of Device::reset was"),
]


def write(test, name, text):
    path = os.path.join(test.work, name)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    return path


test = Test()
old = write(test, "old.idl", _OLD)
test.compile("-o", test.work, old)
for before, after, verdict, reason in _CHANGES:
    new = write(test, "new.idl", _OLD.replace(before, after, 1) if before else _OLD)
    code, told, messages = test.compile("--check", old[:-4] + ".json", new)
    test.expect(code == verdict, "%r for %r: exit code %d" % (after, before, code))
    test.expect(reason in told, "%r for %r: %s%s" % (after, before, told, messages))
code, _, _ = test.compile("--check", old, write(test, "broken.idl", "interface {"))
test.expect(code == 3, "an IDL with an error: exit code %d" % code)
test.finish()
