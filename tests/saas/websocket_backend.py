#!/usr/bin/python3
# A backend for the connector's tests, on a WebSocket library that is not ours. An argument names
# its certificate and key, without their endings; without one it talks in the clear.
#
# Prints one line per thing that happens: "port <n>", "sni <name>", "path <path>", "token <token>",
# "message <text>", "closed <code>".

import asyncio
import ssl
import sys

import websockets


def report(*words):
    print(*words, flush=True)


def server_context():
    if len(sys.argv) < 2:
        return None
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1] + ".pem", sys.argv[1] + ".key")
    context.sni_callback = lambda _socket, name, _context: report("sni", name)
    return context


async def converse(connection):
    # Since version 14 the connection keeps the request as an object.
    request = getattr(connection, "request", None)
    headers = request.headers if request else connection.request_headers
    report("path", request.path if request else connection.path)
    report("token", headers.get("agent-token"))
    report("message", await connection.recv())
    await connection.send('{"type":"ping"}')
    # One message in three frames, with a control frame in between.
    await connection.send(['{"type":"prepare_session",', '"session_id":"' + "s" * 70000, '"}'])
    await connection.ping(b"x" * 125)
    try:
        async for message in connection:
            report("message", message[:60])
    except websockets.ConnectionClosed:
        pass
    report("closed", connection.close_code)


async def serve():
    server = await websockets.serve(converse, "127.0.0.1", 0, ssl=server_context())
    report("port", list(server.sockets)[0].getsockname()[1])
    await asyncio.Future()


asyncio.run(serve())
