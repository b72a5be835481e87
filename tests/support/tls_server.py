#!/usr/bin/python3
"""A TLS server for the tests, run without the agent: what its TLS layer received and sent on
each connection is the reference a recording's plaintext must equal, byte for byte.

usage: tls_server.py DIRECTORY CONNECTIONS RESPONSE_BODY_BYTES [ANSWER_DELAY_SECONDS]
DIRECTORY holds cert.pem and key.pem; the server writes its port to DIRECTORY/port (whole, by a
rename), then serves CONNECTIONS connections one after the other: it reads a request (its head,
and a body of Content-Length bytes), answers with a body of RESPONSE_BODY_BYTES bytes, closes,
and writes what it received to in-N and what it sent to out-N. Every wait is bounded. With a
delay, it waits that long before it answers: a non-blocking client then certainly waits for it."""
import os
import socket
import ssl
import sys
import time

directory, connections, body_bytes = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
answer_delay = float(sys.argv[4]) if len(sys.argv) > 4 else 0
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(os.path.join(directory, 'cert.pem'), os.path.join(directory, 'key.pem'))
listener = socket.socket()
listener.bind(('127.0.0.1', 0))
listener.listen(8)
listener.settimeout(60)
with open(os.path.join(directory, 'port.part'), 'w') as f:
    f.write('%d\n' % listener.getsockname()[1])
os.rename(os.path.join(directory, 'port.part'), os.path.join(directory, 'port'))


def read_request(tls):
    data = b''
    while b'\r\n\r\n' not in data:
        chunk = tls.recv(65536)
        if not chunk:
            return data
        data += chunk
    head, _, rest = data.partition(b'\r\n\r\n')
    length = 0
    for line in head.split(b'\r\n')[1:]:
        name, _, value = line.partition(b':')
        if name.strip().lower() == b'content-length':
            length = int(value)
    while len(rest) < length:
        chunk = tls.recv(65536)
        if not chunk:
            break
        rest += chunk
    return head + b'\r\n\r\n' + rest


for n in range(connections):
    plain, _ = listener.accept()
    plain.settimeout(60)
    received, sent = b'', b''
    try:
        tls = context.wrap_socket(plain, server_side=True)
        received = read_request(tls)
        time.sleep(answer_delay)
        body = bytes((b'0123456789abcdef'[i % 16] for i in range(body_bytes)))
        sent = b'HTTP/1.1 200 OK\r\nContent-Length: %d\r\nConnection: close\r\n\r\n' % len(body) + body
        tls.sendall(sent)
        tls.close()
    except (ssl.SSLError, OSError) as error:
        sys.stderr.write('connection %d: %s\n' % (n, error))
        plain.close()
    with open(os.path.join(directory, 'in-%d' % n), 'wb') as f:
        f.write(received)
    with open(os.path.join(directory, 'out-%d' % n), 'wb') as f:
        f.write(sent)
