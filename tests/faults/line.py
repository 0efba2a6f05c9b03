"""The line between router and relay: a TCP proxy that counts every byte and breaks at a given one.

    line = Line(listener, relay_address)
    line.start()                                  # in the network that the relay is in
    fault = line.arm(Fault(UP, 500, Road.reset))  # after the 500th byte of the standing connection
    fault.struck.wait()

One thread carries everything, each direction on its own account, so that a full one does not hold
up the other. What a fault does happens on that thread, at that byte: not one more passes before.
"""

import contextlib
import os
import queue
import select
import socket
import threading
import time

from relay_peer import reset

UP, DOWN = "up", "down"  # from the router, to the router
_PIECE = 1 << 16
_MOST_PENDING = 1 << 17
_MOST_HISTORY = 64


class Fault:
    """What befalls a connection: `act(road)`, once `at` bytes have gone in `direction`."""

    def __init__(self, direction, at, act):
        self.direction, self.at, self._act = direction, at, act
        self.struck = threading.Event()
        self.road = None

    def strike(self, road):
        self.road = road
        self._act(road)
        self.struck.set()


class _Flow:
    """One direction of a connection."""

    def __init__(self, source, sink):
        self.source, self.sink = source, sink
        self.pending = b""   # read and not yet sent
        self.sent = 0
        self.ended = False   # the source has closed
        self.closed = False  # and so have we, towards the sink

    def wants_input(self):
        return not self.ended and len(self.pending) < _MOST_PENDING


class Road:
    """One connection of the router to the relay. Its verbs run on the line's thread."""

    def __init__(self, device, relay):
        self.device, self.relay = device, relay
        self.flows = {UP: _Flow(device, relay), DOWN: _Flow(relay, device)}
        self.history = []         # the first pieces: direction and bytes
        self.opening = bytearray()  # the first bytes of the router
        self.stands = True
        self.single_bytes = 0  # so many of the next travel by themselves
        self._resumes_at = 0.0
        self.fault = None
        for each in (device, relay):
            each.setblocking(False)
            each.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    # --- what can happen to it ---

    def reset(self):
        """Both ends get a reset."""
        self.stands = False
        for each in (self.device, self.relay):
            reset(each)

    def close(self):
        """Both ends get an orderly end, without TLS's own."""
        self.stands = False
        for each in (self.device, self.relay):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_WR)
            each.close()

    def lose_device(self):
        """The router's end gets a reset; the relay's stays and never hears another byte."""
        self.stands = False
        reset(self.device)

    def lose_relay(self):
        """The other way round."""
        self.stands = False
        reset(self.relay)

    def silence(self):
        """Nothing passes any more, and nothing is closed."""
        self.stands = False

    def pause(self, seconds):
        self._resumes_at = time.monotonic() + seconds

    # --- carrying ---

    def sent(self, direction):
        return self.flows[direction].sent

    def resumes_in(self):
        return self._resumes_at - time.monotonic()

    def interests(self):
        """Descriptors and the events they are waited for with; none of those without any, which
        would report for ever that their end is gone."""
        events = {self.device.fileno(): 0, self.relay.fileno(): 0}
        for flow in self.flows.values():
            if flow.wants_input():
                events[flow.source.fileno()] |= select.POLLIN
            if flow.pending:
                events[flow.sink.fileno()] |= select.POLLOUT
        return {descriptor: each for descriptor, each in events.items() if each}

    def carry(self):
        """Reads and sends what can be, either way."""
        try:
            for direction, flow in self.flows.items():
                if flow.wants_input():
                    self._read(direction, flow)
                self._send(direction, flow)
                if not self.stands or self.resumes_in() > 0:
                    return
        except OSError:  # one end is gone
            self.reset()
            return
        if all(flow.closed for flow in self.flows.values()):
            self.stands = False
            self.device.close()
            self.relay.close()

    def _read(self, direction, flow):
        try:
            piece = flow.source.recv(_PIECE)
        except BlockingIOError:
            return
        flow.pending += piece
        flow.ended = not piece
        if len(self.history) < _MOST_HISTORY:
            self.history.append((direction, len(piece)))
            if direction == UP:
                self.opening += piece

    def _send(self, direction, flow):
        while flow.pending:
            piece = flow.pending[:1] if self.single_bytes > 0 else flow.pending
            fault = self.fault if self.fault and self.fault.direction == direction else None
            if fault:
                piece = piece[:max(1, fault.at - flow.sent)]
            try:
                count = flow.sink.send(piece)
            except BlockingIOError:
                return
            flow.sent += count
            self.single_bytes -= 1
            flow.pending = flow.pending[count:]
            if fault and flow.sent >= fault.at:
                self.fault = None
                fault.strike(self)
                if not self.stands or self.resumes_in() > 0:
                    return
        if flow.ended and not flow.closed:
            flow.closed = True
            flow.sink.shutdown(socket.SHUT_WR)


