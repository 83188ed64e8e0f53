#!/usr/bin/env python3
"""A server to try requests against: it says what it received.

    examples/try_server.py 8080
    examples/try_server.py 8443 --tls server.pem server.key
    examples/try_server.py 8443 --tls server.pem server.key --client-ca ca.pem
                                                       asks for a certificate of the client's
    examples/try_server.py 3128 --proxy ada:s3cret     asks for these as a proxy does

    /items/7       an item, as JSON
    /report        600 lines of text
    /login         POST: sets the cookie that /account wants
    /account       401 without the cookie
    /private       401 without basic authentication as ada, s3cret
    anything else  what was received, as JSON; "visit" counts the requests for this path

Listens on 127.0.0.1 only.
"""
import argparse
import base64
import collections
import gzip
import http.server
import json
import re
import ssl
import threading
import urllib.parse
import zlib

visits = collections.Counter()
visits_lock = threading.Lock()


def basic(credentials):
    return "Basic " + base64.b64encode(credentials.encode()).decode()


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    proxy_credentials = None

    def answer(self, status, body, content_type="application/json", headers=()):
        data = body if isinstance(body, bytes) else json.dumps(body, sort_keys=True).encode()
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(data)))
        for name, value in headers:
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(data)

    def body(self):
        data = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        coding = self.headers.get("Content-Encoding", "identity")
        if coding == "gzip":
            return gzip.decompress(data)
        return zlib.decompress(data) if coding == "deflate" else data

    def parts(self, body):
        """The parts of a multipart body, by name: file name, type and size of each."""
        found = []
        for part in body.split(b"--" + self.headers.get_param("boundary").encode())[1:-1]:
            head, content = part[2:-2].split(b"\r\n\r\n", 1)
            entry = dict(re.findall(r'(\bname|filename)="([^"]*)"', head.decode()))
            content_type = re.search(r"(?i)content-type: *(.*)", head.decode())
            if content_type:
                entry["contentType"] = content_type.group(1).strip()
            found.append({**entry, "bytes": len(content)})
        return sorted(found, key=lambda entry: entry["name"])

    def received(self, path, body):
        with visits_lock:
            visits[path] += 1
            count = visits[path]
        seen = {"method": self.command, "target": self.path, "visit": count, "bytes": len(body)}
        if isinstance(self.connection, ssl.SSLSocket) and self.connection.getpeercert():
            names = dict(pair for rdn in self.connection.getpeercert()["subject"] for pair in rdn)
            seen["client"] = names.get("commonName")
        for name in ("X-Event", "Content-Encoding"):
            if name in self.headers:
                seen[name.lower()] = self.headers[name]
        kind = self.headers.get_content_type() if "Content-Type" in self.headers else ""
        if kind == "multipart/form-data":
            seen["parts"] = self.parts(body)
        elif kind == "application/x-www-form-urlencoded":
            seen["fields"] = dict(urllib.parse.parse_qsl(body.decode()))
        elif kind == "application/json" and body:
            seen["json"] = json.loads(body)
        elif body:
            seen["body"] = body.decode("utf-8", "replace")
        return seen

    def handle_request(self):
        if self.proxy_credentials and self.headers.get("Proxy-Authorization") != basic(
            self.proxy_credentials
        ):
            self.body()
            self.answer(407, {"error": "the proxy wants to know who you are"})
            return
        body = self.body()
        path = re.sub(r"^http://[^/]*", "", self.path).split("?")[0]
        item = re.fullmatch(r"/items/(\d+)", path)
        if item and self.command == "GET":
            self.answer(200, {"id": int(item.group(1)), "name": "Item " + item.group(1)})
        elif path == "/report":
            lines = "".join(f"line {n}\n" for n in range(1, 601))
            self.answer(200, lines.encode(), "text/plain; charset=utf-8")
        elif path == "/login":
            self.answer(200, {"user": "ada"}, headers=[("Set-Cookie", "session=abc; Path=/")])
        elif path == "/account":
            known = "session=abc" in self.headers.get("Cookie", "")
            self.answer(200 if known else 401, {"user": "ada"} if known else {"error": "log in"})
        elif path == "/private":
            known = self.headers.get("Authorization") == basic("ada:s3cret")
            self.answer(200 if known else 401, {"user": "ada"} if known else {"error": "who?"})
        else:
            self.answer(200, self.received(path, body))

    do_GET = do_HEAD = do_POST = do_PUT = do_DELETE = do_PATCH = handle_request

    def log_message(self, format, *args):
        pass


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("port", type=int)
    parser.add_argument("--tls", nargs=2, metavar=("CERTIFICATE", "KEY"))
    parser.add_argument("--client-ca", metavar="AUTHORITY")
    parser.add_argument("--proxy", metavar="USER:PASSWORD")
    options = parser.parse_args()
    Handler.proxy_credentials = options.proxy
    server = http.server.ThreadingHTTPServer(("127.0.0.1", options.port), Handler)
    scheme = "http"
    if options.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*options.tls)
        if options.client_ca:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(options.client_ca)
        server.socket = context.wrap_socket(server.socket, server_side=True)
        scheme = "https"
    print(f"Listening on {scheme}://127.0.0.1:{server.server_port}", flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    main()
