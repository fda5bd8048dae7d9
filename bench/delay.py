"""A proxy on loopback that holds back what its clients send: delay.py PORT TARGET_PORT MILLISECONDS"""
import socket
import sys
import threading
import time

port, target, delay = (int(word) for word in sys.argv[1:4])


def pump(source, sink, wait):
    try:
        while data := source.recv(65536):
            time.sleep(wait)
            sink.sendall(data)
    except OSError:
        pass
    for end in (source, sink):
        try:
            end.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


listener = socket.create_server(("127.0.0.1", port))
while True:
    client, _ = listener.accept()
    server = socket.create_connection(("127.0.0.1", target))
    for end in (client, server):
        end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    threading.Thread(target=pump, args=(client, server, delay / 1000), daemon=True).start()
    threading.Thread(target=pump, args=(server, client, 0), daemon=True).start()
