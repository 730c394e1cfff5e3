"""Errors and warnings, each with the place in the IDL that it is about."""
import sys


class Report:
    def __init__(self):
        self.errors = 0
        self._told = set()

    def error(self, where, text):
        self.errors += 1
        self._tell(where, "error", text)

    def warning(self, where, text):
        self._tell(where, "warning", text)

    def _tell(self, where, kind, text):
        line = "%s:%d: %s: %s" % (where["file"], where["line"], kind, text)
        if line not in self._told:
            self._told.add(line)
            print(line, file=sys.stderr)


class Failed(Exception):
    """The compilation is over; the reason, if there is one, has not been told yet."""
