#!/usr/bin/env python3
"""A TCP relay that delays every byte by a fixed time in each direction.

This kernel has no netem (tc qdisc ... netem), so a link with a round trip
of 2 x DELAY is made in user space: each chunk read on one side is written
to the other DELAY seconds after it was read, in order, however much is in
flight (no bandwidth limit, no loss).

    delay_relay.py LISTEN_HOST LISTEN_PORT TARGET_HOST TARGET_PORT DELAY_MS
"""

import collections
import socket
import sys
import threading
import time


def pump(source, sink, delay):
    """Reads from `source`, writes each chunk to `sink` `delay` s later."""
    pending = collections.deque()
    ready = threading.Condition()
    done = [False]

    def writer():
        while True:
            with ready:
                while not pending and not done[0]:
                    ready.wait()
                if not pending:
                    break
                due, data = pending.popleft()
            wait = due - time.monotonic()
            if wait > 0:
                time.sleep(wait)
            try:
                sink.sendall(data)
            except OSError:
                break
        try:
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass

    thread = threading.Thread(target=writer, daemon=True)
    thread.start()
    while True:
        try:
            data = source.recv(65536)
        except OSError:
            data = b""
        with ready:
            if data:
                pending.append((time.monotonic() + delay, data))
            else:
                done[0] = True
            ready.notify()
        if not data:
            break
    thread.join()


def serve(client, target, delay):
    try:
        upstream = socket.create_connection(target, timeout=5)
    except OSError:
        client.close()
        return
    upstream.settimeout(None)
    for sock in (client, upstream):
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    there = threading.Thread(target=pump, args=(client, upstream, delay), daemon=True)
    back = threading.Thread(target=pump, args=(upstream, client, delay), daemon=True)
    there.start()
    back.start()
    there.join()
    back.join()
    client.close()
    upstream.close()


def main():
    listen_host, listen_port, target_host, target_port, delay_ms = sys.argv[1:6]
    delay = int(delay_ms) / 1000.0
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((listen_host, int(listen_port)))
    listener.listen(16)
    print("relaying", flush=True)
    while True:
        client, _ = listener.accept()
        threading.Thread(target=serve, args=(client, (target_host, int(target_port)), delay),
                         daemon=True).start()


if __name__ == "__main__":
    main()
