#!/usr/bin/python3
"""A backend for the connector's tests, on a WebSocket library that is not ours.

Prints one line per thing that happens: "port <n>", "sni <name>", "path <path>", "token <token>",
"message <text>", "closed <code>". With --fault it is no WebSocket server but a TCP server that
fails in one way.
"""

import argparse
import asyncio
import socket
import ssl
import struct

import websockets


def report(*words):
    print(*words, flush=True)


def server_context(args):
    if not args.cert:
        return None
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    context.sni_callback = lambda _socket, name, _context: report("sni", name)
    return context


async def converse(connection):
    report("path", connection.path)
    report("token", connection.request_headers.get("agent-token"))
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


async def serve_websockets(args):
    async with websockets.serve(converse, "127.0.0.1", 0, ssl=server_context(args)) as server:
        report("port", server.sockets[0].getsockname()[1])
        await asyncio.Future()


def reset_in_mid_record(connection, context):
    """Completes both handshakes, then sends half a TLS record and a reset."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    tls = context.wrap_bio(incoming, outgoing, server_side=True)

    def drive(step):
        while True:
            try:
                result = step()
                connection.sendall(outgoing.read())
                return result
            except ssl.SSLWantReadError:
                connection.sendall(outgoing.read())
                incoming.write(connection.recv(4096))

    drive(tls.do_handshake)
    drive(lambda: tls.read(4096))  # the upgrade request
    tls.write(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n")
    connection.sendall(outgoing.read())
    drive(lambda: tls.read(4096))  # the registration
    tls.write(b'\x81\x0f{"type":"ping"}')
    connection.sendall(outgoing.read()[:20])
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()
    report("reset")


def serve_fault(args):
    context = server_context(args)
    listener = socket.create_server(("127.0.0.1", 0))
    report("port", listener.getsockname()[1])
    held = []
    while True:
        connection, _ = listener.accept()
        report("accepted")
        if args.fault == "reset":
            reset_in_mid_record(connection, context)
        else:
            held.append(connection)  # never says a word


parser = argparse.ArgumentParser()
parser.add_argument("--cert")
parser.add_argument("--key")
parser.add_argument("--fault", choices=["stall", "reset"])
arguments = parser.parse_args()
if arguments.fault:
    serve_fault(arguments)
else:
    asyncio.run(serve_websockets(arguments))
