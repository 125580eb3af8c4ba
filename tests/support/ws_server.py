#!/usr/bin/python3
"""WebSocket server for tests on Debian's python3-websockets.

ws_server.py [--host 127.0.0.1|::1] [--cert CERT --key KEY] listens on a free port
for ws (and one for wss) and prints "ws <port>" (and "wss <port>"). By path:
  /echo               every message back as it came
  /fragments          first the text "fragmented message" in the frames "frag",
                      "mented ", "message", then echo
  /ping               pings with "are you there", sends "pong:are you there" once
                      the pong is in ("no pong" after 20 s), then echo
  /close/<code>/<why> closes at once with that code and reason; /report/close/<why>
                      then sends "answered <client's close code>" or "answered never"
  /one-then-close     waits for a message, then sends "only", a close (1000) and
                      the end of the stream in one write
  /drop               echoes one message, then drops TCP without a close frame
  /refuse             refuses the upgrade with 403
  /hostile/<kind>/<id>  a peer breaking a client's bounds (see hostile());
  /report/<kind>/<id>   then sends "sent=<payload bytes> code=<client's close code>"
"""
import asyncio, http, ssl, sys

import websockets
from websockets.frames import OP_BINARY, OP_CONT, OP_TEXT

MIB = 1 << 20
RESULTS = {}
# Frames (fin, opcode, payload) sent before echoing.
FRAMES = {
    "utf8-bad": [(True, OP_TEXT, b"ok\xc3\x28")],
    "utf8-surrogate": [(True, OP_TEXT, b"\xed\xa0\x80")],
    "utf8-split-bad": [(False, OP_TEXT, b"ab\xe2\x82"), (True, OP_CONT, b"\x28")],
    "utf8-split-good": [(False, OP_TEXT, b"ab\xe2\x82"), (True, OP_CONT, b"\xac")],
    # the empty last frame that python3-websockets' send(iterable) ends with
    "mixed": [(False, OP_BINARY, b"bin1"), (False, OP_CONT, b"bin2"), (True, OP_CONT, b""),
              (True, OP_TEXT, b"text")],
}


async def hostile(ws, name):
    kind, sent = name.split("/")[0], 0
    try:
        if kind in ("endless", "huge"):
            # One message that never ends: 1 MiB continuation frames, or one
            # frame announcing 2^40 bytes; 2 GiB at most.
            chunk = b"s" * MIB
            if kind == "huge":
                ws.transport.write(bytes([0x82, 127]) + (1 << 40).to_bytes(8, "big"))
            while sent < 2048 * MIB and ws.open:
                await asyncio.sleep(0)  # let the client's close frame in between chunks
                if kind == "huge":
                    ws.transport.write(chunk)
                    await ws.drain()
                else:
                    await ws.write_frame(False, OP_CONT if sent else OP_TEXT, chunk)
                sent += len(chunk)
        elif kind == "deaf":
            ws.transport.pause_reading()  # never reads what the client sends
            await asyncio.sleep(60)
        for fin, opcode, payload in FRAMES.get(kind, []):
            await ws.write_frame(fin, opcode, payload)
            sent += len(payload)
        await echo(ws)
    except Exception:
        pass  # the client went: what it sent last is what counts
    try:
        await asyncio.wait_for(ws.wait_closed(), 5)
    except asyncio.TimeoutError:
        pass
    RESULTS[name] = "sent=%d code=%s" % (sent, ws.close_code)


async def report(ws, name):
    for _ in range(200):  # the hostile connection may still be closing
        if name not in RESULTS:
            await asyncio.sleep(0.05)
    await ws.send(RESULTS.pop(name, "none"))


async def echo(ws):
    async for message in ws:
        await ws.send(message)


async def handler(ws, path):
    if path == "/fragments":
        # Frame by frame: send() of a list would end with an empty final
        # frame, which libcurl 8.14 may not pass on.
        for fin, opcode, data in ((False, 1, b"frag"), (False, 0, b"mented "), (True, 0, b"message")):
            await ws.write_frame(fin, opcode, data)
    elif path == "/ping":
        try:
            await asyncio.wait_for(await ws.ping(b"are you there"), 20)
            await ws.send("pong:are you there")
        except asyncio.TimeoutError:
            await ws.send("no pong")
    elif path.startswith("/close/"):
        _, _, code, reason = path.split("/", 3)
        await ws.close(int(code), reason)  # waits for the client's close frame
        RESULTS["close/" + reason] = "answered %s" % (ws.close_rcvd.code if ws.close_rcvd else "never")
        return
    elif path == "/one-then-close":
        await ws.recv()
        ws.transport.write(b"\x81\x04only\x88\x02\x03\xe8")
        ws.transport.close()
        return
    elif path.startswith("/hostile/"):
        await hostile(ws, path[len("/hostile/"):])
        return
    elif path.startswith("/report/"):
        await report(ws, path[len("/report/"):])
    elif path == "/drop":
        await ws.send(await ws.recv())
        ws.transport.abort()
        return
    await echo(ws)


async def refuse(path, headers):
    if path == "/refuse":
        return http.HTTPStatus.FORBIDDEN, [], b"refused\n"
    return None


async def main():
    args = sys.argv
    host = args[args.index("--host") + 1] if "--host" in args else "127.0.0.1"
    options = dict(process_request=refuse, max_size=None, compression=None, ping_interval=None,
                   close_timeout=2)
    plain = await websockets.serve(handler, host, 0, **options)
    print("ws", plain.sockets[0].getsockname()[1], flush=True)
    if "--cert" in args:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args[args.index("--cert") + 1], args[args.index("--key") + 1])
        secure = await websockets.serve(handler, host, 0, ssl=context, **options)
        print("wss", secure.sockets[0].getsockname()[1], flush=True)
    await asyncio.Future()


if __name__ == "__main__":
    asyncio.run(main())
