#!/usr/bin/python3
"""An HTTP/1.1 server for the HAR and report tests, run without the agent: what it received and
sent on each connection is the reference a recording must equal, byte for byte.

usage: http_server.py DIRECTORY
It writes its port to DIRECTORY/port (whole, by a rename) and serves every connection in a
thread of its own, request after request (keep-alive, pipelining) until the client closes. When a
connection ends it writes what it received to in-N and what it sent to out-N, N counting accepted
connections from 0, then creates done-N. A request with "Connection: close" is its connection's
last. A connection whose first bytes are not an HTTP request is echoed back, so that the tests
have a conversation that is not HTTP beside the others.

Paths:
  /text                 a short text, with a cookie
  /gzip-chunked         a text compressed with gzip, sent in chunks
  /close                a text whose end is the end of the connection
  /upload (POST)        answers with the length and SHA-256 of the body it read (Content-Length
                        or chunked), after 100 Continue when the request expects it
  /nocontent            204, no body
  /truncated            a response cut off inside its headers, then the connection closed
  /nocolon              a header line without a colon
  /short                a body shorter than its Content-Length, then the connection closed
Every wait is bounded."""
import gzip
import hashlib
import os
import socket
import sys
import threading

directory = sys.argv[1]
listener = socket.socket()
listener.bind(('127.0.0.1', 0))
listener.listen(64)
with open(os.path.join(directory, 'port.part'), 'w') as f:
    f.write('%d\n' % listener.getsockname()[1])
os.rename(os.path.join(directory, 'port.part'), os.path.join(directory, 'port'))

TEXT = b'hello from /text\n'
LONG_TEXT = b''.join(b'line %d of a text that compresses well\n' % i for i in range(2000))
CLOSE_TEXT = b'until the end of the connection\n' * 100


class Connection:
    def __init__(self, sock):
        self.sock = sock
        self.received = b''
        self.buffer = b''
        self.sent = b''

    def more(self):
        chunk = self.sock.recv(65536)
        self.received += chunk
        self.buffer += chunk
        return bool(chunk)

    def line(self):
        while b'\n' not in self.buffer:
            if not self.more():
                return None
        line, _, self.buffer = self.buffer.partition(b'\n')
        return line.rstrip(b'\r')

    def exactly(self, n):
        while len(self.buffer) < n:
            if not self.more():
                break
        data, self.buffer = self.buffer[:n], self.buffer[n:]
        return data

    def send(self, data):
        self.sock.sendall(data)
        self.sent += data


def read_body(conn, headers):
    if headers.get(b'transfer-encoding', b'').lower() == b'chunked':
        body = b''
        while True:
            size = int(conn.line().split(b';')[0], 16)
            if size == 0:
                while conn.line():
                    pass
                return body
            body += conn.exactly(size)
            conn.line()
    return conn.exactly(int(headers.get(b'content-length', b'0')))


def respond(conn, method, path, headers):
    """Answers one request; False when the connection is to close."""
    if path == '/upload':
        if headers.get(b'expect', b'').lower() == b'100-continue':
            conn.send(b'HTTP/1.1 100 Continue\r\n\r\n')
        body = read_body(conn, headers)
        answer = b'{"received":%d,"sha256":"%s"}' % (len(body), hashlib.sha256(body).hexdigest().encode())
        conn.send(b'HTTP/1.1 201 Created\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n' %
                  len(answer) + answer)
        return True
    read_body(conn, headers)
    if path.startswith('/text'):
        head = (b'HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\n'
                b'Set-Cookie: session=abc123; Path=/; HttpOnly\r\nContent-Length: %d\r\n\r\n' % len(TEXT))
        conn.send(head + (b'' if method == b'HEAD' else TEXT))
        return True
    if path == '/gzip-chunked':
        packed = gzip.compress(LONG_TEXT, mtime=0)
        conn.send(b'HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Encoding: gzip\r\n'
                  b'Transfer-Encoding: chunked\r\n\r\n')
        for i in range(0, len(packed), 1000):
            piece = packed[i:i + 1000]
            conn.send(b'%x\r\n' % len(piece) + piece + b'\r\n')
        conn.send(b'0\r\n\r\n')
        return True
    if path == '/close':
        conn.send(b'HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n' + CLOSE_TEXT)
        return False
    if path == '/nocontent':
        conn.send(b'HTTP/1.1 204 No Content\r\n\r\n')
        return True
    if path == '/truncated':
        conn.send(b'HTTP/1.1 200 OK\r\nContent-Ty')
        return False
    if path == '/nocolon':
        conn.send(b'HTTP/1.1 200 OK\r\nThis line has no colon\r\nContent-Length: 2\r\n\r\nok')
        return True
    if path == '/short':
        conn.send(b'HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten b')
        return False
    conn.send(b'HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n')
    return True


def serve(sock, n):
    sock.settimeout(60)
    conn = Connection(sock)
    try:
        while conn.more() or conn.buffer:
            if not conn.buffer[:1].isalpha() or b' ' not in conn.buffer[:16]:
                # Not HTTP: echoed.
                conn.send(conn.buffer)
                conn.buffer = b''
                continue
            while conn.buffer:
                request = conn.line()
                if request is None:
                    break
                method, target, _ = request.split(b' ', 2)
                headers = {}
                while True:
                    line = conn.line()
                    if not line:
                        break
                    name, _, value = line.partition(b':')
                    headers[name.strip().lower()] = value.strip()
                if not respond(conn, method, target.decode().split('?')[0], headers):
                    raise EOFError
                if headers.get(b'connection', b'').lower() == b'close':
                    raise EOFError
    except (OSError, EOFError, ValueError, AttributeError) as error:
        if not isinstance(error, EOFError):
            sys.stderr.write('connection %d: %r\n' % (n, error))
    finally:
        sock.close()
    for name, data in (('in', conn.received), ('out', conn.sent)):
        with open(os.path.join(directory, '%s-%d' % (name, n)), 'wb') as f:
            f.write(data)
    open(os.path.join(directory, 'done-%d' % n), 'w').close()


listener.settimeout(300)
n = 0
while True:
    try:
        sock, _ = listener.accept()
    except OSError:
        break
    threading.Thread(target=serve, args=(sock, n), daemon=True).start()
    n += 1
