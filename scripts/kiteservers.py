#!/usr/bin/env python3
"""The network that KITEUpdate talks to, on loopback addresses only, for the tests and the main job.

  config     HTTPS: serves <share>/config/SplunkConfig.xml for any path (404 when it is absent)
  restore    plain HTTP: serves <share>/restore/restorekite.ini for any path (404 when absent)
  collector  HTTPS on port 443: answers 200 with a reply of 1200 bytes and closes the connection,
             or behaves as <share>/control/collector-mode names (one word):
               keepalive  answers and keeps the connection open (idle for at most 30 s)
               silent     finishes the TLS handshake, never answers
               notls      accepts, never starts the TLS handshake
               refuse     closes each connection as it is accepted
               error500   answers 500 and closes
             silent and notls hold a connection for the seconds in control/collector-hold (300
             when absent). The older switches control/collector-keepalive and
             control/collector-silent (holding for the seconds it names) still work.

Every accepted connection leaves <share>/connections/<server>-<n>, and every request is kept raw
(request line, headers in order, body) as <share>/requests/<server>-<n>.http before it is
answered, so that a client that got its answer can read what the server saw. The addresses are
written last to <share>/addresses.ini, which tells that the servers are up. The process ends by
itself after --lifetime seconds, or as soon as the pid file no longer names it.
"""
import argparse
import itertools
import os
import socketserver
import ssl
import threading
import time

COLLECTOR_REPLY = b'{"text":"Success","code":0}' + b" " * (1200 - 27)
MAX_HEAD = 65536
IDLE_SECONDS = 30
HOLD_SECONDS = 300
counter = itertools.count(1)


def write_atomically(path, data):
    partial = path + ".part"
    with open(partial, "wb") as out:
        out.write(data)
    os.replace(partial, path)


def read_request(conn, pending):
    """One raw request from the connection, or None at its end."""
    while b"\r\n\r\n" not in pending:
        chunk = conn.recv(65536)
        if not chunk or len(pending) > MAX_HEAD:
            return None, b""
        pending += chunk
    head_end = pending.index(b"\r\n\r\n") + 4
    length = 0
    for line in pending[:head_end].split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.strip().lower() == b"content-length":
            length = int(value.strip())
    while len(pending) < head_end + length:
        chunk = conn.recv(65536)
        if not chunk:
            return None, b""
        pending += chunk
    return pending[: head_end + length], pending[head_end + length :]


def control(share, name):
    try:
        with open(os.path.join(share, "control", name)) as source:
            return source.read().strip()
    except OSError:
        return None


def collector_mode(share):
    mode = control(share, "collector-mode") or ""
    if control(share, "collector-keepalive") is not None:
        mode = "keepalive"
    return mode


def hold(share, seconds):
    deadline = time.time() + seconds
    while time.time() < deadline:
        time.sleep(0.05)


def hold_seconds(share):
    try:
        return float(control(share, "collector-hold") or HOLD_SECONDS)
    except ValueError:
        return HOLD_SECONDS


def make_handler(name, share, tls, respond):
    class Handler(socketserver.BaseRequestHandler):
        def handle(self):
            conn = self.request
            conn.settimeout(IDLE_SECONDS)
            write_atomically(os.path.join(share, "connections", f"{name}-{next(counter):06d}"), b"")
            mode = collector_mode(share) if name == "collector" else ""
            if mode == "refuse":
                return
            if mode == "notls":
                return hold(share, hold_seconds(share))
            try:
                if tls:
                    conn = tls.wrap_socket(conn, server_side=True)
                pending = b""
                while True:
                    raw, pending = read_request(conn, pending)
                    if raw is None:
                        return
                    number = next(counter)
                    write_atomically(os.path.join(share, "requests", f"{name}-{number:06d}.http"), raw)
                    if not respond(conn):
                        return
            except (OSError, ssl.SSLError, ValueError):
                return

    return Handler


def file_responder(path, extra_headers=b""):
    def respond(conn):
        try:
            with open(path, "rb") as source:
                body, status = source.read(), b"200 OK"
        except OSError:
            body, status = b"not found", b"404 Not Found"
        conn.sendall(b"HTTP/1.1 " + status + b"\r\nContent-Length: " + str(len(body)).encode() +
                     b"\r\n" + extra_headers + b"\r\n" + body)
        return True

    return respond


def collector_responder(share):
    def respond(conn):
        mode = collector_mode(share)
        if mode == "silent":
            hold(share, hold_seconds(share))
            return False
        if mode == "error500":
            conn.sendall(b"HTTP/1.1 500 Internal Server Error\r\nContent-Length: 5\r\n"
                         b"Connection: close\r\n\r\nerror")
            return False
        control = os.path.join(share, "control")
        silent = os.path.join(control, "collector-silent")
        try:
            with open(silent) as held:
                deadline = time.time() + float(held.read().strip() or HOLD_SECONDS)
        except (OSError, ValueError):
            deadline = time.time() + HOLD_SECONDS
        while os.path.exists(silent):
            if time.time() > deadline:
                return False
            time.sleep(0.05)
        keep = mode == "keepalive"
        conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                     str(len(COLLECTOR_REPLY)).encode() +
                     (b"\r\n" if keep else b"\r\nConnection: close\r\n") + b"\r\n" +
                     COLLECTOR_REPLY)
        return keep

    return respond


class Server(socketserver.ThreadingMixIn, socketserver.TCPServer):
    daemon_threads = True
    allow_reuse_address = True


def serve(address, handler):
    server = Server(address, handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def start_collector(hosts, handler):
    for host in hosts:
        try:
            return serve((host, 443), handler), host
        except OSError:
            continue
    raise SystemExit("no free loopback address for the collector on port 443")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--share", required=True)
    parser.add_argument("--chain", required=True, help="server certificate followed by the CA")
    parser.add_argument("--key", required=True)
    parser.add_argument("--collector-hosts", required=True)
    parser.add_argument("--pidfile", required=True)
    parser.add_argument("--lifetime", type=float, default=900)
    args = parser.parse_args()
    share = args.share
    write_atomically(args.pidfile, str(os.getpid()).encode())
    for folder in ("config", "restore", "requests", "connections", "control"):
        os.makedirs(os.path.join(share, folder), exist_ok=True)
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(args.chain, args.key)

    config = serve(("127.0.0.1", 0), make_handler(
        "config", share, tls, file_responder(os.path.join(share, "config", "SplunkConfig.xml"))))
    restore = serve(("127.0.0.1", 0), make_handler(
        "restore", share, None, file_responder(os.path.join(share, "restore", "restorekite.ini"),
                                               b"Cache-Control: no-store\r\n")))
    _, collector_host = start_collector(args.collector_hosts.split(","), make_handler(
        "collector", share, tls, collector_responder(share)))
    write_atomically(os.path.join(share, "addresses.ini"), (
        "[servers]\r\n"
        f"config=127.0.0.1:{config.server_address[1]}\r\n"
        f"restore=127.0.0.1:{restore.server_address[1]}\r\n"
        f"collector={collector_host}\r\n").encode())

    deadline = time.time() + args.lifetime
    while time.time() < deadline:
        try:
            with open(args.pidfile) as pidfile:
                if pidfile.read().strip() != str(os.getpid()):
                    break
        except OSError:
            break
        time.sleep(0.5)
    os._exit(0)


if __name__ == "__main__":
    main()