class Line:
    """Who connects to `listener` comes to `target`. Verbs may be called from any thread."""

    def __init__(self, listener, target):
        self._listener, self._target = listener, target
        self._wake = os.eventfd(0, os.EFD_NONBLOCK)
        self._orders = queue.SimpleQueue()
        self._timers = []
        self._roads = []   # that stand
        self._silent = []  # that do not, with an end that was never closed
        self._for_next = None
        self.count = 0     # connections so far
        self.last = None
        listener.setblocking(False)

    def start(self):
        threading.Thread(target=self._run, daemon=True).start()

    # --- verbs ---

    def arm(self, fault, on_next=False):
        """`on_next`: for the next connection; else for the standing one, whose count goes on from
        here. Returns the fault."""
        def put():
            if on_next:
                self._for_next = fault
            else:
                fault.at += self.last.sent(fault.direction)
                fault.road, self.last.fault = self.last, fault
        self.do(put)
        return fault

    def strike_now(self, fault):
        """Has a fault strike that is armed on a connection, if that still stands. False when it had
        struck before."""
        def strike():
            has_struck.append(fault.struck.is_set())
            fault.road.fault = None
            if not fault.struck.is_set() and fault.road.stands:
                fault.strike(fault.road)
            fault.struck.set()
        has_struck = []
        self.do(strike)
        return not has_struck[0]

    def sever(self):
        """Resets every connection that stands."""
        self.do(lambda: [road.reset() for road in self._roads])

    def lift(self):
        """Takes back what a fault has left armed, slow, or for later."""
        def take_back():
            self._for_next = None
            self._timers = []
            for road in self._roads:
                road.single_bytes, road.fault = 0, None
        self.do(take_back)

    def later(self, seconds, action):
        """The same, but later, unless it is lifted before."""
        self.do(lambda: self._timers.append((time.monotonic() + seconds, action)))

    def do(self, action):
        """Has `action` run on the line's thread, in the network that the relay is in."""
        if threading.current_thread() is self._thread:
            action()
            return
        done = threading.Event()
        self._orders.put((action, done))
        os.eventfd_write(self._wake, 1)
        assert done.wait(20), "the line's thread is stuck"

    # --- the thread ---

    def _run(self):
        self._thread = threading.current_thread()
        while True:
            self._wait()
            self._follow_orders()
            self._accept()
            for road in self._roads:
                if road.stands and road.resumes_in() <= 0:
                    road.carry()
            self._silent += [road for road in self._roads if not road.stands]
            self._roads = [road for road in self._roads if road.stands]

    _thread = None

    def _wait(self):
        poll = select.poll()
        poll.register(self._wake, select.POLLIN)
        poll.register(self._listener.fileno(), select.POLLIN)
        limits = [at - time.monotonic() for at, _ in self._timers]
        for road in self._roads:
            if road.resumes_in() > 0:
                limits.append(road.resumes_in())
                continue
            for descriptor, events in road.interests().items():
                poll.register(descriptor, events)
        poll.poll(max(0, min(limits)) * 1000 + 1 if limits else None)

    def _follow_orders(self):
        with contextlib.suppress(BlockingIOError):
            os.eventfd_read(self._wake)
        while not self._orders.empty():
            action, done = self._orders.get()
            action()
            done.set()
        now = time.monotonic()
        due = [action for at, action in self._timers if at <= now]
        self._timers = [timer for timer in self._timers if timer[0] > now]
        for action in due:
            action()

    def _accept(self):
        with contextlib.suppress(BlockingIOError):
            device, _ = self._listener.accept()
            try:
                relay = socket.create_connection(self._target, 5)
            except OSError:
                reset(device)
                return
            road = Road(device, relay)
            road.fault, self._for_next = self._for_next, None
            self._roads.append(road)
            self.last = road
            self.count += 1
