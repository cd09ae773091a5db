#!/usr/bin/python3
"""A long run of mixed fetches over 12 servers in one process, which must not grow, lose or double anything.

One nginx serves 12 loopback addresses, four of them by HTTPS: bodies of all sizes, errors, redirects, challenges and
archives. The same files lie on disk. Prints samples of memory (MiB), threads and descriptors, and whether the goals are
met; the exit status tells, too.

  run.py PROGRAM [--fetches N] [--seed N] [--outstanding N] [--plain-malloc]
"""
import argparse
import importlib.util
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import zipfile

SPEC = importlib.util.spec_from_file_location("fetch_run", pathlib.Path(__file__).parent.parent / "fetch" / "run.py")
fetch = importlib.util.module_from_spec(SPEC)
SPEC.loader.exec_module(fetch)

SERVERS, TLS_SERVERS, ARCHIVES = 12, 4, 6


class Servers:
    def __init__(self, folder):
        self.folder, self.www = folder, os.path.join(folder, "www")
        os.mkdir(self.www)
        self.make_files()
        self.ca = self.make_certificate()
        self.bases = []
        blocks = ""
        for i in range(SERVERS):
            host, port, tls = f"127.0.0.{i + 1}", fetch.free_port(), i < TLS_SERVERS
            self.bases.append(f"{'https' if tls else 'http'}://{host}:{port}")
            blocks += f"server {{ listen {host}:{port}{' ssl' if tls else ''}; %s }}\n"
        away = self.bases[1:] + self.bases[:1]
        blocks %= tuple(self.locations(base, other) for base, other in zip(self.bases, away))
        paths = "".join(f"{n}_temp_path {folder}/{n};" for n in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        with open(os.path.join(folder, "nginx.conf"), "w") as f:
            f.write(f"daemon off; master_process off; pid {folder}/pid; error_log stderr emerg;"
                    f"events {{ worker_connections 4096; }} http {{ access_log off; {paths} sendfile on;"
                    f"ssl_certificate {self.ca}; ssl_certificate_key {folder}/key.pem; root {self.www};\n{blocks} }}\n")
        self.process = subprocess.Popen(["nginx", "-p", folder + "/", "-c", "nginx.conf"], stdin=subprocess.DEVNULL)
        for base in self.bases:
            host, port = base.split("//")[1].split(":")
            fetch.Nginx.wait_for(int(port), host)

    def make_files(self):
        for name, size in (("1k", 1024), ("64k", 64 << 10), ("4m", 4 << 20), ("slow", 64 << 10), ("empty", 0)):
            self.write(name, os.urandom(size))
        os.mkdir(os.path.join(self.www, "locked"))
        self.write("locked/1k", os.urandom(1024))
        for i in range(ARCHIVES):
            with zipfile.ZipFile(os.path.join(self.www, f"{i}.kmz"), "w", zipfile.ZIP_DEFLATED) as archive:
                archive.writestr("doc.kml", "<kml/>" * 50)
                archive.writestr("images/b.png", os.urandom(20000))
                archive.writestr("images/filler.png", os.urandom(60000 * (i + 1)))
        crypt = subprocess.run(["openssl", "passwd", "-apr1", "word"], check=True, capture_output=True, text=True)
        with open(os.path.join(self.folder, "users"), "w") as f:
            f.write("name:" + crypt.stdout)

    def write(self, name, content):
        with open(os.path.join(self.www, name), "wb") as f:
            f.write(content)

    def make_certificate(self):
        ca = os.path.join(self.folder, "ca.crt")
        names = ",".join(f"IP:127.0.0.{i + 1}" for i in range(SERVERS))
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
             "-addext", f"subjectAltName={names}", "-keyout", os.path.join(self.folder, "key.pem"), "-out", ca],
            check=True, capture_output=True)
        return ca

    def locations(self, base, other):
        return ("add_header Set-Cookie \"soak=$msec; Path=/\"; location = /broken { return 500; }"
                "location = /nothing { return 204; } location = /hang-up { return 444; }"
                "location = /slow { limit_rate 256k; }"
                f"location = /moved {{ return 302 {base}/1k; }} location = /away {{ return 302 {other}/1k; }}"
                f"location = /circle {{ return 302 {base}/circle; }}"
                f"location /locked/ {{ auth_basic locked; auth_basic_user_file {self.folder}/users; }}"
                "location = /get { rewrite ^ /$arg_id.kmz break; }")

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("program")
    parser.add_argument("--fetches", default="200000")
    parser.add_argument("--seed", default="1")
    parser.add_argument("--outstanding", default="48")
    parser.add_argument("--plain-malloc", action="store_true", help="see TameMalloc() in main.cpp")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        servers = Servers(folder)
        env = {k: v for k, v in os.environ.items() if not k.lower().endswith("_proxy") and k != "DISPLAY"}
        env["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + os.path.join(folder, "no-bus")  # nobody's keychain
        try:
            command = [options.program, "--fetches", options.fetches, "--seed", options.seed, "--outstanding",
                       options.outstanding, "--ca", servers.ca, "--folder", servers.www]
            command += ["--plain-malloc"] if options.plain_malloc else []
            sys.exit(subprocess.run(command + servers.bases, env=env).returncode)
        finally:
            servers.stop()


if __name__ == "__main__":
    main()
