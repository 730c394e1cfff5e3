#!/usr/bin/env python3
"""The page of reflectorb web in chromium, headless, by the WebDriver protocol.

    browser_test.py <as tool_test.py, and behind it:> <machine> <folder for screenshots> [<test>...]

Ends with 77 where there is no chromium, or no driver of it.
"""
import base64
import json
import os
import shutil
import signal
import socket
import statistics
import sys
import threading
import time
import unittest
import urllib.request

from tool_test import ACTOR, HOUSE, PATIENCE, HouseTest, Process, run
from web_test import Gateway

MACHINE, PICTURES = sys.argv[6:8]
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"


class Browser:
    def __init__(self, test):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        self.driver = Process("chromedriver", "--port=%d" % port)
        test.addCleanup(self.driver.end, signal.SIGKILL)
        self.driver.wait_for("started successfully")
        self.base = "http://127.0.0.1:%d" % port
        options = {"args": ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                            "--disable-gpu", "--window-size=1240,800"]}
        told = self.send("POST", "/session", {"capabilities": {"alwaysMatch": {
            "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}}})
        self.base += "/session/" + told["sessionId"]
        test.addCleanup(self.send, "DELETE", "")

    def send(self, method, path, body=None):
        request = urllib.request.Request(
            self.base + path, None if method == "DELETE" else json.dumps(body or {}).encode(),
            {"Content-Type": "application/json"}, method=method)
        with urllib.request.urlopen(request, timeout=PATIENCE) as answer:
            return json.load(answer)["value"]

    def do(self, script, *arguments):
        """Runs JavaScript, with the result of its `return`."""
        return self.send("POST", "/execute/sync", {"script": script, "args": arguments})

    def until(self, script, *arguments):
        end = time.monotonic() + PATIENCE
        while not (found := self.do(script, *arguments)):
            if time.monotonic() > end:
                raise AssertionError("waited in vain for %s; the page: %s" % (
                    script, self.do("return document.body.innerText")))
            time.sleep(0.05)
        return found

    def element(self, selector):
        self.until("return document.querySelector(arguments[0]) !== null", selector)
        return "/element/" + self.send("POST", "/element", {
            "using": "css selector", "value": selector})[ELEMENT]

    def click(self, selector):
        self.send("POST", self.element(selector) + "/click")

    def type(self, selector, keys):
        self.send("POST", self.element(selector) + "/value", {"text": keys})

    def sees(self, selector, wanted):
        """Waits until an element has the text, or the value."""
        self.until("""return [...document.querySelectorAll(arguments[0])].some(
            one => ((one.value ?? '') + one.textContent).includes(arguments[1]))""", selector, wanted)

    def size(self, width, height):
        self.send("POST", "/goog/cdp/execute", {
            "cmd": "Emulation.setDeviceMetricsOverride",
            "params": {"width": width, "height": height, "deviceScaleFactor": 1,
                       "mobile": width < 500}})

    def scheme(self, name):
        self.send("POST", "/goog/cdp/execute", {"cmd": "Emulation.setEmulatedMedia", "params": {
            "features": [{"name": "prefers-color-scheme", "value": name}]}})

    def picture(self, name):
        request = urllib.request.urlopen(self.base + "/screenshot", timeout=PATIENCE)
        with open(os.path.join(PICTURES, name + ".png"), "wb") as file:
            file.write(base64.b64decode(json.load(request)["value"]))

    def errors(self):
        return [one["message"] for one in self.send("POST", "/se/log", {"type": "browser"})
                if one["level"] == "SEVERE"]


def row(name):
    return "return [...document.querySelectorAll('#tree .row')].some(one => " \
           "one.children[1].textContent === '%s')" % name


class BrowserTest(HouseTest):
    def test_open_browse_change_see_lose_and_regain(self):
        machine = self.start(MACHINE, REFLECTORB_PROCESS_OBJECT="1")
        gateway = Gateway(self, "--allow-changes")
        browser = Browser(self)
        browser.send("POST", "/url", {"url": gateway.address.geturl()})
        browser.sees("#state", "live")
        self.assertNotIn("token", browser.do("return location.href"))

        with self.subTest("browse, by keyboard"):
            browser.until(row("/house"))
            browser.until(row("hall"))
            browser.type("#find", "hall")
            browser.until("return document.querySelectorAll('#tree .row').length === 1")
            browser.do("document.querySelector('#tree .row').focus()")
            browser.type("#tree .row", "\ue007")  # Enter
            browser.sees("#object h2", "/house/hall")
            browser.sees("#object .doc", "In percent.")
            browser.sees("[data-attribute=Level] .unit", "%")
        level = "[data-attribute=Level] input"
        with self.subTest("change"):
            browser.sees(level, "10")
            browser.send("POST", browser.element(level) + "/clear")
            browser.type(level, "42\ue007")
            browser.until("return !document.querySelector(arguments[0]).dataset.edited", level)
            self.assertEqual(run("get", "/house/hall/Level").stdout, "42\n")
            browser.send("POST", browser.element(level) + "/clear")
            browser.type(level, "101\ue007")
            browser.sees("#object output.bad", "TooBright")
            run("set", "/house/hall/Level", "43")
            browser.sees("[data-attribute=Level] .beside", "is 43")
            browser.picture("edited")
            browser.type(level, "\ue00c")  # Escape
            browser.sees(level, "43")
            self.assertNotIn("TooBright", browser.do("return get('object').textContent"))
        with self.subTest("load anew, and without the token"):
            browser.send("POST", "/refresh")
            browser.sees("#state", "live")
            browser.sees("#object h2", "/house/hall")
            browser.do("sessionStorage.token = 'another one, of before'; location.reload()")
            browser.sees("#state", "no access")
            browser.picture("door")
            browser.type("#token", gateway.address.geturl() + "\ue007")
            browser.sees("#state", "live")
            browser.sees("#object h2", "/house/hall")
            browser.until("return !get('door').classList.contains('shown')")
            browser.type("#find", "hall")
            browser.until("return document.querySelectorAll('#tree .row').length === 1")
        with self.subTest("numbers keep their digits"):
            json_text = r'[18446744073709551615, -1, 1e17, "\"12345678901234567890"]'
            self.assertEqual(browser.do("return parse(arguments[0])", json_text),
                             ["18446744073709551615", -1, 1e17, '"12345678901234567890'])
        with self.subTest("call"):
            operation = "[data-operation=blink] "
            browser.type(operation + "label:nth-of-type(1) input", "2")
            browser.type(operation + "label:nth-of-type(2) input", 'for "fun"')
            browser.click(operation + "button")
            browser.sees("[data-result=blink]", "true")
        with self.subTest("see a change made elsewhere"):
            browser.click("[data-attribute=Level] [aria-pressed]")  # plot
            run("set", "/house/hall/Level", "77")
            browser.sees(level, "77")
            browser.sees("#tree .row .values", "Level 77")
            browser.until("return plot.points.some(one => one[1] === 77)")
            browser.picture("object")
        with self.subTest("calls as they happen"):
            browser.click("a[href='#calls']")
            browser.type("#calls-of", "/house/**\ue007")
            end = time.monotonic() + PATIENCE
            begun = "return calls.some(one => one.event === 'call')"  # ends are observed ahead
            while not browser.do(begun) and time.monotonic() < end:
                run("call", "/house/hall/blink", "1", "watched")
            browser.sees("#calls-list", "/house/hall/blink(1, watched)")
            browser.sees("#calls-list", "/house/hall/blink \u2192 true")
            browser.picture("calls")
        with self.subTest("calls that cannot be watched yet"):
            machine.stop()
            browser.send("POST", browser.element("#calls-of") + "/clear")
            browser.type("#calls-of", "/machine/**\ue007")
            browser.sees("#calls-unwatched", "of machine.%d: no answer" % machine.child.pid)
            machine.child.send_signal(signal.SIGCONT)
            browser.until("return get('calls-unwatched').textContent === ''")
        with self.subTest("processes, waits, classes"):
            browser.click("a[href='#processes']")
            browser.sees("#processes-table", "house.%d" % self.house.child.pid)
            browser.sees("#traffic", "house")
            browser.picture("processes")
            browser.click("a[href='#waits']")
            browser.sees("#waits-verdict", "Nobody waits")
            circle = {name: self.actor() for name in "ab"}
            for name, actor in circle.items():
                self.tell(actor, "publish " + name)
                actor.wait_for("published")
            for name, actor in circle.items():
                self.tell(actor, "hold " + {"a": "b", "b": "a"}[name])
            browser.sees("#waits-verdict", "They wait for each other")
            browser.picture("waits")
            for actor in circle.values():
                actor.end(signal.SIGKILL)
            browser.sees("#waits-verdict", "Nobody waits")
            browser.click("a[href='#classes']")
            browser.sees("#classes-list", "Lamp")
            browser.do("[...document.querySelectorAll('#classes-list button')].find("
                       "one => one.textContent === 'Lamp').click()")
            browser.sees("#class", "blink")
            browser.picture("classes")
        with self.subTest("one of two with one name"):
            browser.click("a[href='#objects']")
            other = self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR="other")
            browser.sees("#tree .row .class", "Lamp of other.")
            browser.picture("namesakes")
            for actor, value, wanted in (("house", 12, "77"), ("other", 11, "10")):
                browser.do("[...document.querySelectorAll('#tree .row')].find("
                           "one => one.textContent.includes('of %s.')).click()" % actor)
                browser.sees("#object .hint", "Lamp of %s." % actor)
                browser.sees(level, wanted)
                browser.send("POST", browser.element(level) + "/clear")
                browser.type(level, "%d\ue007" % value)
                browser.until("return !document.querySelector(arguments[0]).dataset.edited", level)
                browser.sees("#tree .row[aria-selected=true] .values", "Level %d " % value)
            other.end(signal.SIGKILL)
            browser.sees("#object", "It has gone.")  # and the other one is not taken for it
            self.assertEqual(run("get", "/house/hall/Level").stdout, "12\n")
            browser.click("#tree .row")
            browser.sees("#object .hint", "Lamp of house.")
        with self.subTest("lose and regain a process"):
            self.house.end(signal.SIGKILL)
            browser.sees("#object", "It has gone.")
            browser.until("return document.querySelectorAll('#tree .row').length === 0")
            self.start(HOUSE, REFLECTORB_PROCESS_OBJECT="1")
            browser.until(row("hall"))
            browser.sees(level, "10")
        with self.subTest("dark, on a phone"):
            browser.scheme("dark")
            browser.size(390, 780)
            dark = browser.do("return getComputedStyle(document.body).backgroundColor")
            self.assertLess(sum(json.loads("[" + dark[4:-1] + "]")), 120, dark)
            for view in ("objects", "calls", "processes", "waits", "classes"):
                browser.click("a[href='#%s']" % view)
                self.assertLessEqual(browser.do("return document.documentElement.scrollWidth"), 390,
                                     view)
                browser.picture("phone-" + view)
            browser.size(1240, 800)
            browser.scheme("light")
        with self.subTest("the machine"):
            browser.click("a[href='#objects']")
            browser.do("get('find').value = ''; get('find').dispatchEvent(new Event('input'))")
            browser.until(row("cpu0"))
            browser.do("[...rows.values()].find(one => one.children[1].textContent === 'memory')"
                       ".click()")
            browser.sees("#object h2", "/machine/memory")
            browser.click("[data-attribute=Free] [aria-pressed]")
            browser.until("return plot.points.length > 3")
            browser.picture("page")
        with self.subTest("lose and regain the gateway"):
            gateway.process.end(signal.SIGKILL)
            browser.sees("#state", "connection lost")
        self.assertEqual([one for one in browser.errors() if "Failed to load resource" not in one and
                          "ERR_CONNECTION" not in one and "net::" not in one], [])
        self.assertEqual(machine.child.poll(), None)


class Publisher:
    """A process with objects, some of which change ten times a second."""
    PACE = 0.1

    def __init__(self, test, actor, objects, changing):
        self.process = Process(ACTOR, REFLECTORB_PROCESS_OBJECT="1", TRANSPORT_ACTOR=actor)
        test.addCleanup(self.process.end, signal.SIGKILL)
        self.process.wait_for("ready")
        self.names = ["%s%03d" % (actor, at) for at in range(objects)]
        self.changing = changing
        self.level = self.changes = 0
        self.isOver = threading.Event()
        self.why = None  # it could not go on
        self.thread = threading.Thread(target=self.change)
        # What they hold back otherwise is for other tests.
        self.obey("lamp %s\nletgo %s", self.names, 2)

    def obey(self, command, names, answers):
        stream = self.process.child.stdin
        stream.write("".join((command + "\n").replace("%s", name) for name in names).encode())
        stream.flush()
        left = answers * len(names)
        while left > 0:
            some = os.read(self.process.child.stdout.fileno(), 65536)
            if not some:
                raise AssertionError("%s has ended" % self.names[0][:5])
            left -= some.count(b"\n")

    def change(self):
        """Those that it was too late for are made up for."""
        due = time.monotonic()
        while not self.isOver.is_set():
            self.level = self.level % 99 + 1
            try:
                self.obey("change %%s %d" % self.level, self.names[:self.changing], 1)
            except (AssertionError, OSError) as why:
                self.why = why
                return
            self.changes += self.changing
            due += self.PACE
            time.sleep(max(0, due - time.monotonic()))

    def end(self):
        self.isOver.set()
        self.thread.join()
        if self.why:
            raise self.why


class LoadTest(HouseTest):
    """A thousand objects, of which two hundred change ten times a second."""
    PUBLISHERS, OBJECTS, CHANGES = 2, 1000, 2000
    WINDOWS, SECONDS = 5, 6
    MOST = 10  # percent of a processor
    FRAMES = """
        window.frames = {longest: 0, count: 0, painting: 0};
        const painted = paint;
        paint = () => {
            const begin = performance.now();
            painted();
            frames.painting += performance.now() - begin;
        };
        let last = performance.now();
        const step = now => {
            frames.longest = Math.max(frames.longest, now - last);
            ++frames.count;
            last = now;
            requestAnimationFrame(step);
        };
        requestAnimationFrame(step);"""

    @staticmethod
    def processor_time(process):
        with open("/proc/%d/stat" % process.child.pid) as stat:
            user, system = stat.read().rsplit(")", 1)[1].split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    def test_a_thousand_objects_stay_smooth(self):
        publishers = [Publisher(self, "pub%d_" % at, self.OBJECTS // self.PUBLISHERS,
                                int(self.CHANGES * Publisher.PACE) // self.PUBLISHERS)
                      for at in range(self.PUBLISHERS)]
        gateway = Gateway(self)
        browser = Browser(self)
        browser.send("POST", "/url", {"url": gateway.address.geturl()})
        browser.until("return [...values.values()].filter(one => one.has('Level')).length >= %d" %
                      self.OBJECTS)
        for publisher in publishers:
            publisher.thread.start()
            self.addCleanup(publisher.end)
        time.sleep(self.SECONDS)
        browser.do(self.FRAMES)
        shares, rates = [], []
        begin = time.monotonic()
        for _ in range(self.WINDOWS):
            before = [self.processor_time(gateway.process), time.monotonic(),
                      sum(publisher.changes for publisher in publishers)]
            time.sleep(self.SECONDS)
            seconds = time.monotonic() - before[1]
            shares.append((self.processor_time(gateway.process) - before[0]) / seconds * 100)
            rates.append((sum(publisher.changes for publisher in publishers) - before[2]) / seconds)
        frames = browser.do("return frames")
        seconds = time.monotonic() - begin
        browser.picture("many")
        for publisher in publishers:
            publisher.end()
        for publisher in publishers:
            browser.until("return [...objects.values()].filter(one => (values.get(one.id) || new Map)"
                          ".get('Level') === %d && one.process.startsWith('%s')).length >= %d" % (
                              publisher.level, publisher.names[0][:5], publisher.changing))
        print("%d changes a second: the gateway takes %.1f %% of a processor (%s); the page "
              "has %.0f pictures a second, which take it %.0f ms, the longest pause %.0f ms" % (
                  statistics.median(rates), statistics.median(shares),
                  ", ".join("%.1f" % share for share in shares), frames["count"] / seconds,
                  frames["painting"] / seconds, frames["longest"]), flush=True)
        # In proportion, where the publishers were held up.
        self.assertLess(statistics.median(share / rate for share, rate in zip(shares, rates)) *
                        self.CHANGES, self.MOST)
        self.assertEqual(browser.errors(), [])


if __name__ == "__main__":
    lacking = [name for name in ("chromium", "chromedriver") if not shutil.which(name)]
    if lacking:
        print("skipped: there is no %s here; ./run browser installs it" % " and no ".join(lacking))
        sys.exit(77)
    os.makedirs(PICTURES, exist_ok=True)
    unittest.main(argv=["browser_test.py"] + sys.argv[8:], verbosity=2, failfast=True)
