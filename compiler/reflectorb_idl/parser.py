"""Runs omniidl, tells its messages in the form of a compiler, and reads what our back end has written."""
import json
import os
import re
import subprocess
import tempfile

from .report import Failed

# Types that IDL has no names for.
OWN_IDL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "idl")

_BACK_END = os.path.join(os.path.dirname(os.path.abspath(__file__)), "backend")
# omniidl hands names of files to a shell, in double quotes, and lists end at commas.
_UNSAFE = re.compile(r'["$`\\,\n]')
# Of no account: how we run it, and what every header or recursive type has.
_SILENT = ("-nc option means", "#pragma once", "Anonymous sequences")


class Parsed:
    def __init__(self, tree, files):
        self.tree = tree
        self.files = files  # all that were read, the main one first


class Parser:
    def __init__(self, report, program="omniidl", includes=(), defines=(), strict=False):
        self._report = report
        self._program = program
        self._includes = includes
        self._defines = defines
        self._strict = strict

    def parse(self, path):
        self._check_paths([path, *self._includes])
        with tempfile.TemporaryDirectory(prefix="reflectorb-idl-") as folder:
            self._check_paths([folder])
            tree = os.path.join(folder, "tree.json")
            dependencies = os.path.join(folder, "dependencies")
            status, messages = self._run(path, tree, dependencies)
            files = _files(dependencies, path)
            self._tell(messages, files)
            if status < 0:
                raise Failed("omniidl ended with signal %d" % -status)
            if status != 0 or self._report.errors or not os.path.exists(tree):
                raise Failed("")
            with open(tree, encoding="utf-8") as file:
                result = json.load(file, object_hook=lambda entry: _with_path(entry, files))
            return Parsed(result, files)

    def _check_paths(self, paths):
        for path in paths:
            if _UNSAFE.search(path):
                raise Failed("the path %r has a character that the parser does not take" % path)

    def _run(self, path, tree, dependencies):
        command = [self._program, "-K", "-nf"]
        if not self._strict:
            command.append("-nc")
        command += ["-p" + _BACK_END, "-breflectorb_json", "-Wp-MD," + dependencies]
        command += ["-I" + folder for folder in self._includes]
        command += ["-D" + define for define in self._defines]
        environment = dict(os.environ, REFLECTORB_IDL_OUTPUT=tree, LC_ALL="C.UTF-8")
        try:
            done = subprocess.run(
                command + [path], env=environment, capture_output=True, check=False
            )
        except OSError as error:
            raise Failed(
                "cannot run %s (%s); on Debian: apt-get install omniidl"
                % (self._program, error.strerror)
            ) from error
        return done.returncode, done.stderr.decode("utf-8", "replace")

    def _tell(self, messages, files):
        for line in messages.splitlines():
            if any(text in line for text in _SILENT):
                continue
            match = re.match(r"(.+?):(\d+): (.*)", line)
            if not match:
                continue
            where = _with_path({"file": match.group(1), "line": int(match.group(2))}, files)
            text = match.group(3)
            if text.lower().startswith("warning: "):
                self._report.warning(where, text[len("warning: ") :])
            else:
                self._report.error(where, re.sub(r"^(Error: |error: )", "", text))


def _files(dependencies, main):
    """The prerequisites of the preprocessor's rule."""
    try:
        with open(dependencies, encoding="utf-8") as file:
            rule = file.read()
    except OSError:
        return [main]
    names = rule.replace("\\\n", " ").split(":", 1)[-1]
    found = [re.sub(r"\\(.)", r"\1", name) for name in re.findall(r"(?:\\.|\S)+", names)]
    return [main] + [name for name in found if os.path.normpath(name) != os.path.normpath(main)]


def _with_path(entry, files):
    """omniidl leaves out the folder of the main file; here is the path that the user can open."""
    name = entry.get("file")
    if isinstance(name, str) and name not in files:
        entry["file"] = next((f for f in files if f.endswith("/" + name)), name)
    return entry
