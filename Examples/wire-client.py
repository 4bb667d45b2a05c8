#!/usr/bin/env python3
"""A foreign client of the product, with nothing but Python's standard library. docs/wire.md explains it.

  wire-client.py ROOT services             each service with its process
  wire-client.py ROOT get DOMAIN KEY       a setting; DOMAIN is the server's name
  wire-client.py ROOT call NAME SELECTOR   a message without arguments to the endpoint NAME
  wire-client.py ROOT observe NAME         waits for a notification and prints it

The option --token HEX replaces the token that this client shows."""
import os, socket, struct, sys, time

CLIENT_TABLE = bytes.fromhex("4a0b551c61e0c3c4a14a9336e05cce82")
SERVER_TABLE = bytes.fromhex("cf42eca5ff3a88764bf4a53d5c82a5c7")
FORMATS = {"y": "B", "b": "I", "n": "h", "q": "H", "i": "i", "u": "I", "x": "q", "t": "Q", "d": "d", "h": "I"}


def token(table, partner):
    with open("/proc/stat", encoding="ascii") as stat:
        mask = int(next(line for line in stat if line.startswith("btime")).split()[1]) & 255
    return bytes(table[i] ^ mask ^ (table[partner(i)] if i < 8 else 0) for i in range(16))


def put(out, kind, value):
    """Appends a value of one of D-Bus's types, aligned; in a body each value is a variant."""
    if kind == "v":
        kind = {type(None): "(y)", bool: "b", int: "x", float: "d", str: "s", bytes: "ay",
                list: "av", dict: "a{sv}"}[type(value)]
        put(out, "g", kind)
        return put(out, kind, value)
    if kind in "sog":
        text = value.encode()
        put(out, "y" if kind == "g" else "u", len(text))
        out += text + b"\0"
    elif kind == "(y)":
        out += bytes(-len(out) % 8) + b"\0"
    elif kind[0] == "a":
        put(out, "u", 0)
        length_at, items = len(out) - 4, value.items() if kind == "a{sv}" else value
        out += bytes(-len(out) % 8) if kind[1] in "({" else b""
        start = len(out)
        for item in items:
            out += bytes(-len(out) % 8) if kind[1] in "({" else b""
            for part, content in zip(kind.strip("a(){}"), item if kind[1] in "({" else [item]):
                put(out, part, content)
        struct.pack_into("<I", out, length_at, len(out) - start)
    else:
        size = struct.calcsize(FORMATS[kind])
        out += bytes(-len(out) % size) + struct.pack("<" + FORMATS[kind], value)


class Reader:
    def __init__(self, data, descriptors=(), at=0):
        self.data, self.descriptors, self.at = data, descriptors, at

    def number(self, format):
        self.at += -self.at % struct.calcsize(format)
        value, = struct.unpack_from("<" + format, self.data, self.at)
        self.at += struct.calcsize(format)
        return value

    def read(self, signature):
        """Reads the first type of the signature, a list of characters, which it removes."""
        kind = signature.pop(0)
        if kind == "v":
            of = self.read(["g"])
            value = self.read(list(of))
            return (None if of == "(y)" else value[0]) if of in ("(y)", "(d)") else value
        if kind in "sog":
            length = self.number("B" if kind == "g" else "I")
            self.at += length + 1
            return self.data[self.at - length - 1:self.at - 1].decode()
        if kind == "a":
            length = self.number("I")
            self.at += -self.at % (8 if signature[0] in "({" else 1)
            end, items, of = self.at + length, [], list(signature)
            while self.at < end:
                signature[:] = of
                items.append(self.read(signature))
            return bytes(items) if of[0] == "y" else dict(items) if of[0] == "{" else items
        if kind in "({":
            self.at += -self.at % 8
            parts = []
            while signature[0] not in ")}":
                parts.append(self.read(signature))
            signature.pop(0)
            return tuple(parts)
        value = self.number(FORMATS[kind])
        return bool(value) if kind == "b" else self.descriptors[value] if kind == "h" else value


