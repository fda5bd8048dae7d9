"""Viewers of `flvhost serve`, each of whose bytes are checked, beside nginx that serves the same file.

usage: bench/serve.py [FLVHOST] [SECONDS]     needs nginx; works on loopback alone and ends by itself
"""
import os
import selectors
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

FLVHOST = os.path.realpath(sys.argv[1] if len(sys.argv) > 1 else "build/release/host/flvhost")
SECONDS = float(sys.argv[2]) if len(sys.argv) > 2 else 10
NGINX_PORT = 18911


def tag(kind, when, data):
    return (struct.pack(">BI", kind, len(data))[0:1] + struct.pack(">I", len(data))[1:] + struct.pack(">I", when)[1:] +
            bytes([when >> 24]) + b"\0\0\0" + data + struct.pack(">I", len(data) + 11))


HEADER = b"FLV\x01\x01\0\0\0\x09\0\0\0\0"


def make_film(path, seconds, rate):
    """25 frames a second, `rate` bits a second."""
    noise = os.urandom(1 << 20)
    size = rate // 8 // 25
    with open(path, "wb") as out:
        out.write(HEADER)
        for i in range(seconds * 25):
            at = i * 7919 % (len(noise) - size)
            out.write(tag(9, i * 40, (b"\x12" if i % 50 == 0 else b"\x22") + noise[at:at + size]))
    os.utime(path, (1, 1))


def connect(port, path):
    client = socket.create_connection(("127.0.0.1", port))
    client.sendall(f"GET {path} HTTP/1.0\r\n\r\n".encode())
    head = b""
    while b"\r\n\r\n" not in head:
        head += client.recv(1)
    assert b" 200 " in head.split(b"\r\n")[0], head
    return client


class Usage:
    """CPU time and memory of a server while a measurement runs."""

    def __init__(self, pid):
        self.pid = pid
        self.cpu = self.now()
        self.rss = self.memory()

    def now(self):
        fields = open(f"/proc/{self.pid}/stat").read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory(self):
        for line in open(f"/proc/{self.pid}/status"):
            if line.startswith("VmRSS"):
                return int(line.split()[1])


def one_viewer(name, port, film):
    best = 0
    for _ in range(3):
        client = connect(port, "/film.flv")
        got, begin, same, view = 0, time.monotonic(), True, memoryview(film)
        buffer = bytearray(1 << 20)
        while size := client.recv_into(buffer):
            same &= view[got:got + size] == memoryview(buffer)[:size]
            got += size
        best = max(best, got / (time.monotonic() - begin))
        assert same and got == len(film), "other bytes"
    print(f"one viewer, {name:8} {best / 1e6:8.0f} MB/s")
    return best


def many_viewers(name, port, pid, film, rate, count):
    """Each takes bytes at `rate` (bytes a second) for SECONDS."""
    selector = selectors.EpollSelector()
    for _ in range(count):
        client = connect(port, "/film.flv")
        client.setblocking(False)
        selector.register(client, selectors.EVENT_READ, [0])
    usage, begin, view = Usage(pid), time.monotonic(), memoryview(film)
    buffer = bytearray(256 << 10)
    most_behind, peak = 0.0, 0
    while (elapsed := time.monotonic() - begin) < SECONDS:
        due = int(elapsed * rate)
        for key, _ in selector.select(0.02):
            state = key.data
            if (want := min(due - state[0], len(buffer))) <= 0:
                continue
            try:
                size = key.fileobj.recv_into(buffer, want)
            except BlockingIOError:
                continue
            assert size and view[state[0]:state[0] + size] == memoryview(buffer)[:size], "other bytes"
            state[0] += size
        time.sleep(0.01)
        peak = max(peak, usage.memory())
    elapsed = time.monotonic() - begin
    taken = [key.data[0] for key in selector.get_map().values()]
    short = min(taken) / (elapsed * rate)
    cpu = usage.now() - usage.cpu
    print(f"{count} viewers, {name:8} {sum(taken) / elapsed / 1e6:8.0f} MB/s; the slowest got {short:.2f} of what was due; "
          f"{cpu / elapsed / count * 1e3:.3f} ms of CPU a second and viewer; {(peak - usage.rss) / count:.0f} KiB a viewer")
    for key in list(selector.get_map().values()):
        key.fileobj.close()


