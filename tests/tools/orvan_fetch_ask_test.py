#!/usr/bin/env python3
"""Tests how orvan-fetch asks for credentials: orvan_fetch_ask_test.py <path of the program> [<test>...]"""
import base64
import http.server
import os
import pty
import subprocess
import sys
import tempfile
import threading
import unittest

PROGRAM = ""
GOOD = "Basic " + base64.b64encode(b"ann:s3cret").decode()
os.environ["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nowhere"  # not the keychain of whoever runs this


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        if self.path == "/open":
            return self.answer(200)
        if self.path == "/elsewhere":
            return self.answer(302, "Location", "http://localhost:%d/secret" % self.server.server_port)
        if self.headers.get("Authorization") == GOOD:
            return self.answer(200)
        return self.answer(401, "WWW-Authenticate", 'Basic realm="r"')

    def answer(self, code, *header):
        self.send_response(code)
        if header:
            self.send_header(*header)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class AskTest(unittest.TestCase):
    def serve(self):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        return "http://127.0.0.1:%d" % server.server_port

    def setUp(self):
        self.origin, self.other = self.serve(), self.serve()

    def test_a_file_answers_for_the_hosts_of_the_urls_only(self):
        with tempfile.NamedTemporaryFile() as file:
            for password, path, status in [(b"s3cret\n", "/secret", 0), (b"wrong", "/secret", 1),
                                           (b"s3cret", "/elsewhere", 1), (b"two\nlines", "/secret", 2)]:
                with open(file.name, "wb") as target:
                    target.write(password)
                done = subprocess.run([PROGRAM, "--user", "ann", "--password-file", file.name, self.origin + path],
                                      capture_output=True, timeout=60)
                self.assertEqual(done.returncode, status, done)
                self.assertNotIn(password.strip(), done.stdout + done.stderr)
                self.assertEqual(b"not answered" in done.stderr, path == "/elsewhere")

    def test_a_terminal_is_asked_without_echo_while_other_fetches_go_on(self):
        for arguments, talk, status in [
            ([], [(b"User name: ", b"ann\n"), (b"Password: ", b"s3cret\n")], 0),
            (["--user", "ann"], [(b"Password: ", b"wr0ng\n"), (b"Password: ", b"s3cret\n")], 0),
            ([], [(b"User name: ", b"\n")], 1),
            (["--user", "ann"], [(b"Password: ", b"\x03")], 130),
        ]:
            child, terminal = pty.fork()
            if child == 0:
                os.execv(PROGRAM, [PROGRAM, *arguments, self.origin + "/secret", self.other + "/open"])
            seen = b""
            try:
                while chunk := os.read(terminal, 65536):
                    seen += chunk
                    # The fetch from the other server has ended before anything is typed.
                    if talk and talk[0][0] in seen and b"/open" in seen:
                        seen = seen.replace(talk[0][0], b"", 1)
                        os.write(terminal, talk.pop(0)[1])
            except OSError:  # how Linux says that the other side has closed
                pass
            os.close(terminal)
            self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), status, seen)
            self.assertEqual(talk, [])
            self.assertNotRegex(seen, b"s3cret|wr0ng")


if __name__ == "__main__":
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main()
