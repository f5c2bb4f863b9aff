#!/usr/bin/env python3
"""A small LDAP responder that answers searches with hostile results.

    hostile_ldap_server.py SCENARIO

Listens on 127.0.0.1 on a port the system picks and prints that port on the
first line of its standard output.  It answers just enough of the session
set-up of the ORV client library (the version entry, the configuration entry,
any bind) for a session to open, then answers the library's people searches
for a name containing "hostile", and its reads of "member", as SCENARIO says.
It stops when it is killed.  Standard library only: BER is written and read
here by hand (definite lengths, as LDAP requires).
"""

import socket
import sys
import threading

SCENARIOS = (
    "many-attributes", "huge-values", "empty-dn", "missing-attributes", "no-version",
    "no-config", "broken-controls", "endless-cookie", "same-cookie", "empty-pages",
    "ranges-endless", "ranges-backwards", "ranges-star", "bad-ber",
)
PAGED_OID = b"1.2.840.113556.1.4.319"
VLV_RESPONSE_OID = b"2.16.840.1.113730.3.4.10"


# ------------------------------------------------------------------ BER writer

def length(n):
    if n < 0x80:
        return bytes([n])
    body = n.to_bytes((n.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(body)]) + body


def tlv(tag, body):
    return bytes([tag]) + length(len(body)) + body


