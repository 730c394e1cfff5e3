"""Lines of C++, indented and broken as this project's sources are."""
import textwrap

WIDTH = 100
_STEP = "    "


class Writer:
    def __init__(self):
        self._lines = []
        self._depth = 0
        self._namespace = ()

    def text(self):
        return "\n".join(self._lines) + "\n"

    def line(self, text=""):
        self._lines.append(_STEP * self._depth + text if text else "")

    def blank(self):
        """One empty line, not ahead of a block's first line."""
        if self._lines and self._lines[-1] and not self._lines[-1].endswith(("{", "public:")):
            self._lines.append("")

    def open(self, text):
        self.line(text)
        self._depth += 1

    def close(self, text="}"):
        self._depth -= 1
        self.line(text)

    def label(self, text):
        """public: and the like stand at the edge of their class."""
        self._depth -= 1
        self.line(text)
        self._depth += 1

    def namespace(self, path):
        """Goes on in this namespace."""
        path = tuple(path)
        if path == self._namespace:
            return
        if self._namespace:
            self.blank()
            self.line("}  // namespace " + "::".join(self._namespace))
        self._namespace = path
        if path:
            self.blank()
            self.line("namespace %s {" % "::".join(path))
            self._lines.append("")

    def doc(self, text):
        """A doc comment of the IDL."""
        if not text:
            return
        room = WIDTH - len(_STEP) * self._depth - len(" * ")
        lines = [
            part for line in text.split("\n") for part in (textwrap.wrap(line, room) or [""])
        ]
        single = "/** %s */" % lines[0]
        if len(lines) == 1 and len(single) + len(_STEP) * self._depth <= WIDTH:
            self.line(single)
            return
        self.line("/**")
        for line in lines:
            self.line((" * " + line).rstrip())
        self.line(" */")

    def class_head(self, name, base):
        single = "class %s : public %s {" % (name, base)
        if len(single) + len(_STEP) * self._depth <= WIDTH:
            self.line(single)
        else:
            self.line("class " + name)
            self.line(_STEP + ": public %s {" % base)
        self._depth += 1

    def enum(self, head, items):
        """On one line if it fits, else one item a line."""
        if not items:
            return
        single = "%s { %s };" % (head, ", ".join(items))
        if len(single) + len(_STEP) * self._depth <= WIDTH:
            self.line(single)
            return
        self.open(head + " {")
        for index, item in enumerate(items):
            self.line(item + ("," if index < len(items) - 1 else ""))
        self.close("};")

    def list(self, head, items, tail):
        """`head`, which ends with a bracket, the items and `tail`: on one line if they fit, else in lines
        that begin below the first item, else in lines of their own indentation."""
        room = WIDTH - len(_STEP) * self._depth
        single = head + ", ".join(items) + tail
        if len(single) <= room:
            self.line(single)
            return
        if not items:
            # What a function yields stands on a line of its own.
            result, _, name = head.rpartition(" ")
            self.line(result)
            self.line(name + tail)
            return
        column = len(head)
        if all(column + len(item) + max(1, len(tail)) <= room for item in items):
            self._fill(head, items, tail, " " * column, room)
        else:
            self.line(head)
            self._fill(_STEP, items, tail, _STEP, room)

    def literals(self, head, items, tail):
        """As `list`, with items that are string literals, in several pieces where they are long."""
        margin = " " * len(head)
        pieces = []
        for index, item in enumerate(items):
            room = WIDTH - len(_STEP) * self._depth - len(margin) - len(tail)
            words, current = item[1:-1].split(" "), '"'
            for position, word in enumerate(words):
                gap = " " if position < len(words) - 1 else ""
                if len(current) + len(word) + len(gap) + 1 > room and current != '"':
                    pieces.append(current + '"')
                    current = '"'
                current += word + gap
            pieces.append(current + '"' + ("," if index < len(items) - 1 else ""))
        for index, piece in enumerate(pieces or [""]):
            end = tail if index >= len(pieces) - 1 else ""
            self.line((head if index == 0 else margin) + piece + end)

    def function(self, head, literal):
        """A function that returns a string literal: on one line if it fits."""
        single = "%s { return %s; }" % (head, literal)
        if len(single) + len(_STEP) * self._depth <= WIDTH:
            self.line(single)
            return
        self.open(head + " {")
        self.literals("return ", [literal], ";")
        self.close()

    def _fill(self, head, items, tail, margin, room):
        current = head
        for index, item in enumerate(items):
            end = tail if index == len(items) - 1 else ","
            gap = "" if current in (head, margin) else " "
            if gap and len(current) + len(gap) + len(item) + len(end) > room:
                self.line(current)
                current, gap = margin, ""
            current += gap + item + end
        self.line(current)


def plain(comments):
    """The text of doc comments without their marks."""
    lines = []
    for comment in comments:
        body = comment.strip()
        for mark in ("/**<", "///<", "/**", "///"):
            if body.startswith(mark):
                body = body[len(mark) :]
                break
        if body.endswith("*/"):
            body = body[:-2]
        for line in body.split("\n"):
            line = line.strip()
            if line.startswith("*"):
                line = line[1:]
            lines.append(line.strip() if len(lines) == 0 else line.rstrip()[1 if line[:1] == " " else 0 :])
    while lines and not lines[0].strip():
        lines.pop(0)
    while lines and not lines[-1].strip():
        lines.pop()
    return "\n".join(lines).replace("*/", "* /").replace("/*", "/ *")
