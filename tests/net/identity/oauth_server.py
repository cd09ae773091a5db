"""Trades a request token for an access token if oauthlib verifies it. Prints its port; ends with its input."""

import http.server
import sys
import threading

from oauthlib.oauth1 import AccessTokenEndpoint, RequestValidator


class Validator(RequestValidator):
    enforce_ssl = False
    nonce_length, client_key_length = (16, 16), (9, 9)
    check_request_token = check_verifier = validate_timestamp_and_nonce = lambda *arguments, **named: True
    get_client_secret = lambda self, client_key, request: client_key
    get_request_token_secret = lambda self, client_key, token, request: "request secret"
    validate_client_key = lambda self, client_key, request: client_key == "openguest"
    validate_request_token = lambda self, client_key, token, request: token == "request/token"
    validate_verifier = lambda self, client_key, token, verifier, request: verifier == "veri&fier"
    get_realms = save_access_token = invalidate_request_token = lambda self, *arguments: []


class Handler(http.server.BaseHTTPRequestHandler):
    log_message = lambda self, *arguments: None
    wbufsize = 65536  # one write for all: a client that has read enough hangs up

    def do_POST(self):
        endpoint = AccessTokenEndpoint(Validator(), token_generator=iter(["access/token&=", "access%secret"]).__next__)
        _, body, status = endpoint.create_access_token_response(
            "http://" + self.headers["Host"] + self.path, "POST", None, dict(self.headers))
        self.send_response(status)
        self.end_headers()
        self.wfile.write((body or "").encode())


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
threading.Thread(target=lambda: (sys.stdin.read(), server.shutdown())).start()
print(server.server_port, flush=True)
server.serve_forever()
