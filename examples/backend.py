#!/usr/bin/python3
"""The smallest useful backend for orvex-agent (docs/platform-protocol.md): it waits for one agent,
prepares a session for it, ends that after some seconds, and prints every message in order. Its
status is 0 if the session streamed and ended because this backend ended it.

    examples/backend.py --agent-token secret --port 9000
    orvex-agent --saas-url ws://127.0.0.1:9000 --token secret
"""

import argparse
import asyncio
import base64
import hashlib
import hmac
import http
import json
import secrets
import ssl
import sys
import time

import websockets

START = time.monotonic()


def say(*words):
    print(f"{time.monotonic() - START:7.3f}", *words, flush=True)


class Backend:
    def __init__(self, options):
        self.options = options
        self.agent = None  # the connection of the agent
        self.session_id = None  # the session that was prepared and has not ended
        self.streaming = False
        self.ended = asyncio.get_running_loop().create_future()  # becomes the reason

    async def admit(self, *request):
        """Refuses a request for the upgrade, or returns nothing."""
        # (path, headers) up to version 13 of the library, (connection, request) since 14.
        old = isinstance(request[0], str)
        path = request[0] if old else request[1].path
        headers = request[1] if old else request[1].headers
        token = headers.get("agent-token", "").encode(errors="surrogateescape")
        if path != "/agent/connect":
            status = http.HTTPStatus.NOT_FOUND
        elif not hmac.compare_digest(token, self.options.agent_token.encode()):
            status = http.HTTPStatus.UNAUTHORIZED
        else:
            return None
        say("refused", path, "with status", status.value)
        return (status, [], b"") if old else request[0].respond(status, "")

    async def serve(self, connection):
        """One connection of the agent, from the upgrade to its end."""
        say("connected")
        if self.agent is not None:
            # Two agents with one token: the newer one stays, the older one keeps away for a while.
            asyncio.create_task(self.agent.close(4009, "replaced"))
        self.agent = connection
        pinging = asyncio.create_task(self.ping(connection))
        try:
            async for text in connection:
                message = json.loads(text)
                say("agent  ->", text)
                await self.take(message)
        except websockets.ConnectionClosed:
            pass  # agents send no close frame
        finally:
            pinging.cancel()
            if self.agent is connection:
                self.agent = None
            say("disconnected")

    async def take(self, message):
        kind = message.get("type")
        if kind == "register" and self.session_id is None:
            await self.prepare(message["port_base"])
        if kind not in ("session_ready", "session_ended"):
            return
        if message["session_id"] != self.session_id:
            return  # told again after a reconnect
        if kind == "session_ready" and not self.streaming:
            self.streaming = True
            self.timer = asyncio.create_task(self.terminate())
        if kind == "session_ended":
            self.session_id = None
            self.ended.set_result(message["reason"])

    async def prepare(self, port_base):
        if self.ended.done():
            return  # one session is enough for an example
        self.session_id = secrets.token_hex(8)
        token = secrets.token_urlsafe(24)  # for the launcher; the agent gets its hash
        key = secrets.token_bytes(32)  # never used again
        await self.send({
            "type": "prepare_session",
            "session_id": self.session_id,
            "encryption_key": base64.b64encode(key).decode(),
            "session_token_sha256": hashlib.sha256(token.encode()).hexdigest(),
        })
        say("launcher: --port-base", port_base, "--token", token)

    async def terminate(self):
        await asyncio.sleep(self.options.seconds)
        if self.session_id is not None:
            await self.send({"type": "terminate_session", "session_id": self.session_id,
                             "reason": "time is up"})

    async def ping(self, connection):
        while True:
            await asyncio.sleep(5)
            if connection is self.agent:
                await self.send({"type": "ping"})

    async def send(self, message):
        shown = {name: "(not shown)" if name == "encryption_key" else value
                 for name, value in message.items()}
        say("backend ->", json.dumps(shown))
        try:
            if self.agent is not None:
                await self.agent.send(json.dumps(message))
        except websockets.ConnectionClosed:
            pass  # the agent will be back


async def main():
    parser = argparse.ArgumentParser(description="a small backend for orvex-agent")
    parser.add_argument("--port", type=int, default=0, help="0, the default: any free one")
    parser.add_argument("--agent-token", required=True)
    parser.add_argument("--seconds", type=float, default=12, help="how long to stream (12)")
    parser.add_argument("--tls", nargs=2, metavar=("CERTIFICATE", "KEY"), help="PEM files")
    options = parser.parse_args()
    context = None
    if options.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*options.tls)
    backend = Backend(options)
    async with websockets.serve(backend.serve, "127.0.0.1", options.port, ssl=context,
                                process_request=backend.admit) as server:
        port = list(server.sockets)[0].getsockname()[1]
        say(f"listening: {'wss' if context else 'ws'}://127.0.0.1:{port}")
        reason = await backend.ended
    say("the session ended:", reason)
    return 0 if backend.streaming and reason == "saas_terminated" else 1


sys.exit(asyncio.run(main()))
