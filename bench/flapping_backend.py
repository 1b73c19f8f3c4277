#!/usr/bin/python3
"""A platform backend that does not hold, for bench/soak.sh.

Prepares one session on the first connection, then ends each connection in turns: by a proper close,
by one without a reason, by cutting the line, by saying nothing any more once the agent trusts its
pings; and leaves its port closed for a while at times. Prints the port, at the end (SIGTERM) the
number of connections and of the messages received.

  flapping_backend.py SESSION-TOKEN-SHA256
"""

import asyncio
import itertools
import json
import random
import signal
import sys

import websockets


class Backend:
    def __init__(self, token_sha256):
        self.prepare = json.dumps(
            {
                "type": "prepare_session",
                "session_id": "soak",
                "encryption_key": "AAECAwQFBgcIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=",
                "session_token_sha256": token_sha256,
            }
        )
        self.endings = itertools.cycle(["close", "bare", "cut", "cut", "deaf"])
        self.connections = 0
        self.messages = 0

    async def converse(self, connection):
        self.connections += 1
        await connection.send('{"type":"ping"}')
        if self.connections == 1:
            await connection.send(self.prepare)
        ending = next(self.endings)
        lifetime = 40 if ending == "deaf" else random.uniform(0.0, 3.0)
        try:
            async with asyncio.timeout(lifetime):
                async for _ in connection:
                    self.messages += 1
        except TimeoutError:
            pass
        except websockets.ConnectionClosed:
            return
        if ending == "close":
            await connection.close(random.choice([1000, 1001, 1012]), "restart")
        elif ending == "bare":
            connection.transport.close()
        else:
            connection.transport.abort()

    async def serve(self):
        stopped = asyncio.Event()
        asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, stopped.set)
        port = 0
        while not stopped.is_set():
            async with await websockets.serve(
                self.converse, "127.0.0.1", port, ping_interval=None, reuse_address=True
            ) as server:
                if port == 0:
                    port = list(server.sockets)[0].getsockname()[1]
                    print(port, flush=True)
                try:
                    await asyncio.wait_for(stopped.wait(), random.uniform(20, 60))
                except TimeoutError:
                    pass
            if not stopped.is_set():
                await asyncio.sleep(random.uniform(0, 5))
        print(self.connections, "connections,", self.messages, "messages", flush=True)


asyncio.run(Backend(sys.argv[1]).serve())
