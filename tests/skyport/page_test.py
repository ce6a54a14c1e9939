#!/usr/bin/env python3
"""The bench service's page in a browser, while a real daemon registers through a real router and others send what they
like. usage: page_test.py BUILD [--pictures DIR]; 77 where there is no browser or no namespace"""

import argparse
import contextlib
import signal
import socket
import sqlite3
import sys
import time
from pathlib import Path

sys.path[:0] = [str(Path(__file__).resolve().parents[2]), str(Path(__file__).parent)]
import skyport_test as wire  # noqa: E402
from lab import camera as cam, world  # noqa: E402
from lab.browser import Browser  # noqa: E402
from lab.service import PASSWORD, STATUS_PORT  # noqa: E402
from lab.stage import Options, Stage  # noqa: E402

PAGE, MANY_CAMERAS, MANY_EXCHANGES = f"http://127.0.0.1:{STATUS_PORT}/", 1000, 20_000
TAB, ENTER = "\ue004", "\ue007"
TEXT = "return document.body.innerText"
HOSTILE = "<script>window.pwned=1</script><img src=x onerror=window.pwned=1> %n%s \u202e"


def words(text):
    return f"return document.body.innerText.includes({text!r})"


class Bench(Stage):
    def __init__(self):
        super().__init__(Options(speed=16))
        self.start_service("--fault", "/alias.html:status=500")
        self.home()
        self.router.start_upnp()
        self.make_camera()
        self.internet.run("ip", "address", "add", "::1/128", "dev", "lo")  # the browser's driver wants it
        self.browser = Browser(self.internet)

    def say(self, method, path, body=None):
        with self.internet.inside():
            return wire.Camera(80, cam.SECOND_HID, PASSWORD).ask(method, path, body)

    # A camera registers, is switched off and on by a fault, and all of it is seen.
    def registering(self, pictures):
        page = self.browser
        page.open(PAGE)
        page.until(words("No camera has asked yet"))
        self.camera.start()
        page.until(words("reachable: mapped port"), 15)
        page.run("document.querySelector('#camera-list .row').click()")
        page.until("return document.querySelectorAll('#walk .walk').length === 1 && document.querySelectorAll('#walk .reached').length > 0")
        assert cam.MODEL in page.run(TEXT) and "80" in page.run("return document.getElementById('facts').innerText"), "facts"
        page.run("[...document.querySelectorAll('#exchange-list summary')].find(one => one.textContent.includes('/iupd.html') && one.textContent.includes('200')).click()")
        page.until("return document.querySelector('#exchange-list pre .tag')?.textContent !== undefined")
        assert "<ueport>80</ueport>" in page.run("return document.getElementById('exchange-list').textContent").replace("\n", ""), "an opened update"
        page.run("for (const [id, value] of [['fault-path', '/daip.html'], ['fault-kind', 'status']]) { document.getElementById(id).value = value;"
                 "document.getElementById(id).dispatchEvent(new Event('change')); } document.querySelector('#new-fault summary').click();"
                 "document.getElementById('fault-argument').focus()")
        page.press(*"503", ENTER)
        page.until("return document.getElementById('active').innerText.includes('/daip.html:status=503')")
        self.camera.signal(signal.SIGUSR1)
        page.until("return [...document.querySelectorAll('#exchange-list li')].some(one => one.textContent.includes('refused 503') && one.textContent.includes('fault'))", 15)
        assert "/daip.html:status=503" in self.service._get("/faults"), "the fault is the service's"
        assert page.run("scrollTo(0, 9999); return document.elementFromPoint(60, 20).closest('header')?.innerText.includes('status=503') && scrollY > 0"), "faults stay in sight"
        page.run("scrollTo(0, 0)")
        for name, width, dark in (("page", 1400, False), ("page-dark", 1400, True), ("page-narrow", 400, False)) if pictures else ():
            page.prefer_dark(dark)
            page.resize(width, 950)
            time.sleep(0.3)
            page.picture(pictures / f"{name}.png")
        page.prefer_dark(False)
        page.run("[...document.querySelectorAll('#active button')].find(one => one.ariaLabel.includes('daip')).focus()")
        page.press(ENTER)
        page.until("return !document.getElementById('active').innerText.includes('daip')")
        page.run("document.getElementById('fault-clear').click()")
        page.until("return document.getElementById('active').innerText.includes('none in force')")
        page.run("document.getElementById('fault-start').click()")
        page.until("return document.getElementById('active').innerText.includes('/alias.html:status=500')")
        page.run("document.getElementById('fault-argument').value = 'x'; document.querySelector('#fault-form button').click()")
        page.until("return document.getElementById('fault-error').innerText.includes('an argument')")

    # What comes is shown as text, soon, and changes nothing on the page.
    def hostile(self):
        page = self.browser
        page.run("document.getElementById('back').click(); document.getElementById('fault-clear').click()")
        update = wire.update(hid=cam.SECOND_HID, model=HOSTILE.replace("<", "&lt;").replace(">", "&gt;").replace("\u202e", ""), ver="9" * 9000)
        start = time.monotonic()
        self.say("POST", "/iupd.html", wire.sealed(update))
        page.until("return document.querySelectorAll('#camera-list .row').length === 2", slow)
        assert time.monotonic() - start < 0.5 * slow, "shown within 0.5 s"
        for text in (f"<ldev>{HOSTILE}</ldev>", "\1\x1b[2J\0".encode() + b"\xff\xfe", "x" * 12000, ""):
            self.say("POST", "/conn_report.html", wire.sealed(text))
        self.say("POST", "/conn_report.html", b"<b>!!!!" + b"A" * 16000)
        self.say("GET", "/<img src=x onerror=pwned=1>")
        with self.internet.inside():
            for piece in (b"", b"\x16\x03\1 \r\n\r\n", b"POST /iupd.html HTTP/1.1\r\nContent-Length: 50\r\n\r\nhalf"):
                with socket.create_connection(("127.0.0.1", 80)) as connection:
                    connection.sendall(piece)
        page.until(words("connection ended within the request"))
        page.until(words("at byte"))
        for all_of in ("#camera-list .row", "#back", "#exchange-list summary"):
            page.run(f"for (const one of document.querySelectorAll('{all_of}')) one.click()")
        page.until("return document.querySelectorAll('#exchange-list pre').length > 3")
        assert page.run("return window.pwned === undefined && document.querySelectorAll('img, script:not([src])').length === 0"), "markup"
        assert page.run("return document.getElementById('camera-list').innerText").count("<script>") == 1, "shown as text"
        for width in (400, 1600):
            page.resize(width, 900)
            assert page.run("return document.documentElement.scrollWidth") <= width, f"{width} px wide"
        page.run("document.getElementById('back').click(); document.getElementById('search').focus()")
        page.press(*cam.HID, TAB, TAB, ENTER)
        page.until(f"return document.getElementById('camera-title').innerText.includes('{cam.HID}')")
        rows = page.run("return [...document.querySelectorAll('#camera-list li:not([hidden]) .row')].map(row => row.innerText)")
        assert [row.split("\n")[0] for row in rows if row] == [cam.HID], "the search"

    # Another run of the service, with a thousand cameras; the page finds to it by itself.
    def thousand(self):
        page = self.browser
        page.open(PAGE + "#%")
        page.until(words("live"))
        said = [(one["time"], one["method"], one["request"], one["error"]) for one in self.service._get("/exchanges?last=50")]
        self.service.stop()
        page.until(words("does not answer"))
        now = int(time.time() * 1000)
        with contextlib.closing(sqlite3.connect(world.SCRATCH / "skyport.db")) as db, db:
            for i in range(MANY_CAMERAS):
                db.execute("INSERT OR IGNORE INTO device(hid, seen, since, updates, updated) VALUES(?, ?, ?, 1, ?)", (f"CAM{i:05}", now, now, now))
                for at, (name, value) in enumerate((("model", f"M{i % 9}"), ("iip", f"10.0.{i // 256}.{i % 256}"), ("st", "4"), ("name", "x" * 40))):
                    db.execute("INSERT INTO field VALUES(?, ?, ?, ?)", (f"CAM{i:05}", at, name, value))
                for back in range(20):
                    db.execute("INSERT INTO connect_back(hid, time, address, port, connected, took_ms, error) VALUES(?, ?, '5.1.1.2', 80, 1, 7, '')", (f"CAM{i:05}", now - back))
            db.execute("UPDATE exchange SET id = id + ?", (MANY_EXCHANGES,))
            row = db.execute("SELECT * FROM exchange LIMIT 1").fetchone()
            db.executemany(f"INSERT INTO exchange VALUES({', '.join('?' * len(row))})", ((i, *row[1:]) for i in range(1, MANY_EXCHANGES)))
        self.service.start()
        kept = [(one["time"], one["method"], one["request"], one["error"]) for one in self.service._get("/exchanges?last=50")]
        assert said and kept[-len(said):] == said, "exchanges of the run before"
        page.until(f"return document.querySelectorAll('#camera-list li').length >= {MANY_CAMERAS}", 20)
        page.open(PAGE)
        page.until(words("live"))
        took_s = page.run("return performance.getEntriesByName('first-camera')[0].startTime") / 1000
        assert took_s < 0.3 * slow, f"{took_s} s to the first camera"


def body():
    world.show_build(args.build.resolve())
    bench = Bench()
    try:
        bench.registering(args.pictures)
        bench.hostile()
        bench.thousand()
        expected = "ERR_CONNECTION_REFUSED", "ERR_INCOMPLETE_CHUNKED", "/faults - Failed to load resource: the server responded with a status of 400"
        complaints = [line for line in bench.browser.errors() if not any(words in line for words in expected)]
        assert not complaints, complaints
    except AssertionError:
        print(bench.browser.run(TEXT)[:3000])
        raise
    finally:
        bench.browser.close()
    wrong = bench.camera.end()
    bench.service.stop()
    print(wrong or "the daemon ended in order")
    return 1 if wrong else 0


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=Path)
    parser.add_argument("--pictures", type=Path)
    parser.add_argument("--slow", type=float, default=1, help="times as long as usual, in a build with sanitizers")
    args = parser.parse_args()
    slow = args.slow
    sys.exit(world.enter(body, longest_s=170))