def integer(tag, value):
    body = value.to_bytes(max(1, (value.bit_length() + 8) // 8), "big", signed=True)
    return tlv(tag, body)


def octets(value, tag=0x04):
    return tlv(tag, value if isinstance(value, bytes) else value.encode())


def seq(*parts, tag=0x30):
    return tlv(tag, b"".join(parts))


def message(msgid, op, controls=b""):
    return seq(integer(0x02, msgid), op, controls)


def result(tag, code=0, text=b""):
    return seq(integer(0x0A, code), octets(b""), octets(text), tag=tag)


def entry(dn, attributes):
    """attributes: list of (name, [values])"""
    attrs = b"".join(seq(octets(n), seq(*[octets(v) for v in vals], tag=0x31))
                     for n, vals in attributes)
    return seq(octets(dn), seq(attrs), tag=0x64)


def controls(*ctrls):
    return seq(*[seq(octets(oid), octets(value)) for oid, value in ctrls], tag=0xA0)


def paged_value(cookie):
    return seq(integer(0x02, 0), octets(cookie))


# ------------------------------------------------------------------ BER reader

def read_tlv(data, pos):
    tag = data[pos]
    pos += 1
    first = data[pos]
    pos += 1
    if first < 0x80:
        n = first
    else:
        count = first & 0x7F
        n = int.from_bytes(data[pos:pos + count], "big")
        pos += count
    return tag, data[pos:pos + n], pos + n


def children(body):
    out, pos = [], 0
    while pos < len(body):
        tag, value, pos = read_tlv(body, pos)
        out.append((tag, value))
    return out


def read_message(sock, buf):
    """Returns (message bytes, rest of buffer) or (None, ...) at end."""
    while True:
        if len(buf) >= 2:
            first = buf[1]
            head = 2 if first < 0x80 else 2 + (first & 0x7F)
            if len(buf) >= head:
                n = first if first < 0x80 else int.from_bytes(buf[2:head], "big")
                if len(buf) >= head + n:
                    return buf[:head + n], buf[head + n:]
        chunk = sock.recv(65536)
        if not chunk:
            return None, buf
        buf += chunk


# ------------------------------------------------------------------ answers

class Connection:
    def __init__(self, sock, scenario):
        self.sock = sock
        self.scenario = scenario
        self.pages = 0

    def send(self, data):
        self.sock.sendall(data)

    def done(self, msgid, code=0, ctrls=b""):
        self.send(message(msgid, result(0x65, code), ctrls))

    def serve(self):
        buf = b""
        while True:
            raw, buf = read_message(self.sock, buf)
            if raw is None:
                return
            _, body, _ = read_tlv(raw, 0)
            parts = children(body)
            msgid = int.from_bytes(parts[0][1], "big", signed=True)
            op_tag, op = parts[1]
            req_controls = parts[2][1] if len(parts) > 2 and parts[2][0] == 0xA0 else b""
            if op_tag == 0x60:  # bind
                self.send(message(msgid, result(0x61)))
            elif op_tag == 0x42:  # unbind
                return
            elif op_tag == 0x63:
                self.search(msgid, op, req_controls)
            elif op_tag == 0x50:  # abandon
                pass
            else:
                tag = {0x66: 0x67, 0x68: 0x69, 0x4A: 0x6B, 0x77: 0x78}.get(op_tag, 0x65)
                self.send(message(msgid, result(tag, 53, b"unwilling")))

    def search(self, msgid, op, req_controls):
        fields = children(op)
        base = fields[0][1]
        raw_filter = fields[6][1] if len(fields) > 6 else b""
        attrs = [v for _, v in children(fields[7][1])] if len(fields) > 7 else []
        lower = base.lower() + b" " + raw_filter.lower()
        cookie = None
        for _, ctrl in children(req_controls):
            items = children(ctrl)
            if items and items[0][1] == PAGED_OID:
                value = [v for t, v in items if t == 0x04][1:]
                if value:
                    cookie = children(children(value[0])[0][1])[1][1]
        s = self.scenario

        if b"version number" in lower:
            if s == "no-version":
                self.send(message(msgid, entry(b"cn=Version Number", [(b"cn", [b"Version Number"])])))
            else:
                self.send(message(msgid, entry(b"cn=Version Number", [
                    (b"orvversion", [b"6.0.0.1"]), (b"kxslibrarycompatibleversion", [b"6.0.0.1"])])))
            return self.done(msgid)
        if b"orvconfigurationsettings" in lower:
            if s != "no-config":
                self.send(message(msgid, entry(b"cn=ORVConfigurationSettings", [
                    (b"orvoperationmode", [b"0"]), (b"orvInstanceId", [b"1"]),
                    (b"orvIsRadiusServerConfigured", [b"0"])])))
            return self.done(msgid)
        if attrs and attrs[0].lower().startswith(b"member"):
            return self.members(msgid, attrs[0])
        if b"hostile" not in lower:
            return self.done(msgid)
        self.people(msgid, cookie)

    def people(self, msgid, cookie):
        s = self.scenario
        person = [(b"objectClass", [b"person"]), (b"cn", [b"hostile"]), (b"uid", [b"hostile"]),
                  (b"sn", [b"hostile"])]
        if s == "many-attributes":
            attrs = person + [(b"x-attr-%d" % i, [b"v"]) for i in range(20000)]
            self.send(message(msgid, entry(b"uid=hostile,ou=People", attrs)))
            return self.done(msgid)
        if s == "huge-values":
            big = b"A" * (8 << 20)
            attrs = person + [(b"description", [big[: 4 << 20] + b"%d" % i for i in range(3)]),
                              (b"displayName", [big])]
            self.send(message(msgid, entry(b"uid=hostile,ou=People", attrs)))
            return self.done(msgid)
        if s == "empty-dn":
            self.send(message(msgid, entry(b"", [])))
            self.send(message(msgid, entry(b"", person)))
            return self.done(msgid)
        if s == "missing-attributes":
            self.send(message(msgid, entry(b"uid=hostile,ou=People", [])))
            self.send(message(msgid, entry(b"uid=other,ou=People", [(b"cn", [])])))
            return self.done(msgid)
        if s == "bad-ber":
            # An entry whose attribute list claims more bytes than it holds.
            body = octets(b"uid=hostile") + b"\x30\x84\x7f\xff\xff\xff" + b"\x30\x03\x04\x01a"
            self.send(message(msgid, tlv(0x64, body)))
            return self.done(msgid)
        if s == "broken-controls":
            self.send(message(msgid, entry(b"uid=hostile,ou=People", person)))
            return self.done(msgid, 0, controls((PAGED_OID, b"\xff\x00garbage"),
                                                (VLV_RESPONSE_OID, b"\x30\x84\xff\xff\xff\xff"),
                                                (b"1.2.3.4", b"")))
        if s in ("endless-cookie", "same-cookie", "empty-pages"):
            self.pages += 1
            if s != "empty-pages" or self.pages == 1:
                self.send(message(msgid, entry(b"uid=hostile%d,ou=People" % self.pages, person)))
            next_cookie = b"again" if s == "same-cookie" else b"page-%d" % self.pages
            return self.done(msgid, 0, controls((PAGED_OID, paged_value(next_cookie))))
        self.send(message(msgid, entry(b"uid=hostile,ou=People", person)))
        self.done(msgid)

    def members(self, msgid, attr):
        s = self.scenario
        dn = b"cn=big,ou=Groups"
        low = 0
        if b";range=" in attr.lower():
            low = int(attr.split(b"=")[1].split(b"-")[0])
        if s == "ranges-endless":
            name = b"member;range=%d-%d" % (low, low + 1499)
            values = [b"uid=m%d,ou=People" % low]
        elif s == "ranges-backwards":
            name, values = b"member;range=0-1499", [b"uid=m0,ou=People"]
        elif s == "ranges-star":
            if low == 0:
                name, values = b"member;range=0-1499", [b"uid=m%d,ou=People" % i for i in range(1500)]
            elif low == 1500:
                name, values = b"member;range=1500-*", [b"uid=m%d,ou=People" % i for i in range(1500, 1510)]
            else:
                return self.done(msgid, 1)
        else:
            return self.done(msgid)
        self.send(message(msgid, entry(dn, [(name, values)])))
        self.done(msgid)


def main():
    scenario = sys.argv[1] if len(sys.argv) > 1 else ""
    if scenario not in SCENARIOS:
        sys.exit("unknown scenario %r; one of %s" % (scenario, ", ".join(SCENARIOS)))
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(16)
    print(listener.getsockname()[1], flush=True)

    def run(sock):
        try:
            Connection(sock, scenario).serve()
        except (OSError, IndexError, ValueError):
            pass
        finally:
            sock.close()

    while True:
        sock, _ = listener.accept()
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        threading.Thread(target=run, args=(sock,), daemon=True).start()


if __name__ == "__main__":
    main()
