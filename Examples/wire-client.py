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
BUS = {"interface": "org.freedesktop.DBus", "path": "/org/freedesktop/DBus", "destination": "org.freedesktop.DBus"}


def token(table, partner):
    with open("/proc/stat", encoding="ascii") as stat:
        mask = int(next(line for line in stat if line.startswith("btime")).split()[1]) & 255
    return bytes(table[i] ^ mask ^ (table[partner(i)] if i < 8 else 0) for i in range(16))


def put(out, kind, value):
    """Appends a text (s, o, g), bytes (ay) or nil, which is an empty structure (y)."""
    if kind == "(y)":
        out += bytes(-len(out) % 8 + 1)
    elif kind == "ay":
        out += bytes(-len(out) % 4) + struct.pack("<I", len(value)) + value
    else:
        size = bytes([len(value)]) if kind == "g" else bytes(-len(out) % 4) + struct.pack("<I", len(value.encode()))
        out += size + value.encode() + b"\0"


def types(signature):
    found, depth, begin = [], 0, 0
    for end, kind in enumerate(signature, 1):
        depth += (kind in "({") - (kind in ")}")
        if depth == 0 and kind != "a":
            found.append(signature[begin:end])
            begin = end
    return found


class Reader:
    def __init__(self, data, descriptors, at=0):
        self.data, self.descriptors, self.at = data, descriptors, at

    def number(self, form):
        self.at += -self.at % struct.calcsize(form) + struct.calcsize(form)
        return struct.unpack_from("<" + form, self.data, self.at - struct.calcsize(form))[0]

    def read(self, kind):
        if kind == "v":
            kind = self.read("g")
            value = self.read(kind)
            return None if kind == "(y)" else value[0] if kind == "(d)" else value
        if kind in "sog":
            length = self.number("B" if kind == "g" else "I")
            self.at += length + 1
            return self.data[self.at - length - 1:self.at - 1].decode()
        if kind[0] in "({":
            self.at += -self.at % 8
            return tuple(map(self.read, types(kind[1:-1])))
        if kind[0] == "a":
            length, items = self.number("I"), []
            self.at += -self.at % 8 if kind[1] in "({" else 0
            end = self.at + length
            while self.at < end:
                items.append(self.read(kind[1:]))
            return bytes(items) if kind == "ay" else dict(items) if kind[1] == "{" else items
        value = self.number(FORMATS[kind])
        return bool(value) if kind == "b" else self.descriptors[value] if kind == "h" else value


class Connection:
    def __init__(self, path, root):
        self.socket, self.serial, lines = socket.socket(socket.AF_UNIX), 0, b""
        self.socket.settimeout(60)
        self.socket.connect(path)
        user = struct.unpack("3i", self.socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[1]
        if user not in (0, os.geteuid(), os.stat(root + "/run/vantor").st_uid):
            sys.exit("the server belongs to another user")
        name = str(os.geteuid()).encode().hex()
        self.socket.sendall(f"\0AUTH EXTERNAL {name}\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n".encode())
        while lines.count(b"\r\n") < 2:
            lines += self.take(1)[0]

    def take(self, size):
        data, descriptors = b"", []
        while len(data) < size:
            part, passed, _, _ = socket.recv_fds(self.socket, size - len(data), 16)
            if not part:
                sys.exit("the server has ended the connection")
            data, descriptors = data + part, descriptors + passed
        return data, descriptors

    def message(self):
        """The next message: its type (2 an answer, 3 an error, 4 a signal), header fields and values."""
        data, descriptors = self.take(16)
        body, fields = struct.unpack_from("<I4xI", data, 4)
        rest, more = self.take(fields + -fields % 8 + body)
        header, values = self.parse(data + rest, descriptors + more)
        if header.get(8) == "ht":  # too large for the socket: the message is in a memory file
            header, values = self.parse(os.pread(*values, 0), [])
        return data[1], header, values

    @staticmethod
    def parse(data, descriptors):
        header = dict(Reader(data, [], 12).read("a(yv)"))
        body = Reader(data[len(data) - struct.unpack_from("<I", data, 4)[0]:], descriptors)
        return header, [body.read(kind) for kind in types(header.get(8, ""))]

    def call(self, selector, *arguments, interface="com.vantor.Peer", path="/", destination=None):
        body, out, kinds = bytearray(), bytearray(), {type(None): "(y)", str: "s", bytes: "ay"}
        for argument in arguments:
            if not destination:  # between two programs, each argument is a variant
                put(body, "g", kinds[type(argument)])
            put(body, kinds[type(argument)], argument)
        fields = [(1, "o", path), (2, "s", interface), (3, "s", selector.replace(":", "_")), (6, "s", destination),
                  (8, "g", ("s" if destination else "v") * len(arguments))]
        self.serial += 1
        out += struct.pack("<BBBBIII", 108, 1, 0, 1, len(body), self.serial, 0)
        for code, kind, value in (field for field in fields if field[2] is not None):
            out += bytes(-len(out) % 8) + bytes([code])
            put(out, "g", kind)
            put(out, kind, value)
        struct.pack_into("<I", out, 12, len(out) - 16)
        self.socket.sendall(out + bytes(-len(out) % 8) + body)
        while True:
            kind, header, values = self.message()
            if header.get(5) == self.serial and kind == 3:
                sys.exit(f"refused: {header[4]}: {values[0] if values else ''}")
            if header.get(5) == self.serial:
                return values[0] if values else None


def named(root, name, shown):
    connection = Connection(f"{root}/run/vantor/connections/{name}", root)
    if connection.call("NSConnectionAuthenticate:", shown) != token(SERVER_TABLE, lambda i: i + 7):
        sys.exit("the server is not one of the product")
    return connection


def main():
    words, shown = sys.argv[1:], token(CLIENT_TABLE, lambda i: 15 - i)
    if "--token" in words:
        at = words.index("--token")
        shown, words = bytes.fromhex(words[at + 1]), words[:at] + words[at + 2:]
    if len(words) < 2 or len(words) != {"services": 2, "get": 4, "call": 4, "observe": 3}.get(words[1]):
        sys.exit(__doc__)
    root, command, *rest = words[0].rstrip("/"), *words[1:]
    if command == "services":
        manager = named(root, "com.vantor.servicemanager.userinterface.server", shown)
        for label in sorted(manager.call("services")):
            print(label, manager.call("pidForService:", label) or "-")
    elif command == "get":
        print(repr(named(root, rest[0], shown).call("objectForKey:", rest[1])))
    elif command == "call":
        registry = Connection(root + "/run/vantor/mach/com.vantor.common.servicemanager", root)
        for _ in range(100):  # The owner is asked to register the name.
            found, = registry.call("xpcListenerEndpointForPasskey:withName:withReply:", shown, rest[0], None)
            if found is not None:
                return print(*Connection(f"/proc/self/fd/{found}", root).call(rest[1], None))
            time.sleep(0.05)
        sys.exit("nobody has registered it")
    else:
        bus = Connection(root + "/run/vantor/mach/com.vantor.notificationbus", root)
        bus.call("Hello", **BUS)
        bus.call("AddMatch", f"interface='com.vantor.DistributedNotification',arg0='{rest[0]}'", **BUS)
        print("observing", flush=True)
        bus.socket.settimeout(None)
        while (message := bus.message())[0] != 4 or message[1][3] != "Posted":
            pass
        print(*message[2])


main()
