#!/usr/bin/python3
"""HTTP peer for the faults no real server makes on purpose (standard library only).

faults.py [--host 127.0.0.1|::1] listens on a free port and prints "http <port>".
Each request goes to the handler of its path in HANDLERS (query ignored; others
404). A new behaviour is one function taking the request handler, registered there.
  /reset    200 with Content-Length 1000000, 20000 bytes of it, then a TCP reset
  /silent   reads the request and never answers
  /echo     POST/PUT body (chunked too) back, with X-Body-Length, X-Body-Sha256, X-Method
  /headers  the request's header lines as the body
"""
import hashlib, os, socket, struct, sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer


def reset_mid_body(h):
    h.send_response(200)
    h.send_header("Content-Length", "1000000")
    h.end_headers()
    h.wfile.write(b"r" * 20000)
    h.wfile.flush()
    # Linger 0 turns the close into a reset; detached, no file object keeps it open.
    h.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    os.close(h.connection.detach())
    h.close_connection = True


def silent(h):
    while h.rfile.read(1):
        pass
    h.close_connection = True


def read_body(h):
    if h.headers.get("Transfer-Encoding", "").lower() != "chunked":
        return h.rfile.read(int(h.headers.get("Content-Length", "0")))
    body = b""
    while size := int(h.rfile.readline().split(b";")[0], 16):
        body += h.rfile.read(size)
        h.rfile.readline()
    while h.rfile.readline() not in (b"\r\n", b"\n", b""):
        pass
    return body


def answer(h, body, **headers):
    h.send_response(200)
    for name, value in dict(headers, Content_Length=len(body)).items():
        h.send_header(name.replace("_", "-"), str(value))
    h.end_headers()
    h.wfile.write(body)


def echo(h):
    body = read_body(h)
    answer(h, body, X_Body_Length=len(body), X_Body_Sha256=hashlib.sha256(body).hexdigest(), X_Method=h.command)


def headers(h):
    read_body(h)
    answer(h, "".join("%s: %s\r\n" % kv for kv in h.headers.items()).encode())


HANDLERS = {"/reset": reset_mid_body, "/silent": silent, "/echo": echo, "/headers": headers}


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def dispatch(self):
        handler = HANDLERS.get(self.path.split("?")[0])
        handler(self) if handler else self.send_error(404)

    do_GET = do_POST = do_PUT = do_DELETE = do_PATCH = dispatch

    def log_message(self, *args):
        pass


class Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # a client that went away is what these tests are about


if __name__ == "__main__":
    host = sys.argv[sys.argv.index("--host") + 1] if "--host" in sys.argv else "127.0.0.1"
    Server.address_family = socket.AF_INET6 if ":" in host else socket.AF_INET
    server = Server((host, 0), Handler)
    print("http", server.server_address[1], flush=True)
    server.serve_forever()
