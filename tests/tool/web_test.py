#!/usr/bin/env python3
"""reflectorb web, asked over plain sockets as browsers, scripts and strangers do.

    web_test.py <as tool_test.py>
"""
import json
import os
import signal
import socket
import sys
import time
import unittest
import urllib.parse
import zlib

from tool_test import HOUSE, PATIENCE, TOOL, HouseTest, Process, run, until


class Stream:
    """The state that an event stream tells."""

    def __init__(self, gateway, query="values=**", headers=()):
        self.socket = gateway.connect()
        self.socket.sendall(gateway.request("GET", "/api/events?" + query, headers))
        self.raw = b""
        self.last = self.afresh = 0
        self.objects, self.values, self.calls = {}, {}, []

    def until(self, holds):
        end = time.monotonic() + PATIENCE
        while not holds():
            self.socket.settimeout(max(0.01, end - time.monotonic()))
            some = self.socket.recv(65536)
            if not some:
                raise AssertionError("the stream has ended: %r" % self.raw[-500:])
            self.raw += some
            *whole, self.raw = self.raw.split(b"\n\n")
            for event in whole:
                for line in event.splitlines():
                    if line.startswith(b"id: "):
                        self.last = int(line[4:])
                    if line.startswith(b"data: "):
                        self.take(json.loads(line[6:]))

    def take(self, news):
        if news.get("afresh"):
            self.objects, self.values = {}, {}
            self.afresh += 1
        self.objects.update((one["id"], one) for one in news.get("objects", []))
        for gone in news.get("gone", {}).get("objects", []):
            del self.objects[gone]
        self.values.update(((one[0], one[1]), one[2]) for one in news.get("values", []))
        self.calls += news.get("calls", [])

    def names(self):
        return {one["name"] for one in self.objects.values()}

    def value(self, name, attribute):
        return {self.values.get((one["id"], attribute)) for one in self.objects.values()
                if one["name"] == name}


class Gateway:
    def __init__(self, test, *options, listen="127.0.0.1:0"):
        self.process = Process(TOOL, "web", "--listen", listen, "--json", *options)
        test.addCleanup(self.process.end, signal.SIGKILL)
        begun = json.loads(self.process.wait_for(r'\{[^\n]*"event":"begun"'))
        self.address = urllib.parse.urlsplit(begun["address"])
        self.token = self.address.query.replace("token=", "")
        self.test = test

    def connect(self):
        connection = socket.create_connection(("127.0.0.1", self.address.port), PATIENCE)
        self.test.addCleanup(connection.close)
        return connection

    def request(self, method, path, headers=(), body=b""):
        lines = {"Host": self.address.netloc, "Authorization": "Bearer " + self.token,
                 "Content-Length": str(len(body)), **dict(headers)}
        head = "".join("%s: %s\r\n" % line for line in lines.items() if line[1] is not None)
        return ("%s %s HTTP/1.1\r\n%s\r\n" % (method, path, head)).encode() + body

    def ask(self, method, path, headers=(), body=b""):
        """The status and what is answered."""
        with self.connect() as connection:
            answer = b""
            try:
                connection.sendall(self.request(method, path, headers, body))
                while some := connection.recv(65536):
                    answer += some
            except (ConnectionResetError, BrokenPipeError):
                pass  # a refused body that was not read
        head, _, body = answer.partition(b"\r\n\r\n")
        return int(head.split()[1]) if head else 0, body.decode()

    def post(self, path, body):
        status, answer = self.ask("POST", path, {"Content-Type": "application/json"},
                                  json.dumps(body).encode())
        return status, json.loads(answer)


