"""The internet of the demo: all that is not the router.

It is the machine's own network, where relay and owner are. The router leaves it for one of its own,
and meets it again at the far end of its uplink.
"""

import asyncio
import threading
from concurrent.futures import ThreadPoolExecutor

PIECE = 65536


class Internet:
    """Make it before the network is left: its threads stay where they were born."""

    def __init__(self):
        self._dweller = ThreadPoolExecutor(max_workers=1)
        self.run(int)  # now it lives there
        self._roads = asyncio.new_event_loop()
        threading.Thread(target=self._roads.run_forever, daemon=True).start()
        self._road = None

    def run(self, action, *arguments):
        """What `action` returns, done out there; a program that it starts stays there."""
        return self._dweller.submit(action, *arguments).result()

    def lead(self, listener, address, port):
        """From now on who connects to `listener`, and to no earlier one, comes to address:port."""
        asyncio.run_coroutine_threadsafe(self._lead(listener, address, port), self._roads).result()

    async def _lead(self, listener, address, port):
        async def carry(reader, writer):
            try:
                far_reader, far_writer = await asyncio.open_connection(address, port)
            except OSError:
                writer.close()
                return
            await asyncio.gather(_pump(reader, far_writer), _pump(far_reader, writer))

        if self._road:
            self._road.close()
        self._road = await asyncio.start_server(carry, sock=listener)


async def _pump(reader, writer):
    try:
        while piece := await reader.read(PIECE):
            writer.write(piece)
            await writer.drain()
    except OSError:
        pass
    writer.close()
