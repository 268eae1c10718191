"""A proxy as bad as networks have them: it cuts connections, delays and chops what goes through, and forgets
connections without a word. Its argument is a JSON object; "wild" and "calm" on its input are answered.
With "seconds" it is the far end of a line that takes so long one way."""

import asyncio
import json
import random
import sys

settings = json.loads(sys.argv[1])
chance = random.Random(settings["seed"])
is_wild = False
ended = asyncio.Event()
PIECES = 64  # of a pump that may be on a far line at a time


class Passage:
    """One connection of a page and the one to the gateway."""

    def __init__(self, page, gateway):
        self.ends = [page[1].transport, gateway[1].transport]
        self.is_open = asyncio.Event()
        self.is_open.set()
        self.piece = 65536
        self.pumps = [asyncio.create_task(self.pump(page[0], gateway[1])),
                      asyncio.create_task(self.pump(gateway[0], page[1]))]

    async def pump(self, source, sink):
        while data := await source.read(self.piece):
            await self.is_open.wait()
            sink.write(data)
            await sink.drain()

    async def suffer(self):
        while True:
            await asyncio.sleep(chance.uniform(0.2, 1.5))
            if not is_wild:
                continue
            match chance.randrange(5):
                case 0:  # cut
                    return
                case 1:  # half-open: one end is gone, the other one hears nothing
                    chance.choice(self.ends).abort()
                    self.is_open.clear()
                    return await asyncio.sleep(4)
                case 2:  # forgotten: both ends hear nothing
                    self.is_open.clear()
                    return await asyncio.sleep(4)
                case 3:
                    self.is_open.clear()
                    await asyncio.sleep(chance.uniform(0.05, 0.6))
                    self.is_open.set()
                case 4:
                    self.piece = chance.choice([1000, 5000, 65536])

    async def run(self):
        suffering = asyncio.create_task(self.suffer())
        await asyncio.wait([suffering, *self.pumps], return_when=asyncio.FIRST_COMPLETED)
        while suffering.done() is False and not self.is_open.is_set():
            await asyncio.sleep(0.1)  # what was forgotten stays so, whoever has gone
        for task in (suffering, *self.pumps):
            task.cancel()
        for end in self.ends:
            end.abort()


class FarPassage(Passage):
    async def pump(self, source, sink):
        under_way = asyncio.Queue(PIECES)
        arriving = asyncio.create_task(self.arrive(under_way, sink))
        try:
            while data := await source.read(self.piece):
                await under_way.put((asyncio.get_running_loop().time() + settings["seconds"], data))
            await under_way.join()
        finally:
            arriving.cancel()

    async def arrive(self, under_way, sink):
        while True:
            due, data = await under_way.get()
            await asyncio.sleep(due - asyncio.get_running_loop().time())
            sink.write(data)
            await sink.drain()
            under_way.task_done()


async def serve(*page):
    try:
        kind = FarPassage if "seconds" in settings else Passage
        await kind(page, await asyncio.open_connection(settings.get("host", "127.0.0.1"), settings["to"])).run()
    except OSError:
        page[1].transport.abort()


def obey():
    global is_wild
    command = sys.stdin.readline()
    if not command:
        return ended.set()
    is_wild = command == "wild\n"
    print("{}", flush=True)


async def start():
    asyncio.get_running_loop().set_exception_handler(lambda *_: None)  # of connections that were cut
    await asyncio.start_server(serve, *settings["listen"])
    asyncio.get_running_loop().add_reader(sys.stdin, obey)
    print("{}", flush=True)
    await ended.wait()


asyncio.run(start())
