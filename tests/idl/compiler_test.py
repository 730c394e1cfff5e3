"""What the tests of the compiler share: how it is run, and how they fail."""
import argparse
import os
import shutil
import subprocess
import sys

# Nothing is written beside the sources.
sys.dont_write_bytecode = True


class Test:
    def __init__(self):
        parser = argparse.ArgumentParser()
        for name in ("compiler", "omniidl", "source", "work", "cxx", "actor"):
            parser.add_argument("--" + name, required=True)
        self.options = parser.parse_args()
        self.here = os.path.dirname(os.path.abspath(__file__))
        self.work = self.options.work
        self._faults = 0
        shutil.rmtree(self.work, ignore_errors=True)
        os.makedirs(self.work)

    def compile(self, *arguments):
        """Exit code, standard output and standard error."""
        done = subprocess.run(
            [self.options.compiler, "--omniidl", self.options.omniidl, *arguments],
            capture_output=True,
            text=True,
            check=False,
            cwd=self.here,
        )
        return done.returncode, done.stdout, done.stderr

    def check_sources(self, files, includes):
        """Has the C++ compiler read generated files; its messages."""
        command = self._command(includes) + ["-fsyntax-only"]
        unit = os.path.join(self.work, "unit.cpp")
        with open(unit, "w", encoding="utf-8") as out:
            out.writelines('#include "%s"\n' % file for file in files)
        done = subprocess.run(command + [unit], capture_output=True, text=True, check=False)
        return done.stderr

    def check_header_alone(self, header, includes):
        """Has a unit that stands twice in a program include a header that has no source; what is said."""
        unit = os.path.join(self.work, "unit.cpp")
        with open(unit, "w", encoding="utf-8") as out:
            out.write('#include "%s"\n' % header)
        made = unit[:-3] + "o"
        command = self._command(includes) + ["-c", unit, "-o", made]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        if done.returncode != 0 or done.stderr:
            return done.stderr
        command = [self.options.cxx, "-r", "-nostdlib", "-o", os.path.join(self.work, "both.o"), made, made]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        return done.stderr

    def _command(self, includes):
        command = [self.options.cxx, "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow"]
        for folder in [os.path.join(self.options.source, "include"), *includes]:
            command += ["-I", folder]
        return command

    def fault(self, text):
        self._faults += 1
        print("FAULT: " + text)

    def expect(self, holds, text):
        if not holds:
            self.fault(text)

    def finish(self):
        sys.exit(1 if self._faults else 0)
