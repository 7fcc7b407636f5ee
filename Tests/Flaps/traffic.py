"""An application that never rests: 500 datagrams and up to 500 segments a second, in both families, for so many
seconds (fewer on a slow machine). Every tenth datagram comes from a socket of its own, so that there are first
packets all the time; a connection that ends or gets nowhere is made again. Twenty a second are given up as soon
as they are begun.

usage: traffic.py IPV4 IPV6 DATAGRAM-PORT STREAM-PORT SECONDS fleeting|lasting

A fleeting socket is closed as soon as it has sent; a lasting one stays open for a second.
"""

import collections
import contextlib
import os
import socket
import sys
import time

# How many times slower this machine is than usual: it would have no time for its VPN otherwise.
SLOWNESS = float(os.environ.get("LAB_PATIENCE", 1))
PERIOD, PATIENCE, PAUSE = 0.002 * SLOWNESS, 0.1 * SLOWNESS, 0.02 * SLOWNESS
LASTING = 100
BYTES = b"0123456789abcdef"


class Stream:
    """One connection, made again and again; nothing here waits."""

    def __init__(self, family: int, place: tuple):
        self.family, self.place = family, place
        self.socket: socket.socket | None = None
        self.is_connected, self.since = False, 0.0

    def turn(self, now: float) -> None:
        if self.socket is None:
            if now - self.since > PAUSE:
                self._begin(now)
        elif self.is_connected:
            self._send(now)
        else:
            self._look(now)

    def _begin(self, now: float) -> None:
        self.socket, self.since, self.is_connected = socket.socket(self.family, socket.SOCK_STREAM), now, False
        self.socket.setblocking(False)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # One that outlived a gap would be at work again only when its own timer has run out.
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT, int(1000 * PATIENCE))
        try:
            self.socket.connect(self.place)
        except BlockingIOError:
            pass
        except OSError:
            self._end(now)

    def _look(self, now: float) -> None:
        try:
            self.socket.getpeername()
            self.is_connected = True
        except OSError:
            if self.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) != 0 or now - self.since > PATIENCE:
                self._end(now)

    def _send(self, now: float) -> None:
        with contextlib.suppress(BlockingIOError):
            try:
                self.socket.send(BYTES)
                self.since = now
                return
            except BlockingIOError:
                # What was sent is not confirmed any more.
                if now - self.since > PATIENCE:
                    self._end(now)
            except OSError:
                self._end(now)

    def _end(self, now: float) -> None:
        self.socket.close()
        self.socket, self.since = None, now


def give_up(family: int, place: tuple) -> None:
    """Its opening may still wait for a verdict when its socket is gone."""
    with contextlib.suppress(OSError), socket.socket(family, socket.SOCK_STREAM) as begun:
        begun.setblocking(False)
        begun.connect(place)


def main() -> None:
    ipv4, ipv6, datagram_port, stream_port, seconds = *sys.argv[1:3], *map(int, sys.argv[3:6])
    kept: collections.deque[socket.socket] = collections.deque(maxlen=LASTING if sys.argv[6] == "lasting" else 0)
    places = ((socket.AF_INET, ipv4), (socket.AF_INET6, ipv6))
    places_of_streams = [(address, stream_port) for _, address in places]
    streams = [Stream(family, place) for (family, _), place in zip(places, places_of_streams)]
    standing = [socket.socket(family, socket.SOCK_DGRAM) for family, _ in places]
    end = time.monotonic() + seconds
    number = 0
    while (now := time.monotonic()) < end:
        number += 1
        which = number % 2
        family, address = places[which]
        sender = socket.socket(family, socket.SOCK_DGRAM) if number % 10 < 2 else standing[which]
        with contextlib.suppress(OSError):
            sender.sendto(BYTES, (address, datagram_port))
        if sender is not standing[which]:
            # Closed when it is the oldest of them.
            kept.append(sender)
        streams[which].turn(now)
        if number % 50 < 2 and sys.argv[6] == "fleeting":
            give_up(family, places_of_streams[which])
        time.sleep(max(0.0, PERIOD - (time.monotonic() - now)))


if __name__ == "__main__":
    main()
