#!/usr/bin/python3
"""WebSocket server for tests, on Debian's python3-websockets.

Usage: ws_server.py [--host 127.0.0.1|::1] [--cert CERT --key KEY]
Listens on a free port for ws and, given a certificate, on another for wss,
and prints "ws <port>" (and "wss <port>") once both accept connections.
The path picks the behaviour:

  /echo               every message back as it came, text or binary
  /fragments          first sends the text "fragmented message" in the three
                      frames "frag", "mented ", "message", then echoes
  /ping               pings with payload "are you there", then sends the text
                      "pong:are you there" once the pong is in (or "no pong"
                      after 20 s), then echoes
  /close/<code>/<why> closes at once with that code and reason
  /drop               echoes the first message, then drops the TCP connection
                      without a close frame
  /refuse             refuses the upgrade with 403
"""
import asyncio
import http
import ssl
import sys

import websockets


async def echo(ws):
    async for message in ws:
        await ws.send(message)


async def handler(ws, path):
    if path == "/fragments":
        await ws.send(["frag", "mented ", "message"])
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
