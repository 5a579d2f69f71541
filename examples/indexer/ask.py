#!/usr/bin/env python3
"""ask.py SOCKET WORD...: puts one question to the demo agent and prints its answer."""
import socket
import sys

with socket.socket(socket.AF_UNIX) as connection:
    connection.connect(sys.argv[1])
    stream = connection.makefile("rw", errors="replace")
    stream.write(" ".join(sys.argv[2:]) + "\n")
    stream.flush()
    for line in stream:
        if line == ".\n":
            break
        sys.stdout.write(line)
