#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Stands for a supervisor: supervisor.py SOCKET prints "bound", then the first datagram that comes.

A name with '@' in front is an abstract one.
"""
import socket
import sys

name = sys.argv[1]
with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as bound:
    bound.bind("\0" + name[1:] if name[0] == "@" else name)
    bound.settimeout(60)
    print("bound", flush=True)
    print(bound.recv(4096).decode(), flush=True)
