#!/usr/bin/python3
"""Runs every example against real servers: examples_test.py <folder of the programs> [<test>...]"""
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import zipfile

PROGRAMS = ""
SOURCES = pathlib.Path(__file__).resolve().parents[2] / "examples"
WAIT = 60
CONFIGURATION = """
daemon off; master_process off; pid %(folder)s/pid; error_log stderr; events { worker_connections 100; }
http {
  client_body_temp_path t1; proxy_temp_path t2; fastcgi_temp_path t3; uwsgi_temp_path t4; scgi_temp_path t5;
  access_log off;
  server { listen 127.0.0.1:%(port)d; root %(folder)s; location /slow { limit_rate 1; }
           location /secret { auth_basic "Lakes"; auth_basic_user_file %(folder)s/users; }
           location /signed { if ($http_authorization !~ "^OAuth .*key=.ann.*token=.token") { return 403; } } }
}"""
FILES = {"users": "ann:{PLAIN}pass\n", "page": "a page", "fleeting": "a page", "secret": "a secret", "signed": "done",
         "slow": "x" * 9999}


class ExamplesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp())
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        with zipfile.ZipFile(cls.folder / "a.kmz", "w", zipfile.ZIP_DEFLATED) as archive:
            archive.writestr("doc.kml", "<kml/>")
            archive.writestr("images/b.txt", "out of an archive")
        with socket.create_server(("127.0.0.1", 0)) as probe:
            port = probe.getsockname()[1]
        for name, text in {**FILES, "conf": CONFIGURATION % {"folder": cls.folder, "port": port}}.items():
            (cls.folder / name).write_text(text, "utf-8")
        nginx = shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin")
        cls.start(lambda: (cls.folder / "pid").exists(), nginx, "-p", cls.folder, "-c", "conf", "-e", "stderr")
        cls.start(lambda: "Booting worker" in (cls.folder / "httpbin:app.log").read_text(), sys.executable, "-B", "-m", "gunicorn",
                  "--bind", "127.0.0.1:0", "--threads", "8", "httpbin:app")
        cls.httpbin = (cls.folder / "httpbin:app.log").read_text().split("Listening at: ")[1].split()[0]
        cls.nginx = "http://127.0.0.1:%d" % port

    @classmethod
    def start(cls, ready, *command):
        log = cls.folder / (command[-1] + ".log")
        with open(log, "wb") as file:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=file, stderr=file)
        cls.addClassCleanup(process.wait, WAIT)
        cls.addClassCleanup(process.terminate)
        until = time.monotonic() + WAIT
        while not ready():
            if process.poll() is not None or time.monotonic() > until:
                raise RuntimeError("%s did not start: %s" % (command, log.read_text()))
            time.sleep(0.02)

    def run_example(self, name, *arguments, status=0, **environment):
        # No session bus: the keychain of whoever runs this has nothing to do with it.
        kept = {key: value for key, value in os.environ.items() if not key.startswith(("DBUS", "XDG", "DISPLAY"))}
        done = subprocess.run([os.path.join(PROGRAMS, name), *arguments], env={**kept, "HOME": str(self.folder), **environment},
                              cwd=self.folder, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=WAIT)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done.stdout

    def test_every_example_is_run_here(self):
        text = pathlib.Path(__file__).read_text("utf-8")
        self.assertEqual([path for path in SOURCES.glob("*.cpp") if 'run_example("%s"' % path.stem not in text], [])

    def test_fetching(self):
        for target in (self.nginx + "/page", "page"):
            self.assertEqual(self.run_example("fetch_url", target), "Success, 6 bytes\n")
        self.assertIn("404", self.run_example("fetch_url", self.nginx + "/missing", status=1))
        out = self.run_example("cancel_group", *(self.nginx + path for path in ("/slow", "/page", "/slow?2")))
        self.assertEqual(out, "1 of 3 requests had ended\n")
        for _ in range(2):  # the second time without the server's help
            self.assertEqual(self.run_example("offline_copy", self.nginx + "/fleeting", "."), "state 2, 6 bytes\n")
            (self.folder / "fleeting").unlink(missing_ok=True)

    def test_what_lies_on_disk(self):
        for value in (16, 17):
            self.assertIn("maxHttpThreads was %d\n" % value, self.run_example("settings", "app.ini"))
        out = self.run_example("archive_file", self.nginx + "/a.kmz", "doc.kml", "images/b.txt", "written")
        self.assertEqual(out, "first file: 6 bytes\nsecond file: written\n")
        self.assertEqual((self.folder / "written").read_text(), "out of an archive")
        self.assertIn("the main document of an archive", self.run_example("worker_thread", self.nginx + "/a.kmz"))

    def test_service_calls(self):
        answer = json.loads(self.run_example("json_call", self.httpbin + "/post").split("\n", 1)[1])
        self.assertEqual(answer["json"], {"lake": "Kochelsee", "depth": 66})
        answer = json.loads(self.run_example("form_with_file", self.httpbin + "/post", "page").split("\n", 1)[1])
        self.assertEqual((answer["form"], answer["files"]), ({"title": "Höhenzüge"}, {"file": "a page\0"}))

    def test_credentials(self):
        for password, status, end in (("pass", 0, "state 2, 8 bytes\n"), ("wrong", 1, "state 401, 0 bytes\n")):
            out = self.run_example("answer_challenge", self.nginx + "/secret", "ann", status=status, LAKE_PASSWORD=password)
            self.assertRegex(out, "127.0.0.1\n(.*\n)*%s$" % end)
        for prefix, status, end in (("/sig", 0, "state 2, 4 bytes\n"), ("/other", 1, "state 403, 0 bytes\n")):
            arguments = [self.nginx + prefix, self.nginx + "/signed", "ann", "token"]
            self.assertEqual(self.run_example("sign_by_url", *arguments, status=status, LAKE_SECRET="hidden"), end)


if __name__ == "__main__":
    PROGRAMS = os.path.abspath(sys.argv.pop(1))
    unittest.main()
