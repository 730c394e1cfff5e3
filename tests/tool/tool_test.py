#!/usr/bin/env python3
"""The command reflectorb, driven as its users do, at processes that serve the house of the guide.

    tool_test.py <reflectorb> <house> <hello> <reflect_actor> <source tree> [<class>.<test>...]
"""
import json
import os
import pty
import re
import resource
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import zlib

TOOL, HOUSE, HELLO, ACTOR, TREE = sys.argv[1:6]
PATIENCE = 60  # seconds for what must happen; a busy machine needs less


class Process:
    """A program that is left running, and what it has said."""

    def __init__(self, *command, **environment):
        self.child = subprocess.Popen(
            list(command), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env={**os.environ, **environment})
        self.said = b""

    def stop(self):
        """Stops it; all of its threads stand when this returns."""
        self.child.send_signal(signal.SIGSTOP)
        os.waitpid(self.child.pid, os.WUNTRACED)

    def wait_for(self, pattern, more=0):
        """What stands in the first line with the pattern, which is taken with those before."""
        end = time.monotonic() + PATIENCE
        while True:
            found = re.search(pattern.encode() + rb"[^\n]*\n", self.said)
            if found:
                self.said = self.said[found.end():]
                return found.group().decode()
            ready, _, _ = select.select([self.child.stdout], [], [], max(0, end - time.monotonic()))
            some = os.read(self.child.stdout.fileno(), 65536) if ready else b""
            if not some:
                raise AssertionError("waited in vain for %r; said: %r" % (pattern, self.said))
            self.said += some

    def end(self, how=signal.SIGTERM):
        if self.child.poll() is None:
            self.child.send_signal(how)
        code = self.child.wait(PATIENCE)
        self.errors = self.child.stderr.read() if not self.child.stderr.closed else b""
        for stream in (self.child.stdin, self.child.stdout, self.child.stderr):
            stream.close()
        return code


def run(*arguments, stdin="", **environment):
    return subprocess.run(
        [TOOL] + list(arguments), input=stdin, text=True, timeout=PATIENCE,
        capture_output=True, env={**os.environ, **environment})


def serve(program, **environment):
    process = Process(program, **environment)
    process.wait_for("serving")
    return process


def until(holds):
    end = time.monotonic() + PATIENCE
    while not holds():
        if time.monotonic() > end:
            raise AssertionError("waited in vain")
        time.sleep(0.02)


class HouseTest(unittest.TestCase):
    """A house is served in a rendezvous folder of its own."""
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        os.environ["TRANSPORT_DIR"] = os.path.join(self.folder, "rendezvous")
        os.environ.pop("NO_COLOR", None)
        self.house = self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1")

    def start(self, program, **environment):
        process = serve(program, **environment)
        self.addCleanup(process.end, signal.SIGKILL)
        return process

    def stay(self, *arguments):
        """A subcommand that goes on, which has begun to."""
        process = Process(TOOL, *arguments, "--json")
        self.addCleanup(process.end, signal.SIGKILL)
        process.wait_for('"begun"')
        return process

    def actor(self):
        actor = Process(ACTOR, REFLECTORB_PROCESS_OBJECT="1")
        self.addCleanup(actor.end, signal.SIGKILL)
        actor.wait_for("ready")
        return actor

    @staticmethod
    def tell(actor, *lines):
        actor.child.stdin.write("".join(line + "\n" for line in lines).encode())
        actor.child.stdin.flush()

    def check(self, table):
        """(arguments, code, standard output, standard error), the last two as patterns of all."""
        for arguments, code, out, error in table:
            with self.subTest(arguments):
                ended = run(*arguments)
                self.assertEqual(ended.returncode, code, ended)
                self.assertRegex(ended.stdout, r"(?s)\A" + out + r"\Z")
                self.assertRegex(ended.stderr, r"(?s)\A" + error + r"\Z")