def live_viewers(port, pid, count):
    """A tag every 10 ms that tells when it was sent."""
    stop = threading.Event()
    sent = 0

    def publish():
        nonlocal sent
        client = socket.create_connection(("127.0.0.1", port))
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        client.sendall(f"PUT /live{count}.flv HTTP/1.1\r\nContent-Length: 999999999\r\n\r\n".encode() + HEADER)
        begin = time.monotonic()
        while not stop.is_set():
            body = b"\x12" + struct.pack(">Qd", sent, time.monotonic()) + bytes(5000)
            client.sendall(tag(9, sent * 10 + 1, body))
            sent += 1
            time.sleep(max(0, begin + sent * 0.01 - time.monotonic()))
        client.close()

    publisher = threading.Thread(target=publish)
    publisher.start()
    time.sleep(1)
    selector = selectors.EpollSelector()
    for _ in range(count):
        client = connect(port, f"/live{count}.flv?from=-0.1s")
        client.setblocking(False)
        selector.register(client, selectors.EVENT_READ, [bytearray(), None, True])
    usage, delays = Usage(pid), []
    begin = time.monotonic()
    while time.monotonic() - begin < SECONDS:
        for key, _ in selector.select(0.1):
            state = key.data
            data, now = key.fileobj.recv(256 << 10), time.monotonic()
            assert data, "a viewer was left alone"
            state[0] += data
            if state[2]:
                if len(state[0]) < 13:
                    continue
                del state[0][:13]
                state[2] = False
            while len(state[0]) >= 32:
                size = int.from_bytes(state[0][1:4], "big") + 15
                if len(state[0]) < size:
                    break
                if state[0][0] == 9:  # Not the metadata in front.
                    number, then = struct.unpack(">Qd", state[0][12:28])
                    assert state[1] is None or number == state[1] + 1, "a tag is missing or out of order"
                    if now - begin > 1:
                        delays.append(now - then)
                    state[1] = number
                del state[0][:size]
    elapsed, cpu = time.monotonic() - begin, usage.now() - usage.cpu
    stop.set()
    publisher.join()
    delays.sort()
    slow = min(key.data[1] or 0 for key in selector.get_map().values())
    print(f"{count} viewers of a live stream, 10 ms flushes: delay {statistics.median(delays) * 1e3:.1f} ms at the median, "
          f"{delays[len(delays) * 99 // 100] * 1e3:.1f} ms at p99, {delays[-1] * 1e3:.0f} ms at most; {len(delays)} tags checked, "
          f"the slowest viewer {sent - slow} tags behind the publisher; {cpu / elapsed / count * 1e3:.3f} ms of CPU a second and "
          f"viewer; {(usage.memory() - usage.rss) / count:.0f} KiB a viewer")


def main():
    with tempfile.TemporaryDirectory() as work:
        os.chmod(work, 0o755)
        rate = 120_000
        path = os.path.join(work, "film.flv")
        make_film(path, 7200, rate)
        film = open(path, "rb").read()
        conf = os.path.join(work, "nginx.conf")
        open(conf, "w").write(
            f"worker_processes 1; daemon off; pid {work}/pid; error_log {work}/error.log; events {{ worker_connections 4096; }}"
            f"http {{ access_log off; sendfile on; server {{ listen 127.0.0.1:{NGINX_PORT}; root {work}; }} }}")
        nginx = subprocess.Popen(["nginx", "-c", conf])
        server = subprocess.Popen([FLVHOST, "serve", work, "--listen", "127.0.0.1:0", "--allow-publish", "--flush-every", "10ms"],
                                  stdout=subprocess.PIPE, text=True)
        try:
            port = int(server.stdout.readline().rsplit(":", 1)[1].strip(" /\n"))
            time.sleep(1)
            worker = int(subprocess.check_output(["pgrep", "-P", str(nginx.pid)], text=True).split()[0])
            theirs, ours = one_viewer("nginx", NGINX_PORT, film), one_viewer("flvhost", port, film)
            print(f"one viewer: flvhost at {ours / theirs:.2f} of nginx")
            for name, at, pid in (("nginx", NGINX_PORT, worker), ("flvhost", port, server.pid)):
                many_viewers(name, at, pid, film, rate // 8 * 8, 500)
            for count in (20, 200):
                live_viewers(port, server.pid, count)
        finally:
            server.terminate()
            nginx.terminate()
            server.wait()
            nginx.wait()


main()
