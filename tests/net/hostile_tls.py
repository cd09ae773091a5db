"""Makes a certificate, serves TLS with it and breaks off where it is told to. Prints its port."""

import os
import socket
import ssl
import subprocess
import sys
import threading

folder, name, days, cut = sys.argv[1:]
os.chdir(folder)
for command in (
        "req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=x "
        "-addext subjectAltName=DNS:" + name + " -days 9 -keyout key -out new",
        "x509 -in new -signkey key -out crt -days " + days):  # which may be negative here
    subprocess.run(["openssl"] + command.split(), check=True, stderr=subprocess.DEVNULL)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain("crt", "key")
listener = socket.create_server(("127.0.0.1", 0))
print(listener.getsockname()[1], flush=True)


def serve(plain):
    plain.recv(1, socket.MSG_PEEK)
    if cut != "handshake":
        stream = context.wrap_socket(plain, server_side=True)
        stream.recv(65536)
        stream.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\nbody" % (9 if cut == "body" else 4))
        stream.close()
    plain.close()


while True:
    threading.Thread(target=serve, args=listener.accept()[:1], daemon=True).start()
