#!/usr/bin/python3
"""HTTP peer for the faults that no real server makes on purpose.

Usage: faults.py [--host 127.0.0.1|::1]
Listens on a free port and prints "http <port>" once it accepts connections.
Every request is answered by the handler registered for its path (query
ignored); unknown paths get 404. To add a behaviour, write one function taking
the request handler and register it in HANDLERS.

  /reset     200 with Content-Length 1000000, 20000 bytes of it, then a TCP reset
  /silent    reads the request, never answers; waits for the client to go
  /echo      POST/PUT: answers 200 with the request body as the body and
             X-Body-Length, X-Body-Sha256 and X-Method headers (chunked bodies
             and Expect: 100-continue included)
  /headers   answers 200 with the request's header lines as the body
"""
import hashlib
import os
import socket
import struct
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


def reset_mid_body(h):
    h.send_response(200)
    h.send_header("Content-Length", "1000000")
    h.end_headers()
    h.wfile.write(b"r" * 20000)
    h.wfile.flush()
    # Linger 0 turns the close into a reset; detach so no file object of the
    # request keeps the descriptor open.
    h.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    os.close(h.connection.detach())
    h.close_connection = True


def silent(h):
    while h.rfile.read(1):
        pass
    h.close_connection = True


def read_body(h):
    if h.headers.get("Transfer-Encoding", "").lower() == "chunked":
        body = b""
        while True:
            size = int(h.rfile.readline().split(b";")[0], 16)
            if size == 0:
                while h.rfile.readline() not in (b"\r\n", b"\n", b""):
                    pass
                return body
            body += h.rfile.read(size)
            h.rfile.readline()
    return h.rfile.read(int(h.headers.get("Content-Length", "0")))


def echo(h):
    body = read_body(h)
    h.send_response(200)
    h.send_header("Content-Length", str(len(body)))
    h.send_header("X-Body-Length", str(len(body)))
    h.send_header("X-Body-Sha256", hashlib.sha256(body).hexdigest())
    h.send_header("X-Method", h.command)
    h.end_headers()
    h.wfile.write(body)


def headers(h):
    read_body(h)
    body = "".join("%s: %s\r\n" % kv for kv in h.headers.items()).encode()
    h.send_response(200)
    h.send_header("Content-Length", str(len(body)))
    h.end_headers()
    h.wfile.write(body)


HANDLERS = {
    "/reset": reset_mid_body,
    "/silent": silent,
    "/echo": echo,
    "/headers": headers,
}


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def dispatch(self):
        handler = HANDLERS.get(self.path.split("?")[0])
        if handler is None:
            self.send_error(404)
            return
        handler(self)

    do_GET = do_POST = do_PUT = do_DELETE = do_PATCH = dispatch

    def log_message(self, *args):
        pass


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # a client that went away is what these tests are about


def main():
    host = sys.argv[sys.argv.index("--host") + 1] if "--host" in sys.argv else "127.0.0.1"
    Server.address_family = socket.AF_INET6 if ":" in host else socket.AF_INET
    server = Server((host, 0), Handler)
    print("http", server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
