#!/usr/bin/python3
"""An independent judge of OAuth 1.0 signatures for the tests.

Serves HTTP on 127.0.0.1 at a free port and checks the signature of every request with
oauthlib's SignatureOnlyEndpoint (Debian's python3-oauthlib), as a server of the catalogue would.
It prints "PORT <n>" on its first line once it listens. Every request is answered with JSON:
{"valid": bool, "method", "path", "headers", "body", "error"}; status 200 when the signature
holds, 401 when it does not. GET /quit stops it; it also stops when its parent process goes.

usage: oauth_peer.py CONSUMER_KEY CONSUMER_SECRET [TOKEN [TOKEN_SECRET]]
"""

import json
import os
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from oauthlib.oauth1 import RequestValidator, SignatureOnlyEndpoint

CONSUMER_KEY = sys.argv[1]
CONSUMER_SECRET = sys.argv[2]
TOKEN = sys.argv[3] if len(sys.argv) > 3 else "_"
TOKEN_SECRET = sys.argv[4] if len(sys.argv) > 4 else ""


class Validator(RequestValidator):
    enforce_ssl = False

    def __init__(self):
        super().__init__()
        self._seen = set()
        self._lock = threading.Lock()

    @property
    def dummy_client(self):
        return "dummy-client"

    @property
    def dummy_access_token(self):
        return "dummy-token"

    def check_client_key(self, client_key):
        return True

    def check_nonce(self, nonce):
        return True

    def validate_client_key(self, client_key, request):
        return client_key == CONSUMER_KEY

    def validate_timestamp_and_nonce(self, client_key, timestamp, nonce, request,
                                     request_token=None, access_token=None):
        with self._lock:
            key = (client_key, timestamp, nonce)
            if key in self._seen:
                return False
            self._seen.add(key)
            return True

    def get_client_secret(self, client_key, request):
        return CONSUMER_SECRET if client_key == CONSUMER_KEY else "dummy-secret"

    def get_access_token_secret(self, client_key, token, request):
        return TOKEN_SECRET if token == TOKEN else "dummy-token-secret"


ENDPOINT = SignatureOnlyEndpoint(Validator())


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, fmt, *args):
        pass

    def _handle(self):
        if self.command == "GET" and self.path == "/quit":
            self._answer(200, {"quit": True})
            threading.Thread(target=self.server.shutdown, daemon=True).start()
            return
        length = int(self.headers.get("Content-Length") or 0)
        body = self.rfile.read(length) if length else b""
        headers = {name: value for name, value in self.headers.items()}
        uri = "http://" + self.headers.get("Host", "") + self.path
        error = None
        try:
            valid, request = ENDPOINT.validate_request(
                uri, http_method=self.command, body=body.decode("utf-8"), headers=headers)
            if valid and request.resource_owner_key != TOKEN:
                valid, error = False, "unexpected token %r" % request.resource_owner_key
        except Exception as exc:  # a malformed request is an invalid one
            valid, error = False, repr(exc)
        self._answer(200 if valid else 401, {
            "valid": bool(valid),
            "method": self.command,
            "path": self.path,
            "headers": headers,
            "body": body.decode("utf-8", "replace"),
            "error": error,
        })

    def _answer(self, status, payload):
        data = json.dumps(payload).encode("utf-8")
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    do_GET = do_POST = do_PUT = do_DELETE = do_PATCH = _handle


def watch_parent(server, parent):
    while os.getppid() == parent:
        time.sleep(0.5)
    server.shutdown()


def main():
    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    threading.Thread(target=watch_parent, args=(server, os.getppid()), daemon=True).start()
    print("PORT %d" % server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
