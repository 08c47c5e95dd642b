#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Between clients and a broker: proxy.py PORT TO SEED CUTS BYTES.

Takes connections on PORT and hands on what it gets to TO and back. CUTS times it cuts one in the
middle, each after a random number of bytes, BYTES at most; afterwards it lets everything through.
Prints a line for each cut.
"""
import asyncio
import random
import sys

PORT, TO, SEED, CUTS, BYTES = (int(a) for a in sys.argv[1:6])
chance = random.Random(SEED)
left = CUTS


async def carry(reader, writer, budget, ends):
    """Hands on until the budget is used up; what is beyond it is lost."""
    while data := await reader.read(4096):
        if budget is not None:
            part = data[: budget[0]]
            budget[0] -= len(data)
            writer.write(part)
            await writer.drain()
            if budget[0] <= 0:
                ends.set()
                return
        else:
            writer.write(data)
            await writer.drain()
    ends.set()


async def connection(reader, writer):
    """One client. The first bytes of a connection are let through, or nothing would ever come."""
    global left
    try:
        to_reader, to_writer = await asyncio.open_connection("127.0.0.1", TO)
    except OSError:
        writer.transport.abort()
        return
    budget = [chance.randrange(200, BYTES)] if left > 0 else None
    ends = asyncio.Event()
    tasks = [asyncio.create_task(carry(reader, to_writer, budget, ends)),
             asyncio.create_task(carry(to_reader, writer, budget, ends))]
    await ends.wait()
    for task in tasks:
        task.cancel()
    if budget and budget[0] <= 0:
        left -= 1
        print("cut", flush=True)
    writer.transport.abort()
    to_writer.transport.abort()


async def main():
    """Until somebody ends the process."""
    server = await asyncio.start_server(connection, "127.0.0.1", PORT)
    async with server:
        await server.serve_forever()


asyncio.run(main())