class WebTest(HouseTest):
    def test_only_who_has_the_token_and_comes_from_here_gets_in(self):
        gateway = Gateway(self)
        own = "http://" + gateway.address.netloc
        json_type = {"Content-Type": "application/json"}
        change = b'{"name": "/house/hall/Level", "value": 1}'
        for method, path, headers, body, status in [
                ("GET", "/api/", {}, b"", 200),
                ("GET", "/", {}, b"", 200),
                ("GET", "/api/", {"Origin": own}, b"", 200),
                ("GET", "/api/?token=" + gateway.token, {"Authorization": None}, b"", 200),
                ("GET", "/api/", {"Authorization": None}, b"", 403),
                ("GET", "/", {"Authorization": None}, b"", 200),  # it has a field for the token
                ("GET", "/", {"Authorization": None, "Host": "evil.example"}, b"", 403),
                ("GET", "/metrics", {"Authorization": None}, b"", 403),
                ("GET", "/api/events", {"Authorization": None}, b"", 403),
                ("GET", "/api/?token=", {"Authorization": "Bearer "}, b"", 403),
                ("GET", "/api/", {"Authorization": "Bearer " + "0" * 32}, b"", 403),
                ("GET", "/api/", {"Host": "evil.example"}, b"", 403),
                ("GET", "/api/", {"Host": "evil.example:%d" % gateway.address.port}, b"", 403),
                ("GET", "/api/", {"Host": None}, b"", 403),
                ("GET", "/api/", {"Host": "10.0.0.7:%d" % gateway.address.port}, b"", 403),
                ("GET", "/api/", {"Origin": "http://evil.example"}, b"", 403),
                ("GET", "/api/", {"Origin": "null"}, b"", 403),
                ("POST", "/api/set", {**json_type, "Origin": "http://evil.example"}, change, 403),
                ("POST", "/api/set", json_type, change, 403),  # read-only
                ("POST", "/api/call", json_type, b'{"name": "/house/hall/blink"}', 403),
                ("GET", "/api/set", {}, b"", 400),
                ("GET", "/api/nothing", {}, b"", 404),
                ("GET", "/api/list?name=" + "**" * 40 + "b", {}, b"", 200),  # and soon
                ("GET", "/api/events?values=" + "x" * 257, {}, b"", 400),
                ("GET", "/api/events?" + "".join("&calls=x%d" % i for i in range(33)), {}, b"", 400),
                ("GET", "/api/get?name=/house/hall/None", {}, b"", 404),
                ("POST", "/api/set", json_type, b"[" * 1000, 403),  # and not read at all
                ("POST", "/", {**json_type, "Authorization": None, "Content-Encoding": "gzip"},
                 b"not unpacked, since nobody knows who it is", 403),
                ("PUT", "/api/set", json_type, change, 405),
                ("GET", "/api/", {"X-%d" % i: "x" * 8000 for i in range(10)}, b"", (0, 400)),
                ("GET", "/" + "x" * 9000, {}, b"", (0, 400, 414))]:
            with self.subTest(method=method, path=path[:60], headers=headers):
                self.assertIn(gateway.ask(method, path, headers, body)[0],
                              status if isinstance(status, tuple) else (status,))
        self.assertEqual(run("get", "/house/hall/Level").stdout, "10\n")
        open_to_all = os.path.join(self.folder, "token")
        with open(open_to_all, "w") as file:
            file.write("0123456789abcdef\n")
        os.chmod(open_to_all, 0o644)
        self.check([
            (["web", "--listen", "0.0.0.0:0", "--no-token"], 2, "", ".*not without a token\n"),
            (["web", "--listen", "127.0.0.1:x"], 2, "", ".*is no port\n"),
            (["web", "--listen", gateway.address.netloc], 6, "", ".*cannot listen.*in use\n"),
            (["web", "--token-file", open_to_all], 6, "", ".*others may read.*\n")])

    def test_other_machines_reach_it_by_the_name_that_is_printed(self):
        gateway = Gateway(self, listen="0.0.0.0:0")
        name, port = socket.gethostname().lower(), gateway.address.port
        self.assertEqual(gateway.address.hostname, "0.0.0.0" if name == "localhost" else name)
        for host, status in [(gateway.address.hostname, 200), (name.upper(), 200), ("10.0.0.7", 200),
                             ("evil.example", 403), (name + ".evil.example", 403)]:
            with self.subTest(host=host):
                self.assertEqual(gateway.ask("GET", "/api/", {"Host": "%s:%d" % (host, port)})[0],
                                 status)

    def test_values_are_read_changed_and_called(self):
        gateway = Gateway(self, "--allow-changes")
        hall = "/house/hall/"
        for path, body, status, key, wanted in [
                ("/api/set", {"name": hall + "Level", "value": 30}, 200, "value", 30),
                ("/api/set", {"name": hall + "Level", "value": "31"}, 200, "value", 31),
                ("/api/set", {"name": hall + "Steps", "value": [1, 2]}, 200, "value", [1, 2]),
                ("/api/set", {"name": hall + "Level", "value": 101}, 409, "error", None),
                ("/api/set", {"name": hall + "Level", "value": -1}, 400, "error", None),
                ("/api/set", {"name": hall + "None", "value": 1}, 404, "error", None),
                ("/api/call", {"name": hall + "blink", "arguments": [1, 'a "b", [c'] }, 200, "value",
                 True),
                ("/api/call", {"name": hall + "blink", "arguments": [1]}, 400, "error", None)]:
            with self.subTest(body=body):
                answered, told = gateway.post(path, body)
                self.assertEqual(answered, status, told)
                one = (told.get("values") or told.get("calls"))[0]
                self.assertTrue(one[key] == wanted or key == "error", one)
        status, told = gateway.ask("GET", "/api/get?name=/house/*/Level")
        self.assertEqual([one["value"] for one in json.loads(told)["values"]], [31])
        json_type = {"Content-Type": "application/json"}
        deep = b'"value": ' + b"[" * 300000
        for body in (b"", b"[]", b"{}", b'{"name": 1, "value": 1}', b"[" * 100000,
                     b'{"name": "/a/b", "x": "' + b"]" * 300000 + b'", ' + deep,
                     b'{"name": "/a/b", ' + deep + b"]" * 300000 + b"}"):
            status, told = gateway.ask("POST", "/api/set", json_type, body)
            self.assertEqual(status, 400, told)
        packed = zlib.compress(b" " * (1 << 20))
        for headers, body, status in [({"Content-Encoding": "deflate"}, packed, 415),
                                      ({}, b"x" * (2 << 20), 413)]:
            self.assertEqual(gateway.ask("POST", "/api/set", {**json_type, **headers}, body)[0],
                             status)
        status, told = gateway.ask("GET", "/metrics")
        process = "house.%d" % self.house.child.pid
        self.assertIn('reflectorb_up{process="%s"} 1\n' % process, told)
        self.assertRegex(told, r'reflectorb_answer_seconds_bucket\{process="%s",le="\+Inf"\} 1\n' %
                         process)

    def test_of_two_with_one_name_the_one_with_the_id_is_meant(self):
        other = self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR="other")
        gateway = Gateway(self, "--allow-changes")
        find = lambda process: [
            one["id"] for one in json.loads(gateway.ask("GET", "/api/list?name=/house/hall")[1])[
                "objects"] if one["process"].startswith(process)]
        (own,), (others,) = find("house."), find("other.")
        get = lambda member, one: json.loads(gateway.ask(
            "GET", "/api/get?member=%s&id=%s" % (member, one))[1])["values"][0]
        for path, body, status in [
                ("/api/set", {"id": others, "member": "Level", "value": 30}, 200),
                ("/api/call", {"id": others, "member": "blink", "arguments": [1, "x"]}, 200),
                ("/api/set", {"id": [others, "1:2"], "member": "Level", "value": 31}, 200),
                ("/api/set", {"id": others, "member": "*", "value": 1}, 404),
                ("/api/set", {"id": others, "value": 1}, 400),
                ("/api/set", {"id": others, "name": "/house/hall/Level", "value": 1}, 400),
                ("/api/set", {"id": "x", "member": "Level", "value": 1}, 404)]:
            with self.subTest(body=body):
                answered, told = gateway.post(path, body)
                self.assertEqual(answered, status, told)
        self.assertEqual([get("Level", own)["value"], get("Level", others)["value"]], [10, 31])
        shown = json.loads(gateway.ask("GET", "/api/show?id=" + others)[1])["objects"]
        self.assertEqual([one["process"] for one in shown], ["other.%d" % other.child.pid])
        stream = Stream(gateway, "values=/house/hall&calls=/house/hall")
        level, end = 0, time.monotonic() + PATIENCE
        while {one["id"] for one in stream.calls} != {own, others}:  # once they are observed
            self.assertLess(time.monotonic(), end)
            level = level % 100 + 1
            for one in (own, others):
                gateway.post("/api/call", {"id": one, "member": "blink", "arguments": [1, "x"]})
                gateway.post("/api/set", {"id": one, "member": "Level", "value": level})
            stream.until(lambda: stream.value("/house/hall", "Level") == {level})
        other.end(signal.SIGKILL)
        until(lambda: "no more" in gateway.ask("GET", "/api/get?member=Level&id=" + others)[1])
        self.assertEqual(gateway.post("/api/set", {"id": others, "member": "Level", "value": 1})[0],
                         404)
        self.assertEqual(get("Level", own)["value"], level)

    def test_who_comes_back_is_told_what_has_changed(self):
        gateway = Gateway(self)
        first = Stream(gateway)
        first.until(lambda: first.value("/house/hall", "Level") == {10})
        first.socket.close()
        run("set", "/house/hall/Level", "20")
        again = Stream(gateway, headers={"Last-Event-ID": str(first.last)})
        again.until(lambda: ("Level", 20) in [(key[1], one) for key, one in again.values.items()])
        self.assertEqual((again.afresh, again.objects), (0, {}))
        unknown = Stream(gateway, headers={"Last-Event-ID": "1"})
        unknown.until(lambda: unknown.value("/house/hall", "Level") == {20})
        self.assertEqual(unknown.afresh, 1)

    def test_a_stream_tells_what_others_change_and_who_comes_and_goes(self):
        gateway = Gateway(self)
        stream = Stream(gateway, "values=/house/*&calls=**")
        stream.until(lambda: stream.value("/house/hall", "Level") == {10})
        run("set", "/house/hall/Level", "55")
        stream.until(lambda: stream.value("/house/hall", "Level") == {55})
        calls = lambda: [(one["event"], one["member"]) for one in stream.calls]
        end = time.monotonic() + PATIENCE
        told = lambda: calls()[calls().index(("call", "blink")):]  # ends are observed ahead
        while ("call", "blink") not in calls() and time.monotonic() < end:
            run("call", "/house/hall/blink", "0", "x")
            run("set", "/house/hall/Level", str(int(end - time.monotonic())))
            level = {int(run("get", "/house/hall/Level").stdout)}
            stream.until(lambda: stream.value("/house/hall", "Level") == level)
        stream.until(lambda: len(told()) >= 2)
        self.assertEqual(told()[:2], [("call", "blink"), ("end", "blink")])
        other = self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR="other")
        self.house.end(signal.SIGKILL)
        other.end(signal.SIGKILL)
        stream.until(lambda: not stream.names())
        self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1")
        stream.until(lambda: stream.value("/house/hall", "Level") == {10})

    def test_calls_that_cannot_be_heard_are_told_as_such_until_they_are(self):
        gateway = Gateway(self, "--timeout", "1")
        first = Stream(gateway)
        first.until(lambda: first.value("/house/hall", "Level") == {10})
        self.house.stop()
        stream = Stream(gateway, "calls=/house/*")
        why = lambda: [one.get("unwatched") for one in stream.objects.values() if
                       one["name"] == "/house/hall"]
        stream.until(lambda: any("calls" in (one or {}) for one in why()))
        self.assertRegex(why()[0]["calls"], "answer")
        self.house.child.send_signal(signal.SIGCONT)
        stream.until(lambda: why() == [None])
        for at in range(3):
            run("call", "/house/hall/blink", str(at), "x")
        stream.until(lambda: len(stream.calls) >= 6)
        self.assertEqual([(one["event"], one.get("arguments", one.get("results")))
                          for one in stream.calls],
                         [told for at in range(3) for told in
                          (("call", [at, "x"]), ("end", [at > 0]))])

    def test_who_hangs_costs_its_own_answers(self):
        self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR="other")
        gateway = Gateway(self, "--timeout", "1")
        stream = Stream(gateway)
        stream.until(lambda: stream.value("/house/hall", "Level") == {10})
        slow = gateway.connect()
        slow.sendall(b"GET /api/")
        self.house.stop()
        begin = time.monotonic()
        status, told = gateway.ask("GET", "/api/processes")
        self.assertEqual(sorted(one["state"] for one in json.loads(told)["processes"]),
                         ["ok", "stopped"])
        late = Stream(gateway, "values=**&processes=1")
        late.until(lambda: "/house/hall" in late.names())
        self.assertLess(time.monotonic() - begin, PATIENCE / 2)
        answer = lambda: {one["answers"] for one in late.objects.values() if
                          one["process"].startswith("house.")}
        late.until(lambda: answer() == {False})
        self.house.child.send_signal(signal.SIGCONT)
        begin = time.monotonic()
        late.until(lambda: answer() == {True})
        self.assertLess(time.monotonic() - begin, 10)  # at once, not when it is asked now and then
        streams = [Stream(gateway) for _ in range(14)]
        for one in streams:
            one.until(lambda one=one: one.names())
        self.assertEqual(gateway.ask("GET", "/api/events")[0], 503)
        for one in streams:
            one.socket.close()
        begin = time.monotonic()
        until(lambda: Stream(gateway).socket.recv(12) == b"HTTP/1.1 200")
        self.assertLess(time.monotonic() - begin, 9)  # before it would get a sign of life
        self.assertEqual(slow.recv(100), b"")  # its time is over, and nobody else waits for it
        self.assertEqual(gateway.ask("GET", "/api/")[0], 200)

    def test_it_ends_at_once_whoever_is_connected(self):
        gateway = Gateway(self, "--timeout", "30")
        idle, slow, deaf = gateway.connect(), gateway.connect(), gateway.connect()
        slow.sendall(b"GET /api/")
        deaf.sendall(gateway.request("GET", "/api/events?values=**"))
        stream = Stream(gateway)
        stream.until(lambda: stream.value("/house/hall", "Level") == {10})
        self.house.stop()
        asking = gateway.connect()
        asking.sendall(gateway.request("GET", "/api/get?name=/house/hall/Level"))
        begin = time.monotonic()
        self.assertEqual(gateway.process.end(signal.SIGTERM), 0)
        self.assertLess(time.monotonic() - begin, 10)  # and nobody waits for the one that hangs
        self.assertEqual(idle.recv(1), b"")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[6:], verbosity=2)
