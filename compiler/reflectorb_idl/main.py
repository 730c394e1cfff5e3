"""The command line of reflectorb-idl."""
import argparse
import hashlib
import json
import os
import re
import sys
import traceback

from . import VERSION, compatibility
from .description import Completion, Description
from .generator import Generator
from .parser import OWN_IDL, Parser
from .report import Failed, Report
from .scopes import Scopes
from .served import Served

_PACKAGE = os.path.dirname(os.path.abspath(__file__))
# IDL that comes with the compiler: int8, oid, ...
_ABOUT = """Writes NAME.h, NAME.cpp and NAME.json for the interfaces of NAME.idl."""
_CHECK = """compares two versions of an interface, each an .idl or the .json made of it, and tells which
changes break peers of the other version; exit code 0: nothing differs, 1: they fit, 2: they do not,
3: it could not be told"""


def _arguments(words):
    parser = argparse.ArgumentParser(prog="reflectorb-idl", description=_ABOUT)
    parser.add_argument("idl", nargs="?", metavar="NAME.idl")
    parser.add_argument("-o", "--output", default=".", metavar="DIR", help="where to write to")
    parser.add_argument("-I", dest="includes", action="append", default=[], metavar="DIR",
                        help="look here for included files")
    parser.add_argument("-D", dest="defines", action="append", default=[], metavar="NAME[=VALUE]",
                        help="define a macro of the preprocessor")
    parser.add_argument("--header-only", action="store_true", help="write no NAME.cpp")
    parser.add_argument("--strict", action="store_true",
                        help="take only IDL that every other compiler takes, which tells no names "
                        "apart that differ in case only")
    parser.add_argument("--skip-refused", action="store_true",
                        help="leave out what cannot be generated, with a warning")
    parser.add_argument("--depfile", metavar="FILE", help="write a rule for make")
    parser.add_argument("--omniidl", default=os.environ.get("REFLECTORB_OMNIIDL", "omniidl"),
                        metavar="PATH", help="the parser")
    parser.add_argument("--check", nargs=2, metavar=("OLD", "NEW"), help=_CHECK)
    parser.add_argument("--version", action="version", version="reflectorb-idl " + VERSION)
    status = 3 if "--check" in words else 1
    parser.error = lambda text: parser.exit(status, "reflectorb-idl: %s\n" % text)
    options = parser.parse_args(words)
    if (options.idl is None) == (options.check is None):
        parser.error("name one .idl file, or --check two versions of one")
    return options


def _describe(path, options, report):
    """The completed description of an IDL file, and the files that it was read from."""
    if not os.path.exists(path):
        raise Failed("%s: no such file" % path)
    includes = options.includes + [OWN_IDL]
    parsed = Parser(report, options.omniidl, includes, options.defines, options.strict).parse(path)
    description = Description(parsed.tree)
    Completion(description, report, options.skip_refused).run()
    scopes = Scopes(description, report)
    if report.errors:
        raise Failed("")
    return description, scopes, parsed.files


def _without_places(tree, path, files, includes):
    """Names of files that are the same on every machine, and what the inputs were."""
    names = {}
    for file in files:
        roots = [os.path.dirname(path) or "."] + includes + [OWN_IDL]
        relative = [os.path.relpath(file, root) for root in roots]
        names[file] = min(relative, key=lambda name: (name.startswith(".."), len(name)))

    def shorten(value):
        if isinstance(value, dict):
            return {k: names.get(v, v) if k == "file" else shorten(v) for k, v in value.items()}
        return [shorten(v) for v in value] if isinstance(value, list) else value

    result = shorten(tree)
    own = [f for f in files if not os.path.abspath(f).startswith(_PACKAGE)]
    result["inputs"] = [{"file": names[f], "sha256": _sha256(f)} for f in own]
    return result


def _sha256(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def _included_headers(path, files, description):
    """The headers of the files that this one includes, written as there. One of which nothing is
    generated has none."""
    real = {os.path.realpath(f) for f in files}
    with_content = {os.path.realpath(e["file"]) for e in description.all() if _has_code(e)}
    folders = [os.path.dirname(path) or "."]
    found = []
    with open(path, encoding="utf-8", errors="replace") as file:
        text = file.read()
    for opening, name, closing in re.findall(r'^\s*#\s*include\s*([<"])([^>"]+)([>"])', text, re.M):
        candidates = [f for f in real if f.endswith("/" + os.path.normpath(name).lstrip("./"))]
        candidates += [os.path.realpath(os.path.join(folder, name)) for folder in folders]
        here = [c for c in candidates if c in real]
        header = opening + re.sub(r"\.idl$", "", name) + ".h" + closing
        if here and header not in found and _brings(here[0], real, with_content):
            found.append(header)
    return found


def _has_code(entry):
    return "refused" not in entry and entry["kind"] not in ("native", "forward", "module")


def _brings(file, real, with_content):
    """Whether a header is generated for it: it declares something, or includes what does."""
    if file.startswith(_PACKAGE):
        return False
    return file in with_content or len(real) > 2


def _write(path, text):
    try:
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
    except OSError as error:
        raise Failed("cannot write %s: %s" % (path, error.strerror)) from error


def _escape(path):
    return path.replace(" ", "\\ ").replace("#", "\\#")


def _compile(options, report):
    path = options.idl
    description, scopes, files = _describe(path, options, report)
    stem = os.path.join(options.output, re.sub(r"\.idl$", "", os.path.basename(path)))
    includes = _included_headers(path, files, description)
    generator = Generator(
        description, scopes, os.path.basename(stem) + ".h", includes, options.header_only
    )
    header, source = generator.run()
    os.makedirs(options.output, exist_ok=True)
    tree = _without_places(description.tree, path, files, options.includes)
    tree["classes"] = Served(description, generator.types).classes()
    json_text = json.dumps(tree, indent=1, sort_keys=True)
    outputs = [(stem + ".h", header), (stem + ".json", json_text + "\n")]
    if source is not None:
        outputs.append((stem + ".cpp", source))
    for name, text in outputs:
        _write(name, text)
    if options.depfile:
        targets = " ".join(_escape(name) for name, _ in outputs)
        _write(options.depfile, "%s: %s\n" % (targets, " ".join(_escape(f) for f in files)))


def _check(options, report):
    def load(path):
        if path.endswith(".json"):
            try:
                with open(path, encoding="utf-8") as file:
                    return Description(json.load(file))
            except (OSError, ValueError) as error:
                raise Failed("%s: %s" % (path, error)) from error
        return _describe(path, options, report)[0]

    return compatibility.compare(load(options.check[0]), load(options.check[1]))


def main(words):
    options = _arguments(words)
    report = Report()
    try:
        if options.check:
            return _check(options, report)
        _compile(options, report)
        return 0
    except Failed as failure:
        if str(failure):
            print("reflectorb-idl: " + str(failure), file=sys.stderr)
    except Exception:  # a fault of ours, which must not look like a verdict
        traceback.print_exc()
    return 3 if options.check else 1
