#!/usr/bin/env python3
"""Traffic of other protocols on loopback, for checking that the kplc
heuristic claims none of it: an HTTP GET, a DNS query and answer, a TLS
handshake with a little data, an SSH version exchange and key-exchange packet,
and a register read of another industrial protocol on TCP. usage: others.py CERT KEY PORT_HTTP PORT_DNS PORT_TLS PORT_SSH PORT_REGS"""
import http.server
import socket
import ssl
import struct
import sys
import threading
import urllib.request

cert, key = sys.argv[1], sys.argv[2]
p_http, p_dns, p_tls, p_ssh, p_mb = map(int, sys.argv[3:8])
LO = "127.0.0.1"


def tcp_server(port, handle):
    srv = socket.socket()
    srv.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    srv.bind((LO, port))
    srv.listen(1)

    def run():
        conn, _ = srv.accept()
        with conn:
            handle(conn)
        srv.close()
    t = threading.Thread(target=run)
    t.start()
    return t


# HTTP
class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass


httpd = http.server.HTTPServer((LO, p_http), Quiet)
threading.Thread(target=httpd.handle_request).start()
urllib.request.urlopen(f"http://{LO}:{p_http}/").read()

# DNS: a query for example.com A and an answer with one address.
dns = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
dns.bind((LO, p_dns))
question = b"\x07example\x03com\x00\x00\x01\x00\x01"
cli = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
cli.sendto(b"\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00" + question, (LO, p_dns))
query, peer = dns.recvfrom(512)
answer = b"\xc0\x0c\x00\x01\x00\x01\x00\x00\x0e\x10\x00\x04\x7f\x00\x00\x01"
dns.sendto(query[:2] + b"\x81\x80\x00\x01\x00\x01\x00\x00\x00\x00" + question + answer, peer)
cli.recvfrom(512)

# TLS
def tls_handle(conn):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(cert, key)
    with ctx.wrap_socket(conn, server_side=True) as s:
        s.sendall(s.recv(100))


t = tcp_server(p_tls, tls_handle)
ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
ctx.check_hostname = False
ctx.verify_mode = ssl.CERT_NONE
with ctx.wrap_socket(socket.create_connection((LO, p_tls))) as s:
    s.sendall(b"hello over tls")
    s.recv(100)
t.join()

# SSH: version lines, then a binary packet (length, padding length, KEXINIT code 20).
def ssh_handle(conn):
    conn.sendall(b"SSH-2.0-kplctest_1.0 Debian-2\r\n")
    conn.recv(1000)


t = tcp_server(p_ssh, ssh_handle)
with socket.create_connection((LO, p_ssh)) as s:
    s.recv(100)
    body = bytes([20]) + bytes(range(16)) + struct.pack(">I", 10) + b"curve25519" + bytes(4 * 9 + 5)
    pad = 8 - (len(body) + 5) % 8 + 8
    s.sendall(b"SSH-2.0-kplctest_1.0\r\n" + struct.pack(">IB", len(body) + pad + 1, pad) + body + bytes(pad))
t.join()

# A register protocol on TCP (transaction, protocol id, length, unit, function 3):
# read 10 registers from 0, and the answer.
def mb_handle(conn):
    req = conn.recv(100)
    conn.sendall(req[:4] + struct.pack(">HBBB", 23, 1, 3, 20) + bytes(range(20)))


t = tcp_server(p_mb, mb_handle)
with socket.create_connection((LO, p_mb)) as s:
    s.sendall(struct.pack(">HHHBBHH", 1, 0, 6, 1, 3, 0, 10))
    s.recv(100)
t.join()