class Connection:
    def __init__(self, path, root):
        self.socket, self.serial, self.received, self.descriptors = socket.socket(socket.AF_UNIX), 0, b"", []
        self.socket.settimeout(60)
        self.socket.connect(path)
        _, user, _ = struct.unpack("3i", self.socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
        if user not in (0, os.geteuid(), os.stat(root + "/run/vantor").st_uid):
            sys.exit("the server belongs to another user")
        name = str(os.geteuid()).encode().hex()
        self.socket.sendall(f"\0AUTH EXTERNAL {name}\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n".encode())
        while self.received.count(b"\r\n") < 2:
            self.more()
        self.received = self.received.split(b"\r\n", 2)[2]

    def more(self):
        data, descriptors, _, _ = socket.recv_fds(self.socket, 65536, 16)
        if not data:
            sys.exit("the server has ended the connection")
        self.received, self.descriptors = self.received + data, self.descriptors + descriptors

    def send(self, member, arguments, interface="com.vantor.Peer", path="/", destination=None, kind="v"):
        body, out = bytearray(), bytearray()
        for argument in arguments:
            put(body, kind, argument)
        fields = [(1, "o", path), (2, "s", interface), (3, "s", member), (8, "g", kind * len(arguments))]
        self.serial += 1
        out += struct.pack("<BBBBIII", 108, 1, 0, 1, len(body), self.serial, 0)
        for code, type_, value in fields + ([(6, "s", destination)] if destination else []):
            out += bytes(-len(out) % 8) + bytes([code])
            put(out, "g", type_)
            put(out, type_, value)
        struct.pack_into("<I", out, 12, len(out) - 16)
        self.socket.sendall(out + bytes(-len(out) % 8) + body)

    def message(self):
        """The next message: its type (2 an answer, 3 an error, 4 a signal), header fields and values."""
        while len(self.received) < 16 or len(self.received) < (size := self.size(self.received)):
            self.more()
        data, self.received = self.received[:size], self.received[size:]
        header, values = self.parse(data)
        for _ in range(header.get(9, 0)):
            self.descriptors.pop(0)
        if header.get(8) == "ht":  # too large for the socket: the message is in a memory file
            header, values = self.parse(os.pread(values[0], values[1], 0))
        return data[1], header, values

    @staticmethod
    def size(data):
        body, fields = struct.unpack_from("<I", data, 4)[0], struct.unpack_from("<I", data, 12)[0]
        return 16 + fields + -fields % 8 + body

    def parse(self, data):
        header = dict(Reader(data, at=12).read(list("a(yv)")))
        body, signature, values = struct.unpack_from("<I", data, 4)[0], list(header.get(8, "")), []
        reader = Reader(data[len(data) - body:], self.descriptors)
        while signature:
            values.append(reader.read(signature))
        return header, values

    def call(self, selector, *arguments, **how):
        self.send(selector.replace(":", "_"), arguments, **how)
        while True:
            type_, header, values = self.message()
            if header.get(5) == self.serial and type_ == 2:
                return values[0] if values else None
            if header.get(5) == self.serial and type_ == 3:
                sys.exit(f"refused: {header[4]}: {values[0] if values else ''}")


def named(root, name, shown):
    connection = Connection(f"{root}/run/vantor/connections/{name}", root)
    if connection.call("NSConnectionAuthenticate:", shown) != token(SERVER_TABLE, lambda i: i + 7):
        sys.exit("the server is not one of the product")
    return connection


def main():
    arguments, shown = sys.argv[1:], token(CLIENT_TABLE, lambda i: 15 - i)
    if "--token" in arguments:
        at = arguments.index("--token")
        shown = bytes.fromhex(arguments[at + 1])
        del arguments[at:at + 2]
    if len(arguments) < 2 or len(arguments) != 2 + {"services": 0, "get": 2, "call": 2, "observe": 1}.get(arguments[1], -9):
        sys.exit(__doc__)
    root, command = arguments[0].rstrip("/"), arguments[1]
    if command == "services":
        manager = named(root, "com.vantor.servicemanager.userinterface.server", shown)
        for label in sorted(manager.call("services")):
            print(label, manager.call("pidForService:", label) or "-")
    elif command == "get":
        print(repr(named(root, arguments[2], shown).call("objectForKey:", arguments[3])))
    elif command == "call":
        registry = Connection(root + "/run/vantor/mach/com.vantor.common.servicemanager", root)
        for _ in range(100):  # The owner is asked to register the name.
            found, = registry.call("xpcListenerEndpointForPasskey:withName:withReply:", shown, arguments[2], None)
            if found is not None:
                break
            time.sleep(0.05)
        else:
            sys.exit("nobody has registered it")
        print(*Connection(f"/proc/self/fd/{found}", root).call(arguments[3], None))
    else:
        bus = Connection(root + "/run/vantor/mach/com.vantor.notificationbus", root)
        how = {"interface": "org.freedesktop.DBus", "path": "/org/freedesktop/DBus",
               "destination": "org.freedesktop.DBus", "kind": "s"}
        bus.call("Hello", **how)
        bus.call("AddMatch", f"interface='com.vantor.DistributedNotification',arg0='{arguments[2]}'", **how)
        print("observing", flush=True)
        bus.socket.settimeout(None)
        while (message := bus.message())[0] != 4 or message[1][3] != "Posted":
            pass
        print(*message[2])


main()