class ToolTest(HouseTest):
    def test_one_look_at_everything_and_its_exit_codes(self):
        self.start(HELLO)
        pid = self.house.child.pid
        self.check([
            (["list"], 0, r"/house  House  house  house\.%d\n" % pid, ""),
            (["list", "--all", "--class", "Lam?"], 0, r"/house/hall  Lamp  house.hall  .*\n", ""),
            (["list", "--class", "Nope"], 3, "", '.*no object of the class "Nope"\n'),
            (["list", "--process", "nobody"], 3, "", 'reflectorb: there is no process "nobody"\n'),
            (["tree"], 0, r"/house +House +house\.%d\n  hall +Lamp .*\n" % pid, ""),
            (["tree", "/house/hall"], 0, r"/house/hall +Lamp .*\n", ""),
            (["tree", "hello.greeter"], 0, r"hello.greeter +of an unknown class +hello.*\n", ""),
            (["show", "/house/hall"], 0,
             r"/house/hall\n.*class +Lamp\n.*attribute +Level +unsigned += 10 % +In percent\.\n.*"
             r"operation +blink\(unsigned times, string why\) -> bool\n.*", ""),
            (["show", "hello.greeter"], 3, "",
             r"reflectorb: hello.greeter: its class is unknown here: .*PROCESS_OBJECT=1.*\n"),
            (["get", "/house/hall/Level"], 0, "10\n", ""),
            (["get", "house.hall/Level"], 0, "10\n", ""),
            (["get", "/house/*/L*", "/house/hall/Steps"], 0,
             r"/house/hall/Level +10\n/house/hall/Steps +\[\]\n", ""),
            (["set", "/house/*/Level", "0x1E"], 0, r"/house/hall/Level  30\n", ""),
            (["set", "/house/hall/Level", "101"], 1, "",
             "reflectorb: /house/hall/Level: refused with code .*TooBright\n"),
            (["set", "/house/hall/Level", "-1"], 2, "", ".* is no value of type unsigned\n"),
            (["call", "/house/hall/blink", "2", "for fun"], 0, "true\n", ""),
            (["call", "/house/hall/blink", "2"], 2, "",
             ".*arguments wanted: unsigned times, string why; given: 1\n"),
            (["call", "/house/hall/nothing"], 3, "", '.*there is no operation "nothing"\n'),
            (["set", "/house/hall/Level", "--", "-1"], 2, "", ".* is no value of type unsigned\n"),
            (["get", "/**/Level"], 0, r"/house/hall/Level  30\n", ""),
            (["get", "/**/Nope"], 3, "", r".*/\*\*/Nope: there is no such attribute\n"),
            (["get", "/house/hall/N*"], 3, "", ".*no such attribute\n"),
            (["get", "/house/attic/Level"], 3, "", '.*/house has no child "attic"\n'),
            (["get", "elsewhere/Level"], 3, "", '.*nobody serves "elsewhere"\n'),
            (["get", "elsewhere@node/Level"], 3, "", '.*nobody serves "elsewhere@node"\n'),
            (["get", "/house/hall/Level", "/x/Y"], 3, r"/house/hall/Level +30\n", ".*\n"),
            (["set", "/house/hall/Steps", "[1, 2]"], 0, r"/house/hall/Steps +\[1, 2\]\n", ""),
            (["call", "/house/hall/blink", "2", "[for fun]"], 0, "true\n", ""),
            (["show", "/nope", "/house/hall"], 3, "/house/hall\n.*", '.*"/nope".*\n|.*\n'),
            (["tree", "/nope", "/house"], 3, ".*/house.*", ".*\n"),
            (["classes", "Nope"], 3, "", '.*knows a class "Nope"\n'),
            (["get", "Level"], 2, "", '.*"Level" is not OBJECT/MEMBER\n'),
            (["processes", "house"], 0, r"house +%d +1 +0\.1\.0 .* ok\n" % pid, ""),
            (["processes", "hello"], 0, "hello .*without process object\n", ""),
            (["classes", "Lamp"], 0, r"Lamp +0x\w{8} +\w{16} +house\.%d\n" % pid, ""),
            (["describe", "Lamp"], 0, r"Lamp\n.*operation +blink\(unsigned.*-> bool.*", ""),
            (["describe", "Nothing"], 3, "", ".*\n"),
            (["calls"], 0, "", ""), (["waits"], 0, "", ""),
            (["log", "house", "--level", "2"], 0, "", ""),
            (["diff", "house", str(pid)], 0, "", ""),
            (["check"], 0, "ok: 2 processes\n", ""),
            (["--version"], 0, r"reflectorb \d+\.\d+\.\d+\n", ""),
            ([], 2, "", "reflectorb: .*; reflectorb --help .*\n"),
            (["lists"], 2, "", '.*no subcommand "lists".*'), (["get"], 2, "", "reflectorb: .*\n"),
            (["list", "--timeout", "0"], 2, "", "reflectorb: --timeout.*; reflectorb list --help .*\n"),
            (["watch"], 2, "", ".*"), (["watch", "/house/hall/None"], 3, "", ".*"),
        ])
        # A folder may bear the name of a process.
        os.mkdir(os.path.join(self.folder, "house"))
        self.assertEqual(subprocess.run([TOOL, "diff", "house", "house"], cwd=self.folder).returncode, 0)
        for folder in ("/proc/nowhere", "relative"):
            ended = run("list", "--json", TRANSPORT_DIR=folder)
            self.assertEqual((ended.returncode, json.loads(ended.stdout)["error"]["code"]), (6, 6))
            self.assertRegex(ended.stderr,
                             r"\Areflectorb: cannot join the group: [^\n;]*%s[^\n;]*\n\Z" % folder)
        with open("/dev/full", "w") as full:
            self.assertEqual(subprocess.run([TOOL, "list"], stdout=full, stderr=full).returncode, 6)

    def test_what_is_known_in_the_unit_and_in_the_node_is_told_apart(self):
        actor = self.actor()
        self.tell(actor, "publish both", "publishwide both")
        for _ in range(2):
            actor.wait_for("published")
        process = r"  reflect_actor\.%d\n" % actor.child.pid
        names = re.findall(r"(?m)^both.*", run("list", "--all").stdout)
        self.assertEqual([name.split()[0::3] for name in names], [["both", "both"], ["both@node", "both@node"]])
        self.check([(["tree", "both@node"], 0, r"both@node  \(not reflective\)" + process, ""),
                    (["tree", "both*"], 0, "both .*both@node.*", "")])

    def test_json_is_one_document_with_the_same(self):
        def read(*arguments):
            return json.loads(run(*arguments, "--json").stdout)

        objects = read("list", "--all")
        self.assertEqual({"objects", "missing"}, set(objects))
        self.assertIn(("/house/hall", "Lamp", "house.hall"), [
            (one["name"], one["class"], one["identifier"]) for one in objects["objects"]])
        self.assertEqual(read("tree", "/house")["trees"][0]["children"][0]["name"], "hall")
        shown = read("show", "/house/hall")["objects"][0]
        self.assertIn({"name": "Level", "type": "unsigned", "writable": True, "value": 10,
                       "doc": "In percent.", "unit": "%"},
                      shown["attributes"])
        self.assertIn("blink", [one["name"] for one in shown["operations"]])
        values = read("get", "/house/hall/*", "/house/hall/None")["values"]
        self.assertEqual([one.get("value") for one in values], [10, [], None])
        self.assertEqual([one.get("unit") for one in values], ["%", None, None])
        self.assertEqual(values[2]["error"]["code"], 3)
        self.assertEqual(read("call", "/house/hall/blink", "0", "x")["calls"][0]["value"], False)
        process = read("processes")["processes"][0]
        self.assertEqual((process["actor"], process["pid"]), ("house", self.house.child.pid))
        identity = read("get", "process/house.%d/Identity" % process["pid"])["values"][0]["value"]
        self.assertEqual(identity["commandLine"][-1], HOUSE)
        described = read("describe", "Lamp")["classes"]
        self.assertEqual(described[0]["name"], "Lamp")
        with open(os.path.join(self.folder, "classes.json"), "w") as file:
            json.dump(read("describe", "*"), file)
        self.assertEqual(read("diff", file.name, "house"), {"differences": []})
        for name, list_name in (("calls", "calls"), ("waits", "cycles"), ("log", "records"),
                                ("check", "faults"), ("classes", "classes")):
            self.assertIn(list_name, read(name))

    def test_words_come_from_standard_input(self):
        self.assertEqual(run("get", "-", stdin="/house/hall/Level\n/house/hall/Steps\n").stdout,
                         "/house/hall/Level  10\n/house/hall/Steps  []\n")
        self.assertEqual(run("call", "/house/hall/blink", "-", stdin="3\na, \"b\"\n").stdout,
                         "true\n")

    def test_who_hangs_costs_his_own_lines(self):
        def hang():  # it has the run permission while it writes what nobody reads
            while run("call", "/house/hall/blink", "1", "x" * 60000, "--timeout", "1").returncode == 0:
                pass

        pid = self.house.child.pid
        for way, patience, state in ((hang, "1", "does not answer"), (self.house.stop, "20", "stopped")):
            way()
            other = self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR="other")
            self.check([
                (["get", "house.hall/Level", "--timeout", "20"], 0, "10\n", ""),
                (["list", "--timeout", patience], 5, "/house .*other.*\n",
                 r".*no answer in time: house\.%d\n" % pid),
                (["get", "/*/hall/Level", "--timeout", patience], 5, "/house/hall/Level  10\n",
                 r".*no answer in time: house\.%d\n" % pid),
                (["processes", "--timeout", patience], 5, "house +%d .* %s\nother .*ok\n" % (pid, state),
                 ".*house.*"),
                (["get", "process/house.%d/Usage" % pid, "--timeout", patience], 5, "",
                 ".*no answer.*\n"),
                (["check", "--timeout", patience], 5, "", ".*house.*\n"),
            ])
            other.end(signal.SIGKILL)

    def test_who_waits_for_whom(self):
        # Who is observed waits for the observer, which is stopped in a way that it cannot hear of.
        watch = self.stay("watch", "/house/removeLamp")
        watch.stop()
        caller = Process(TOOL, "call", "/house/removeLamp", "x", "--timeout", "50",
                         REFLECTORB_PROCESS_OBJECT="1")
        self.addCleanup(caller.end, signal.SIGKILL)
        names = {name: "%s.%d" % (name, process.child.pid)
                 for name, process in (("house", self.house), ("reflectorb", caller))}
        end = time.monotonic() + PATIENCE
        expected = {(names["reflectorb"], names["house"]),
                    (names["house"], "reflectorb.%d" % watch.child.pid)}
        while time.monotonic() < end:
            told = json.loads(run("waits", "--json", "--timeout", "1").stdout)
            if {(wait["from"], wait["to"]) for wait in told["waits"]} == expected:
                break
        else:
            self.fail(told)
        self.assertEqual(told["cycles"], [])
        self.assertRegex(run("calls", "reflectorb").stdout, " house.* call .*0x")
        watch.child.send_signal(signal.SIGCONT)
        self.assertEqual(caller.child.wait(PATIENCE), 0)

    def test_circles_of_waiting_processes_are_marked(self):
        circle = []
        for other in ("b", "a"):
            actor = self.actor()
            self.tell(actor, "publish " + {"b": "a", "a": "b"}[other])
            actor.wait_for("published")
            circle.append((actor, other))
        for actor, other in circle:
            self.tell(actor, "hold " + other)
        names = sorted("reflect_actor.%d" % actor.child.pid for actor, _ in circle)
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            told = json.loads(run("waits", "--json").stdout)
            if told["cycles"] == [names]:
                break
        else:
            self.fail(told)
        self.assertTrue(all(wait["inCycle"] for wait in told["waits"]))
        self.assertIn("CYCLE: they wait for each other: %s, %s" % tuple(names), run("waits").stdout)

    def test_completion_tells_what_is_there(self):
        self.assertEqual(run("complete", "--", "tree", "/house/h").stdout, "/house/hall\n")
        self.assertEqual(run("complete", "--", "get", "house.hall/L").stdout, "house.hall/Level\n")
        self.assertEqual(run("complete", "--", "call", "/house/hall/b").stdout, "/house/hall/blink\n")
        self.assertEqual(run("complete", "--", "list", "--class", "La").stdout, "Lamp\n")
        self.assertEqual(run("complete", "--", "record", "x", "La").stdout, "Lamp\n")
        self.assertEqual(run("complete", "--", "log", "ho").stdout,
                         "house.%d\n" % self.house.child.pid)
        script = """PATH=%s:$PATH; REFLECTORB_COMPLETION_TIMEOUT=20; source %s/tool/completion/reflectorb.bash; compopt() { :; }
            complete_line() { COMP_WORDS=(reflectorb "$@"); COMP_CWORD=$#; _reflectorb
                              echo "${COMPREPLY[*]}"; }
            complete_line wat; complete_line set --t; complete_line set /house/hall/S
            complete_line replay %s/READM; complete_line record x /house/ha
            complete_line replay x --only /house/hall/bl"""
        shell = subprocess.run(["bash", "-c", script % (os.path.dirname(TOOL), TREE, TREE)],
                               capture_output=True, text=True, timeout=PATIENCE)
        self.assertEqual(shell.stdout, "watch\n--timeout\n/house/hall/Steps\n"
                         "%s/README.md\n/house/hall\n/house/hall/blink\n" % TREE, shell)

    def test_top_looks_again_and_again(self):
        if "top" not in run("--help").stdout:
            self.skipTest("there is no ncurses")
        looks = [json.loads(line) for line in run("top", "--count", "2", "--json").stdout.splitlines()]
        self.assertEqual([look["processes"][0]["process"] for look in looks],
                         ["house.%d" % self.house.child.pid] * 2)
        # On its screen, until q is pressed.
        master, slave = pty.openpty()
        child = subprocess.Popen([TOOL, "top"], stdin=slave, stdout=slave,
                                 env={**os.environ, "TERM": "xterm", "COLUMNS": "100", "LINES": "20"})
        os.close(slave)
        screen = b""
        while b"house.%d" % self.house.child.pid not in screen:
            screen += os.read(master, 65536)
        self.assertIn(b"q ends", screen)
        os.write(master, b"q")
        try:
            while os.read(master, 65536):
                pass
        except OSError:  # the other end is closed
            pass
        os.close(master)
        self.assertEqual(child.wait(PATIENCE), 0)

    def test_values_and_calls_are_watched_and_forbidden(self):
        watch = self.stay("watch", "/house/hall/Level", "/house/hall/blink", "--count", "3")
        run("set", "/house/hall/Level", "20")
        run("call", "/house/hall/blink", "1", "why")
        self.assertEqual(watch.child.wait(PATIENCE), 0)
        lines = [json.loads(line) for line in watch.child.stdout.read().splitlines()]
        for line in lines:
            self.assertGreater(line.pop("time"), 1e15)
            if line["event"] in ("call", "end"):
                self.assertRegex(line.pop("caller"), r"reflectorb\.\d+")
                self.assertGreater(line.pop("call"), 0)
        where = {"object": "/house/hall", "member": "blink"}
        self.assertEqual(lines[-3:], [
            {"event": "value", "object": "/house/hall", "member": "Level", "type": "unsigned",
             "value": 20, "unit": "%"},
            {"event": "call", **where, "arguments": [1, "why"]},
            {"event": "end", **where, "results": [True], "fate": "done"}])

        veto = self.stay("veto", "/house/hall/Level")
        self.check([(["set", "/house/hall/Level", "5"], 4, "", ".*an observer forbids it\n")])
        self.assertIn("[5]", veto.wait_for('"vetoed"'))
        # Ctrl-Z: others do not wait for whoever is stopped, and are told anew when he goes on.
        os.kill(veto.child.pid, signal.SIGTSTP)
        self.assertTrue(os.WIFSTOPPED(os.waitpid(veto.child.pid, os.WUNTRACED)[1]))
        self.check([(["set", "/house/hall/Level", "6"], 0, ".*6\n", "")])
        os.kill(veto.child.pid, signal.SIGCONT)
        veto.wait_for('"begun"')
        self.check([(["set", "/house/hall/Level", "7"], 4, "", ".*\n")])
        self.assertEqual(veto.end(), 0)
        self.check([(["set", "/house/hall/Level", "8"], 0, ".*8\n", "")])

    def test_what_comes_later_is_watched_and_what_returns_anew(self):
        watches = [self.stay("watch", *what) for what in (
            ("--class", "Lamp"), ("/house/*/*",), ("--below", "/house"))]
        record, veto = self.record("later", "Lamp"), self.stay("veto", "/house/attic*/Level")
        for _ in range(2):
            run("call", "/house/addLamp", "attic")
            told = {one: self.until(one, "came", "/house/attic") for one in watches + [record, veto]}
            self.check([(["set", "/house/attic/Level", "5"], 4, "", ".*\n"),
                        (["call", "/house/attic/blink", "3", "x"], 0, "true\n", "")])
            run("call", "/house/removeLamp", "attic")
            for watch in watches:
                self.assertEqual(told[watch] + self.until(watch, "gone", "/house/attic"), [
                    ("value", "Level"), ("value", "Steps"), ("came", None), ("call", "blink"),
                    ("end", "blink"), ("gone", None)])
            self.until(record, "gone", "/house/attic")
        self.house.end(signal.SIGKILL)
        self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1")
        for one in watches + [record]:
            self.until(one, "came", "/house/hall")
        run("set", "/house/hall/Level", "77")
        for watch in watches:
            watch.wait_for('"value":77')
        for one in watches + [record, veto]:
            self.assertEqual(one.end(), 0)
        told = [(line["event"], line.get("member"), line.get("value"), line.get("fate"))
                for line in self.shown("later")[0] if line.get("object") == "/house/attic"]
        once = [("object", None, None, None), ("value", "Level", 10, None), ("value", "Steps", [], None),
                ("call", "setLevel", None, None), ("end", "setLevel", None, "vetoed"),
                ("call", "blink", None, None), ("end", "blink", None, "done"),
                ("gone", None, None, None)]
        self.assertEqual(told, once * 2)

    def test_calls_that_overlap_are_recorded_and_overlap_again(self):
        actor = self.actor()
        record = self.record("shy", "Lamp")
        self.tell(actor, "shy desk")  # which does not answer at once that it is observed
        self.until(record, "came", "/desk")
        caller = Process(TOOL, "set", "/desk/Held", "5", "--timeout", "50")
        self.addCleanup(caller.end, signal.SIGKILL)
        self.tell(actor, "awaitheld desk")
        actor.wait_for("held")
        self.check([(["call", "/desk/ping"], 0, "", "")])
        self.assertEqual(caller.child.wait(PATIENCE), 0)
        self.check([(["set", "/desk/Level", "101"], 1, "", ".*code 7\n")])
        code = record.end()
        self.assertEqual((code, record.errors), (0, b""))
        told = [(line["event"], line.get("member")) for line in self.shown("shy")[0]
                if line.get("object") == "/desk" and line["event"] != "value"]
        self.assertEqual((told[:3], sorted(told[3:5]), told[5:]), (
            [("object", None), ("call", "setHeld"), ("call", "ping")],
            [("end", "ping"), ("end", "setHeld")], [("call", "setLevel"), ("end", "setLevel")]))
        actor.end(signal.SIGKILL)
        actor = self.actor()
        self.tell(actor, "shy desk")
        actor.wait_for("made")
        path = os.path.join(self.folder, "shy")
        self.check([(["replay", path, "--check", "--speed", "0", "--timeout", "20"], 0,
                     r"[^\n]*setHeld\(5\)\n[^\n]*ping\(\)\n[^\n]*setLevel[^\n]*\n"
                     r".*3 calls made, 0 differences\n", "")])

    @staticmethod
    def until(process, event, name):
        """What is told of an object up to an event: events and members."""
        told = []
        while not told or told[-1][0] != event:
            line = json.loads(process.wait_for(r'\{[^\n]*"object":"%s"' % name))
            told.append((line["event"], line.get("member")))
        return told

    def test_who_does_not_read_holds_up_nobody(self):
        watch = self.stay("watch", "/house/removeLamp")
        long = "x" * 60000  # more than a pipe takes
        for _ in range(4):
            self.assertEqual(run("call", "/house/removeLamp", long).returncode, 0)
        self.assertEqual(watch.end(), 0)
        # Whoever has read enough ends it, before there is more to write.
        enough = self.stay("watch", "/house/hall/Steps")
        enough.child.stdout.close()
        self.assertEqual(enough.child.wait(PATIENCE), 0)

    def test_the_logs_of_processes_that_come_later_are_followed(self):
        follow = Process(TOOL, "log", "oth*", "--follow", "--json")
        self.addCleanup(follow.end, signal.SIGKILL)
        for _ in range(2):
            other = Process(ACTOR, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR="other")
            self.addCleanup(other.end, signal.SIGKILL)
            other.child.stdin.write(b"publish probe\nlog 1\n")
            other.child.stdin.flush()
            follow.wait_for('"process":"other.%d".*"record 1"' % other.child.pid)
            other.end(signal.SIGKILL)
        self.assertEqual(follow.end(), 0)

    def test_objects_and_processes_come_and_go_once(self):
        follow = Process(TOOL, "follow", "--json")
        self.addCleanup(follow.end, signal.SIGKILL)
        follow.wait_for('"created".*/house/hall"')
        run("call", "/house/addLamp", "attic")
        follow.wait_for('"created".*/house/attic"')
        run("call", "/house/removeLamp", "attic")
        follow.wait_for('"deleted".*/house/attic"')
        hello = self.start(HELLO)
        follow.wait_for('"arrived".*hello.%d"' % hello.child.pid)
        hello.end()
        follow.wait_for('"departed".*hello.%d"' % hello.child.pid)
        self.house.end(signal.SIGKILL)
        follow.wait_for('"departed".*house.%d"' % self.house.child.pid)
        self.assertEqual(follow.end(), 0)

    def test_for_people_there_are_headings_and_cuts_on_a_terminal_only(self):
        def on_terminal(*arguments, **environment):
            master, slave = pty.openpty()
            child = subprocess.Popen([TOOL] + list(arguments), stdout=slave, stderr=slave,
                                     env={**os.environ, "TERM": "xterm", "COLUMNS": "60",
                                          **environment})
            os.close(slave)
            text = b""
            try:
                while some := os.read(master, 65536):
                    text += some
            except OSError:  # the other end is closed
                pass
            os.close(master)
            child.wait(PATIENCE)
            return text.decode()

        lamp = "a lamp whose name is so long that no line of sixty has room for it"
        run("call", "/house/addLamp", lamp)
        shown = on_terminal("list", "--all", "--class", "Lamp")
        self.assertTrue(shown.startswith("\x1b[1mNAME"), shown)
        self.assertIn("\u2026", shown)
        self.assertLessEqual(max(map(len, shown.splitlines()[1:])), 60)
        self.assertIn(lamp, on_terminal("list", "--all", "--class", "Lamp", "--full"))
        self.assertNotIn("\x1b", on_terminal("list", NO_COLOR="1"))
        # What has nothing behind it is not cut for the sake of other lines.
        self.assertIn("house.%d\r\n" % self.house.child.pid,
                      on_terminal("show", "/house/hall", COLUMNS="40", NO_COLOR="1"))
        narrow = on_terminal("processes", COLUMNS="20", NO_COLOR="1").splitlines()
        self.assertEqual([len(line) for line in narrow], [20, 20])

    def record(self, name, *words):
        return self.stay("record", os.path.join(self.folder, name), *words)

    def shown(self, name):
        """What stands in a recording, without times."""
        ended = run("show", os.path.join(self.folder, name), "--json")
        lines = [json.loads(line) for line in ended.stdout.splitlines()]
        for line in lines:
            line.pop("time", None)
            if line.pop("call", 0):
                self.assertRegex(line.pop("caller", "reflectorb.1"), r"\A(reflectorb|house)\.\d+\Z")
        return lines, ended

    def test_what_is_done_is_recorded_and_done_again(self):
        path = os.path.join(self.folder, "a")
        recorder = self.record("a", "Lam?")
        run("set", "/house/hall/Steps", "[10, 30]")
        run("set", "/house/hall/Level", "101")
        run("call", "/house/hall/nextStep")
        run("call", "/house/hall/blink", "2", "for fun")
        run("call", "/house/addLamp", "attic")
        self.assertEqual(recorder.end(), 0)
        hall = {"object": "/house/hall"}
        call, end = {"event": "call", **hall}, {"event": "end", **hall}
        lines, _ = self.shown("a")
        self.assertEqual([line for line in lines if line["event"] in ("call", "end", "value") and
                          line["object"] == "/house/hall"], [
            {"event": "value", **hall, "member": "Level", "type": "unsigned", "value": 10, "unit": "%"},
            {"event": "value", **hall, "member": "Steps", "type": "sequence<unsigned>", "value": []},
            {**call, "member": "setSteps", "arguments": [[10, 30]]},
            {**end, "member": "setSteps", "results": [], "fate": "done"},
            {"event": "value", **hall, "member": "Steps", "type": "sequence<unsigned>",
             "value": [10, 30]},
            {**call, "member": "setLevel", "arguments": [101]},
            {**end, "member": "setLevel", "results": [], "fate": "refused", "error": {
                "code": 1007164706, "text": "refused with code 1007164706, Lamp::TooBright {limit: 100}"}},
            {**call, "member": "nextStep", "arguments": []},
            {"event": "value", **hall, "member": "Level", "type": "unsigned", "value": 30, "unit": "%"},
            {**end, "member": "nextStep", "results": [30], "fate": "done"},
            {**call, "member": "blink", "arguments": [2, "for fun"]},
            {**end, "member": "blink", "results": [True], "fate": "done"}])
        self.assertEqual(lines[-1], {"event": "ended"})

        run("set", "/house/hall/Level", "10")
        self.check([
            (["replay", path, "--check", "--speed", "0"], 0, r".*nextStep\(\) -> 30\n.*4 calls made, "
             r"0 differences\n", ""),
            (["replay", path, "--check", "--only", "/house/*/nextStep"], 1,
             r".*nextStep\(\) -> 0\n.*30 then, now 0\n.*1 calls made, 1 differences\n", ""),
            (["replay", path, "--speed", "1000", "--to", "/house/attic", "--only", "**/setSteps"], 0,
             r".*/house/attic/setSteps\(\[10, 30\]\)\n.*", ""),
            (["get", "/house/attic/Steps"], 0, r"\[10, 30\]\n", ""),
            (["replay", path, "--only", "/nothing"], 3, "", ".*no such calls\n"),
            (["replay", path, "--to", "/house/*"], 2, "", ".*no pattern\n"),
            (["replay", path, "--speed", "fast"], 2, "", ".*no factor\n"),
            (["replay", path, "--to", "/nobody"], 3, "", ".*none of the objects is there\n"),
            (["replay", TOOL], 2, "", ".*is no recording.*\n"), (["replay", "/nowhere"], 3, "", ".*\n"),
            (["record", path], 2, "", ".*--force replaces it\n"),
            (["record", "/dev/null"], 2, "", ".*is no file\n"),
            (["record", path + "2", "--size", "5X"], 2, "", ".*is no size.*\n"),
        ])
        with subprocess.Popen([TOOL, "replay", path, "--step", "--json"], text=True,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE) as stepping:
            stepping.stdin.write("\n\nq\n")  # and its input stays open
            stepping.stdin.flush()
            events = [json.loads(line)["event"] for line in stepping.stdout]
        self.assertEqual(events, ["begun"] + ["next", "replayed"] * 2 + ["next", "ended"])

        # What was refused then and is done now, of one without results, too.
        with open(path, "rb") as file:
            content = file.read()
        with open(path + "4", "wb") as file:
            file.write(self.with_level(content, 101, 40))
        self.check([(["replay", path + "4", "--check", "--speed", "0", "--only", "**/setLevel"], 1,
                     r".*TooBright \{limit: 100\} then, now done\n.*", "")])

        # It is readable where nobody knows the classes, and where it was cut off or damaged; without a group.
        self.house.end(signal.SIGKILL)
        os.environ["TRANSPORT_DIR"] = "/proc/nowhere"
        self.assertEqual(self.shown("a")[0], lines)
        with open(path, "rb") as file:
            content = file.read()
        with open(path + "3", "wb") as file:
            file.write(content[:-5])
        self.assertEqual(self.shown("a3")[0], lines[:-1])
        self.assertRegex(self.shown("a3")[1].stderr, "was cut off")
        with open(path + "3", "wb") as file:
            at = content.rindex(b"blink")
            file.write(content[:at] + b"?" + content[at + 1:])
        damaged, ended = self.shown("a3")
        self.assertEqual((ended.returncode, damaged.pop()["error"]["code"]), (2, 2))
        self.assertEqual(damaged, lines[:len(damaged)])
        self.assertGreater(len(damaged), 10)

    @staticmethod
    def with_level(content, old, new):
        """A recording whose only call with this argument has another one."""
        at = content.index(b"setLevel\0\0\0\1\0\0\0\4" + struct.pack(">I", old))
        head = content.rfind(struct.pack(">I", 3), 0, at) - 8
        size = struct.unpack(">I", content[head:head + 4])[0]
        payload = content[head + 8:head + 8 + size].replace(struct.pack(">I", old), struct.pack(">I", new))
        return (content[:head + 4] + struct.pack(">I", zlib.crc32(payload)) + payload +
                content[head + 8 + size:])

    def test_a_recording_that_is_killed_or_full_is_readable(self):
        with open(os.path.join(self.folder, "b.2"), "w"):
            self.check([(["record", file, "--size", "1K", "--files", "3"], 2, "", '.*b.2" is there.*\n')
                        for file in [os.path.join(self.folder, "b")]])
        recorder = self.record("b", "/house/hall", "--size", "1K", "--files", "3", "--force")
        levels = list(range(20, 40))
        for level in levels:
            run("set", "/house/hall/Level", str(level))
        # Ctrl-Z: nobody waits for it, and it goes on behind what it has.
        os.kill(recorder.child.pid, signal.SIGTSTP)
        self.assertTrue(os.WIFSTOPPED(os.waitpid(recorder.child.pid, os.WUNTRACED)[1]))
        run("set", "/house/hall/Level", "50")
        os.kill(recorder.child.pid, signal.SIGCONT)
        recorder.wait_for('"begun"')
        run("set", "/house/hall/Level", "40")
        told = lambda: [(line["event"], line.get("value")) for line in self.shown("b")[0]]
        until(lambda: all(event in told() for event in (("end", None), ("value", 40))))
        recorder.end(signal.SIGKILL)
        self.assertEqual(sorted(name for name in os.listdir(self.folder) if name[0] == "b"),
                         ["b", "b.1", "b.2"])
        recorded = []
        for name in ("b.2", "b.1", "b"):
            lines, _ = self.shown(name)
            self.assertEqual({"recording", "class", "object"}, {line["event"] for line in lines[:3]})
            self.assertLess(os.path.getsize(os.path.join(self.folder, name)), 3072)
            recorded += [line["arguments"][0] for line in lines if line["event"] == "call"]
        self.assertEqual(recorded, (levels + [40])[-len(recorded):])
        self.assertGreater(len(recorded), 8)

        # A disk that is full ends it, and no call waits for that.
        limited = Process(TOOL, "record", os.path.join(self.folder, "c"), "--json")
        self.addCleanup(limited.end, signal.SIGKILL)
        limited.wait_for('"begun"')
        # The limit holds for rings as well, of which the smallest must have room.
        resource.prlimit(limited.child.pid, resource.RLIMIT_FSIZE, (200_000, 200_000))
        # What the house says of the calls would fill its pipe.
        threading.Thread(target=self.house.child.stdout.read, daemon=True).start()
        for _ in range(5):
            self.check([(["call", "/house/hall/blink", "1", "x" * 45_000], 0, "true\n", "")])
        self.assertEqual(limited.child.wait(PATIENCE), 6)
        self.assertIn(b"cannot write", limited.child.stderr.read())

    def test_the_man_page_tells_each_subcommand_and_option(self):
        with open(os.path.join(TREE, "tool/man/reflectorb.1")) as file:
            page = file.read().replace("\\-", "-")
        commands = re.findall(r"^  ([a-z]+)  ", run("--help").stdout.split("Subcommands:")[1], re.M)
        self.assertGreater(len(commands), 15)
        for command in commands:
            self.assertRegex(page, r"(?m)^\.(B|BR|SS) ?\"?%s\b" % command)
            for option in re.findall(r"--[a-z]+", run(command, "--help").stdout):
                self.assertIn(option, page, command)

    def test_idl_of_a_class_makes_the_same_class(self):
        compiler = os.path.join(TREE, "compiler/reflectorb-idl")
        if not shutil.which("omniidl"):
            self.skipTest("there is no omniidl")
        text = run("describe", "Lamp", "--idl").stdout
        with open(os.path.join(self.folder, "lamp.idl"), "w") as file:
            file.write(text)
        subprocess.run([compiler, "-o", self.folder, file.name], check=True, timeout=PATIENCE)
        original = os.path.join(TREE, "examples/house/generated/home")
        self.assertEqual(self.table(os.path.join(self.folder, "lamp.h")), self.table(original + ".h"))
        self.assertEqual(self.codes(os.path.join(self.folder, "lamp.json")),
                         self.codes(original + ".json"))

    @staticmethod
    def table(header):
        """The rows of the class's table, in which their order does not matter, and what follows them, the
        comments at last."""
        with open(header) as file:
            text = re.search(r'"Lamp", lamp::kClass.*?\);', file.read(), re.S).group()
        operations, attributes = re.sub(r"\s+", "", text).split('{"Level"', 1)
        return sorted(row.strip("{},") for row in re.split(r'(?="\w+",lamp::k)', operations)), attributes

    @staticmethod
    def codes(description):
        with open(description) as file:
            lamp = [one for one in json.load(file)["declarations"] if one["name"] == "Lamp"][0]
        members = {one["name"]: (one.get("code"), one.get("setCode")) for one in lamp["contents"]}
        members.pop("Steps", None)  # a name of the type alone
        return lamp["classId"], members


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[6:], verbosity=2)
