#!/usr/bin/env python3
"""A TCP relay that adds a fixed delay to every byte in both directions, keeping order and
throughput (each chunk is sent DELAY_MS after it arrived, not after the previous one left).

    delay_relay.py LISTEN_HOST LISTEN_PORT TARGET_HOST TARGET_PORT DELAY_MS
"""
import asyncio
import sys


async def pipe(reader, writer, delay):
    loop = asyncio.get_running_loop()
    queue = asyncio.Queue()

    async def sender():
        while True:
            due, data = await queue.get()
            wait = due - loop.time()
            if wait > 0:
                await asyncio.sleep(wait)
            if not data:
                break
            writer.write(data)
            await writer.drain()
        writer.close()

    task = asyncio.create_task(sender())
    try:
        while True:
            data = await reader.read(65536)
            await queue.put((loop.time() + delay, data))
            if not data:
                break
        await task
    except (ConnectionError, OSError):
        task.cancel()
        writer.close()


async def main():
    listen_host, listen_port, target_host, target_port, delay_ms = sys.argv[1:6]
    delay = int(delay_ms) / 1000.0

    async def serve(client_reader, client_writer):
        try:
            server_reader, server_writer = await asyncio.open_connection(
                target_host, int(target_port))
        except OSError:
            client_writer.close()
            return
        await asyncio.gather(pipe(client_reader, server_writer, delay),
                             pipe(server_reader, client_writer, delay),
                             return_exceptions=True)

    server = await asyncio.start_server(serve, listen_host, int(listen_port))
    print("ready", flush=True)
    async with server:
        await server.serve_forever()


asyncio.run(main())
