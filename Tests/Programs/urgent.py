"""A client that sends urgent data in the middle of ordinary data, and prints the answer."""

import socket
import sys

with socket.create_connection((sys.argv[1], int(sys.argv[2])), timeout=10) as connection:
    connection.sendall(b"before ")
    connection.send(b"!", socket.MSG_OOB)
    connection.sendall(b" after")
    connection.shutdown(socket.SHUT_WR)
    while piece := connection.recv(4096):
        print(piece)
