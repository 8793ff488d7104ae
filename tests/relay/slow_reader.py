#!/usr/bin/env python3
"""A receiver that cannot keep up: reads a TCP stream into a file at RATE bytes per
second, with a small receive buffer so that the sender falls behind instead of the
kernel queueing for it. Stops at the end of the stream or after LIMIT seconds.
usage: slow_reader.py PORT FILE RATE LIMIT"""
import socket
import sys
import time

port, path, rate, limit = int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), float(sys.argv[4])
step = 0.02
chunk = max(1, int(rate * step))
deadline = time.monotonic() + limit
sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
sock.connect(("127.0.0.1", port))
with open(path, "wb") as out:
    while time.monotonic() < deadline:
        sock.settimeout(max(0.01, deadline - time.monotonic()))
        try:
            data = sock.recv(chunk)
        except socket.timeout:
            break
        if not data:
            break
        out.write(data)
        time.sleep(step)
sock.close()
