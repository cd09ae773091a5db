#!/usr/bin/env python3
"""Tests orvan-fetch from outside: orvan_fetch_test.py <path of the program> [<test>...]"""
import base64
import email
import http.server
import io
import json
import os
import pty
import re
import signal
import subprocess
import sys
import tempfile
import termios
import threading
import unittest
import warnings
import zipfile

PROGRAM = ""
WAIT = 60  # seconds; no wait of these tests is longer
DATE = "Tue, 01 Jul 2025 10:00:00 GMT"
STEERING = b"\x1b]0;owned\x07"
GOOD = "Basic " + base64.b64encode(b"ann:s3cret").decode()
os.environ["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nowhere"  # not the keychain of whoever runs this


def make_archive(*entries):
    """An archive of stored entries, whatever their names are."""
    target = io.BytesIO()
    with warnings.catch_warnings(), zipfile.ZipFile(target, "w") as archive:
        warnings.simplefilter("ignore")  # of equal names
        for name, contents in entries:
            info = zipfile.ZipInfo("x", (2025, 7, 1, 10, 20, 30))
            info.filename = name
            archive.writestr(info, contents)
    return target.getvalue()


class Handler(http.server.BaseHTTPRequestHandler):
    """Answers by path; /echo repeats what it was asked."""

    protocol_version = "HTTP/1.1"
    stalled = {"/stall?" + name: threading.Event() for name in "abc"}  # set when somebody waits there
    release = threading.Event()
    archive = make_archive(("doc.kml", b"<kml/>"), ("images/a.png", b"picture"), ("empty", b""))
    archive_requests = []
    sent = []  # method, headers and body of what was no GET

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        Handler.sent.append((self.command, self.headers, body))
        return self.answer(404 if self.path == "/missing" else 200, b"taken")

    do_PUT = do_DELETE = do_POST

    def do_GET(self):
        path = self.path.split("?")[0]
        if path == "/missing.kml":
            return self.answer(404, b"no such thing")
        if path == "/same":
            return self.answer(304 if self.headers.get("If-Modified-Since") else 200, b"old copy")
        if path == "/echo":
            return self.answer(200, str(self.headers).encode())
        if path == "/stall":
            Handler.stalled[self.path].set()
            Handler.release.wait(WAIT)
            self.close_connection = True
            return None
        if path == "/cut":
            self.close_connection = True
            return self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nonly this")
        if path in ("/a.kmz", "/get"):
            Handler.archive_requests.append(self.path)
            return self.answer(200, Handler.archive)
        if path == "/secret" and self.headers.get("Authorization") != GOOD:
            return self.answer(401, b"", [("WWW-Authenticate", 'Basic realm="r"')])
        if path == "/elsewhere":
            return self.answer(302, b"", [("Location", "http://localhost:%d/secret" % self.server.server_port)])
        if path == "/steering":
            return self.answer(200, b"plain" + STEERING, [("X-Title", "a\x1b[2Jb\x9bc")])
        return self.answer(200, b"body of " + self.path.encode())

    def answer(self, code, body, headers=()):
        self.send_response(code)
        for name, value in headers:
            self.send_header(name, value)
        kind = "application/vnd.quorex-orvan.kml+xml" if self.path.endswith(".kml") else "text/plain"
        self.send_header("Content-Type", kind)
        self.send_header("Last-Modified", DATE)
        if code != 304:
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if code != 304:
            self.wfile.write(body)

    def log_message(self, *_):
        pass


class OrvanFetchTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        cls.server.daemon_threads = True
        cls.server.handle_error = lambda *_: None  # a client that resets its connection is nothing to tell
        threading.Thread(target=cls.server.serve_forever, daemon=True).start()
        cls.origin = "http://127.0.0.1:%d" % cls.server.server_port

    @classmethod
    def tearDownClass(cls):
        Handler.release.set()
        cls.server.shutdown()

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def path(self, name):
        return os.path.join(self.folder.name, name)

    def write(self, name, contents):
        with open(self.path(name), "wb") as file:
            file.write(contents)

    def run_tool(self, *arguments, status=0, **options):
        done = subprocess.run([PROGRAM, *arguments], capture_output=True, timeout=WAIT, cwd=self.folder.name, **options)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done

    def fetch_json(self, *arguments, status=0):
        lines = self.run_tool("--json", *arguments, status=status).stdout.decode().splitlines()
        return [json.loads(line) for line in lines]

    def test_one_object_a_line_with_what_is_known(self):
        good, bad = sorted(
            self.fetch_json(self.origin + "/park.kml#lake", self.origin + "/missing.kml", status=1),
            key=lambda record: record["state"],
        )
        self.assertEqual(good["url"], self.origin + "/park.kml#lake")
        self.assertEqual((good["state"], good["text"], good["mime"], good["ok"]), (2, "Success", "kml", True))
        self.assertEqual((good["bytes"], good["is_kmz"]), (len("body of /park.kml"), False))
        self.assertEqual((good["last_modified"], good["anchor"]), (DATE, "lake"))
        self.assertTrue(0 < good["seconds"] < WAIT)
        self.assertEqual((bad["state"], bad["ok"], bad["bytes"]), (404, False, 0))
        self.assertIn("404", bad["text"])

    def test_what_the_request_carries(self):
        self.run_tool("-A", "me/1", "-b", "a=1", "-H", "X-One: 1", "-H", "X-Two: 2", "--async", "-o", "seen",
                      self.origin + "/echo")
        with open(self.path("seen"), encoding="utf-8") as file:
            seen = file.read()
        for line in ("User-Agent: me/1", "X-One: 1", "X-Two: 2", "a=1"):
            self.assertIn(line, seen)

    def test_signs_alike_with_and_without_a_fetch(self):
        self.write("keys", b"consumer_key=openguest\ntoken=T/K\ntoken_secret=secret\n")
        url = self.origin + "/echo?b=1&a=x%20y"
        done = self.run_tool("--sign", self.origin, "--credentials", "keys", "-o", "-", url)
        sent = next(line for line in done.stdout.decode().splitlines() if line.startswith("Authorization: "))
        nonce, time = sent.split('"')[3:8:4]
        done = self.run_tool("sign", "--credentials", "keys", "--nonce", nonce, "--timestamp", time, url)
        self.assertEqual(done.stdout.decode().strip(), sent)

    def test_standard_output_takes_bodies_alone_in_the_order_given(self):
        done = self.run_tool("-o", "-", self.origin + "/a", self.origin + "/b")
        self.assertEqual(done.stdout, b"body of /abody of /b")
        self.assertIn(b"Success", done.stderr)
        self.assertEqual(self.run_tool("-o", "-", self.origin + "/missing.kml", status=1).stdout, b"")

    def test_names_in_a_directory_are_tame_and_never_collide(self):
        urls = ["/x/%2e%2e", "/..%2f..%2fup", "/.hidden", "/-rf", "/?only=query", "/folder/", "/a%0ab%1b",
                "/park.kml?v=1", "/park.kml?v=2", "/" + "l" * 300 + ".kml", "/%5cback"]
        os.mkdir(self.path("d"))
        os.symlink("elsewhere", self.path("d/up"))
        records = self.fetch_json("--parallel", "1", "-o", "d/", *[self.origin + url for url in urls])
        names = [os.path.relpath(record["saved_as"], "d") for record in records]
        # "up" was a link to nowhere; writing through it would have made a file outside.
        self.assertEqual(names[0:9], ["__", "up-2", "_hidden", "_rf", "index", "index-2", "a_b_", "park.kml",
                                      "park-2.kml"])
        self.assertLessEqual(len(names[9]), 255)
        self.assertEqual(names[10], "_back")
        self.assertEqual(sorted(names + ["up"]), sorted(os.listdir(self.path("d"))))
        self.assertEqual(os.listdir(self.folder.name), ["d"])
        with open(self.path("d/park-2.kml"), "rb") as file:
            self.assertEqual(file.read(), b"body of /park.kml?v=2")

    def test_a_copy_survives_what_brings_nothing(self):
        with open(self.path("copy"), "w", encoding="utf-8") as file:
            file.write("mine")
        for arguments, status in ((["--if-modified-since", DATE, self.origin + "/same"], 0),
                                  ([self.origin + "/missing.kml"], 1),
                                  ([self.origin + "/cut"], 1)):
            with self.subTest(arguments):
                self.run_tool("-o", "copy", *arguments, status=status)
                with open(self.path("copy"), encoding="utf-8") as file:
                    self.assertEqual(file.read(), "mine")

    def test_a_local_file_that_is_not_newer_is_a_good_end_only_when_asked_for(self):
        with open(self.path("f.kml"), "w", encoding="utf-8") as file:
            file.write("<kml/>")
        (record,) = self.fetch_json("f.kml")
        self.assertEqual((record["state"], record["mime"]), (2, "kml"))
        (record,) = self.fetch_json("--if-modified-since", record["last_modified"], "f.kml")
        self.assertEqual((record["state"], record["ok"]), (4, True))

    def test_a_device_is_written_to_and_not_replaced(self):
        self.run_tool("-o", "/dev/null", self.origin + "/a")
        self.assertFalse(os.path.isfile("/dev/null"))

    def test_every_method_and_body_through_both_managers(self):
        self.write("body", b"a\0b\n")
        rows = [(["--data", "a=1", "-b", "x=1"], "POST", b"a=1", "application/x-www-form-urlencoded"),
                (["--method", "put", "--data-file", "body"], "PUT", b"a\0b\n", "application/octet-stream"),
                (["-d", "{}", "-H", "content-type: application/json"], "POST", b"{}", "application/json"),
                (["--method", "POST"], "POST", b"", None), (["--method", "DELETE"], "DELETE", b"", None)]
        for door in ("plain", "shared"):
            for arguments, method, body, kind in rows:
                with self.subTest((door, arguments)):
                    Handler.sent.clear()
                    (record,) = self.fetch_json("--manager", door, "-H", "X-One: 1", "-A", "me/1", *arguments,
                                                self.origin + "/service#part")
                    ((asked, headers, sent),) = Handler.sent
                    self.assertEqual((asked, sent, headers["X-One"], headers["User-Agent"]), (method, body, "1", "me/1"))
                    if kind:
                        self.assertEqual(headers["Content-Type"], kind)
                    self.assertEqual("x=1" in (headers["Cookie"] or ""), "-b" in arguments)
                    self.assertEqual((record["ok"], record["state"], record["status"], record["bytes"], record["anchor"]),
                                     (True, 2, "0x00000000", 5, "part"))
                    self.assertEqual((record["content_type"], record["last_modified"]), ("text/plain", DATE))

    def test_a_form_is_one_that_others_can_read(self):
        self.write("Bild.JPG", b"\xff\xd8\0\r\n--")
        self.run_tool("--manager", "shared", "--form", "title=Höhe", "--form", "empty=", "--form-file", "file=Bild.JPG",
                      self.origin + "/upload")
        (_, headers, body) = Handler.sent.pop()
        form = email.message_from_bytes(b"Content-Type: " + headers["Content-Type"].encode() + b"\r\n\r\n" + body)
        parts = [(part.get_param("name", header="Content-Disposition"), part.get_filename(), part.get_content_type(),
                  part.get_payload(decode=True)) for part in form.get_payload()]
        self.assertEqual(parts, [("title", None, "text/plain", "Höhe".encode()), ("empty", None, "text/plain", b""),
                                 ("file", "Bild.JPG", "image/jpeg", b"\xff\xd8\0\r\n--\0")])

    def test_managers_report_as_a_fetch_does(self):
        for door, status in (("fetch", ""), ("plain", "0xC00A0194"), ("shared", "0xC00A0194")):
            with self.subTest(door):
                (record,) = self.fetch_json("--manager", door, self.origin + "/missing.kml", status=1)
                self.assertEqual((record["ok"], record["state"], record["status"]), (False, 404, status))
                (record,) = self.fetch_json("--manager", door, "-o", door + "/", self.origin + "/park.kml")
                self.assertEqual((record["mime"], record["saved_as"]), ("kml", door + "/park.kml"))
                (record,) = self.fetch_json("--manager", door, self.origin + "/cut", status=1)
                self.assertIn("broke off", record["problem"])

    def test_bad_usage_is_one_line_and_two(self):
        url = self.origin + "/a"
        rows = [[], ["--no-such-option", url], ["-H", "no colon", url], ["-H", "A: b\r\nC: d", url], ["-b", "novalue", url],
                ["-A", "a\nb", url], ["--repeat", "0", url], ["--parallel", "x", url], ["--timeout", "-1", url],
                ["--if-modified-since", "yesterday", url], ["-o", "one", url, url], ["-o", "one", "--repeat", "2", url],
                ["--secure-domain", "example.org", url], ["--cacert", "nowhere.pem", url], ["-i", "nowhere.txt"],
                ["-i", os.devnull], ["-o", os.devnull + "/dir/", url], ["--list", "--extract-all", "d", url],
                ["-o", "one", "--list", url], ["--extract-all", "", url], ["--extract-all", os.devnull + "/d", url], ["--data", "x", url], ["--method", "PUT", url], ["--manager", "x", url],
                *[["--manager", "plain", *row] for row in (
                    ["file.kml"], ["--async", url], ["--list", url], ["--no-cache", url], ["--method", "GET", "-d", "x", url],
                    ["--form", "x", url], ["--form", 'a"=x', url], ["--form-file", "a=nowhere", url],
                    ["--data-file", "nowhere", url], ["--form", "a=b", "-d", "x", url],
                    ["--form", "a=b", "-H", "content-type: x", url], ["-i", "-", "--data-file", "-"])]]
        for row in rows:
            with self.subTest(row):
                done = self.run_tool(*row, status=2, input=b"http://127.0.0.1/")
                self.assertEqual(done.stdout, b"")
                self.assertRegex(done.stderr.decode(), r"^orvan-fetch: [^\n]+\n$")

    def test_a_list_of_urls_from_standard_input(self):
        text = "# two of them\n\n  %s/a  \r\n%s/b" % (self.origin, self.origin)
        done = self.run_tool("--json", "--repeat", "2", "-i", "-", input=text.encode())
        records = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual(sorted((record["url"][-2:], record["run"]) for record in records),
                         [("/a", 1), ("/a", 2), ("/b", 1), ("/b", 2)])
        self.assertEqual(done.stderr, b"")  # no progress line: this is no terminal

    def test_a_fetch_that_takes_too_long_is_the_failure_of_the_tool(self):
        (record,) = self.fetch_json("--timeout", "0.5", self.origin + "/stall?a", status=1)
        self.assertTrue(Handler.stalled["/stall?a"].wait(WAIT))
        self.assertEqual((record["state"], record["ok"]), (1, False))
        self.assertIn("0.5 s", record["problem"])

    def test_an_interrupt_stops_the_fetches(self):
        process = subprocess.Popen([PROGRAM, "--parallel", "3", "--repeat", "5", self.origin + "/stall?b"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertTrue(Handler.stalled["/stall?b"].wait(WAIT))
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=WAIT)
        self.assertEqual((process.returncode, out), (130, b""), err)
        self.assertIn(b"interrupted after 0 of 5", err)

    def test_a_reader_that_goes_away_ends_the_run(self):
        read_end, write_end = os.pipe()
        os.close(read_end)
        done = subprocess.run([PROGRAM, "--repeat", "5", self.origin + "/a"], stdout=write_end, stderr=subprocess.PIPE,
                              timeout=WAIT, check=False)
        os.close(write_end)
        self.assertEqual(done.returncode, 1, done.stderr)

    def test_one_request_serves_every_path_into_an_archive(self):
        Handler.archive_requests.clear()
        paths = ["/a.kmz", "/a.kmz/images/a.png", "/a.kmz/none.png", "/get?id=7", "/get?id=7/images/a.png"]
        records = self.fetch_json("--parallel", "1", "-o", "out/", *[self.origin + path for path in paths], status=1)
        self.assertEqual([record["state"] for record in records], [2, 2, 6, 2, 2])
        self.assertEqual(Handler.archive_requests, ["/a.kmz", "/get?id=7"])
        self.assertEqual(sorted(os.listdir(self.path("out"))), ["a-2.png", "a.kml", "a.png", "get"])

    def test_a_list_of_what_is_in_an_archive(self):
        self.write("local.kmz", Handler.archive)
        for url, name in ((self.origin + "/a.kmz", self.origin + "/a.kmz"), ("local.kmz", self.path("local.kmz")),
                          ("file://" + self.path("local.kmz") + "/images/a.png", self.path("local.kmz"))):
            with self.subTest(url):
                entries = self.fetch_json("--list", url)
                self.assertEqual([(entry["name"], entry["bytes"]) for entry in entries],
                                 [("doc.kml", 6), ("images/a.png", 7), ("empty", 0)])
                self.assertEqual(entries[0], {"archive": name, "name": "doc.kml", "bytes": 6, "packed": 6, "method": 0,
                                              "encrypted": False, "modified": "2025-07-01T10:20:30"})
        self.assertRegex(self.run_tool("--list", "local.kmz").stdout.decode(),
                         r"archive with 3 entries(.|\n)* 7 +7  stored +2025-07-01 10:20:30  images/a.png\n")
        (record,) = self.fetch_json("--list", self.origin + "/a", status=1)
        self.assertEqual((record["state"], record["problem"]), (2, "no archive came"))

    def test_unpacking_stays_in_its_directory_and_replaces_nothing(self):
        for folder in ("out", "out/images", "elsewhere"):
            os.mkdir(self.path(folder))
        self.write("elsewhere/kept", b"mine")
        self.write("kept", b"mine")
        os.symlink("../elsewhere", self.path("out/link"))
        os.symlink("../kept", self.path("out/planted"))
        os.symlink("../new", self.path("out/dangling"))
        good = {"images/": None, "doc.kml": "doc.kml", "Doc.kml": "Doc.kml", "./a//b": "a/b",
                "nul\0hidden": "nul", "nested/": None, "nested/x/": None, "~": "~", "...": "...", "Höhe": "Höhe"}
        bad = ["../evil", "a/../../evil", "..", "images/..", self.path("evil"), "/", "..\\evil", "C:evil", "c:/evil", "",
               "l" * 256, "d/" * 3000 + "x", "e\x1b[2Jvil", "link/evil", "link", "planted", "planted/x", "dangling",
               "doc.kml", "doc.kml/x", "images", "damaged", "too long", "folder with contents/"]
        contents = {"damaged": b"DAMAGE", "too long": b"1234567", "folder with contents/": b"x"}
        archive = make_archive(*[(name, b"file" if path else b"") for name, path in good.items()],
                               *[(name, contents.get(name, b"evil")) for name in bad])
        self.write("hostile.kmz", archive.replace(b"DAMAGE", b"damage"))
        before = sorted(os.listdir(self.folder.name))

        entries = self.fetch_json("--max-entry-bytes", "6", "--extract-all", "out/", "hostile.kmz", status=1)

        self.assertEqual([entry["name"] for entry in entries if not entry["ok"]], bad)
        self.assertEqual(sorted(os.listdir(self.folder.name)), before)
        self.assertEqual(os.listdir(self.path("elsewhere")), ["kept"])
        found = [os.path.relpath(os.path.join(folder, name), self.path("out"))
                 for folder, _, names in os.walk(self.path("out")) for name in names]
        written = [path for path in good.values() if path]
        self.assertEqual(sorted(found), sorted(written + ["planted", "dangling"]))
        for path, contents in [("../kept", "mine"), ("../elsewhere/kept", "mine")] + [(path, "file") for path in written]:
            with open(os.path.join(self.path("out"), path), encoding="utf-8") as file:
                self.assertEqual(file.read(), contents)
        said = self.run_tool("--max-total-bytes", "6", "--extract-all", "small", self.origin + "/a.kmz", status=1).stdout
        self.assertIn(b'left out  "images/a.png"', said)
        self.assertIn(b"1 of 3 entries were left out", said)

    def on_a_terminal(self, *arguments, talk=()):
        """Exit status and all that the program writes to a terminal. Talk: what it says, what is typed or sent then."""
        talk, unread = list(talk), b""
        child, terminal = pty.fork()
        if child == 0:
            os.execv(PROGRAM, [PROGRAM, *arguments])
        seen = b""
        try:
            while chunk := os.read(terminal, 65536):
                seen += chunk
                unread += chunk
                while talk and (found := re.search(talk[0][0], unread, re.DOTALL)):
                    unread = unread[found.end():]
                    act = talk.pop(0)[1]
                    os.kill(child, act) if isinstance(act, int) else os.write(terminal, act)
        except OSError:  # how Linux says that the other side has closed
            pass
        self.assertTrue(termios.tcgetattr(terminal)[3] & termios.ECHO)
        os.close(terminal)
        self.assertEqual(talk, [])
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), seen

    def test_a_terminal_gets_progress_for_many_and_nothing_that_steers_it(self):
        status, seen = self.on_a_terminal("--timeout", "1", self.origin + "/a", self.origin + "/stall?c")
        self.assertEqual(status, 1)
        self.assertRegex(seen, rb"1 of 2 done, 0 failed, \d+ bytes, [^\n]*/s")
        status, seen = self.on_a_terminal("--include", self.origin + "/steering")
        self.assertEqual(status, 0)
        self.assertIn(rb"a\u001b[2Jb\u009bc", seen)
        self.assertNotIn(b"\x1b", seen)  # no progress line either: it is only one
        status, seen = self.on_a_terminal("-o", "-", self.origin + "/steering")
        self.assertEqual(status, 1)
        self.assertNotIn(b"\x1b", seen)
        status, seen = self.on_a_terminal("--extract-all", self.path("d"), self.origin + "/a.kmz")
        self.assertEqual(status, 0)
        self.assertRegex(seen, rb"1 of 3 done, 0 failed, 6 bytes")

    def test_a_terminal_is_asked_without_echo_while_other_fetches_go_on(self):
        self.write("local", b"")
        for arguments, talk, status in [
            ([], [(b"User name: .*/local|/local.*User name: ", b"ann\n"), (b"Password: ", b"s3cret\n")], 0),
            (["--user", "ann"], [(b"Password: ", b"wr0ng\n"), (b"Password: ", b"s3cret\n")], 0),
            (["--user", "ann"], [(b"Password: ", b"\x03")], 130),
            (["--user", "ann"], [(b"Password: ", b"\x1c")], -signal.SIGQUIT),
            (["--user", "ann"], [(b"Password: ", signal.SIGHUP)], -signal.SIGHUP),
            (["--user", "ann"], [(b"Password: ", signal.SIGTERM)], 143),
            (["--user", "ann"], [(b"Password: ", signal.SIGTSTP), (b"Password: ", b"s3cret\n")], 0),
        ]:
            ended, seen = self.on_a_terminal(*arguments, self.origin + "/secret", self.path("local"), talk=talk)
            self.assertEqual(ended, status, seen)
            self.assertNotRegex(seen, b"s3cret|wr0ng")

    def test_a_password_file_answers_for_the_hosts_of_the_urls_only(self):
        for password, path, status in [(b"s3cret\n", "/secret", 0), (b"wrong", "/secret", 1),
                                       (b"s3cret", "/elsewhere", 1), (b"two\nlines", "/secret", 2)]:
            self.write("password", password)
            done = self.run_tool("--user", "ann", "--password-file", "password", self.origin + path, status=status)
            self.assertNotIn(password.strip(), done.stdout + done.stderr)
            self.assertEqual(b"not answered" in done.stderr, path == "/elsewhere")


if __name__ == "__main__":
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main()
