#!/usr/bin/python3
"""WebSocket server for tests on Debian's python3-websockets.

ws_server.py [--host 127.0.0.1|::1] [--cert CERT --key KEY] listens on a free port
for ws (and one for wss) and prints "ws <port>" (and "wss <port>"). By path:
  /echo               every message back as it came
  /fragments          first the text "fragmented message" in the frames "frag",
                      "mented ", "message", then echo
  /ping               pings with "are you there", sends "pong:are you there" once
                      the pong is in ("no pong" after 20 s), then echo
  /close/<code>/<why> closes at once with that code and reason
  /one-then-close     waits for a message, then sends "only", a close (1000) and
                      the end of the stream in one write
  /drop               echoes one message, then drops TCP without a close frame
  /refuse             refuses the upgrade with 403
"""
import asyncio, http, ssl, sys

import websockets


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
        await ws.close(int(code), reason)
        return
    elif path == "/one-then-close":
        await ws.recv()
        ws.transport.write(b"\x81\x04only\x88\x02\x03\xe8")
        ws.transport.close()
        return
    elif path == "/drop":
        await ws.send(await ws.recv())
        ws.transport.abort()
        return
    async for message in ws:  # echo
        await ws.send(message)


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
