"""A server of one export, in memory, by the NBD protocol; what it answers can be falsified."""
import random, select, socket, struct, threading

READ, WRITE, DISCONNECT, FLUSH, ZERO, STATUS = 0, 1, 2, 3, 6, 7
NONE, DATA, HOLE, EXTENTS = 0, 1, 2, 5  # kinds of chunks
FAILED = [(32769, struct.pack(">IH", 5, 0))]
FLAGS, READ_ONLY, SEVERAL = 1 | 1 << 2 | 1 << 6, 1 << 1, 1 << 8  # flushes, zeros
OPTIONS, OPTION_REPLY, REQUEST, CHUNK = 0x49484156454F5054, 0x3E889045565A9, 0x25609513, 0x668E33EF


class Server:
    """`data` is written to. Answers all requests that have come, or come within some seconds, in any order.
    `falsify(server, command, offset, length, chunks)` gives the chunks of an answer, or None for silence; OSError ends the
    connection."""

    def __init__(self, path, data, unit=1, flags=FLAGS, falsify=None, size=None, patience=0, bitmap=False):
        self.data, self.unit, self.flags, self.falsify, self.patience = data, unit, flags, falsify, patience
        self.bitmap = bitmap  # whether there is one, "b"; its extents have the number 2
        self.size = size or (lambda server: len(server.data))
        self.lines, self.most = [], 0  # connections, and how many requests were on their way on one of them
        self.log = []  # of what was done: command, offset, length, flags
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def close(self):
        if self.listener.fileno() >= 0:
            self.listener.shutdown(socket.SHUT_RDWR)
            self.listener.close()

    def accept(self):
        while True:
            try:
                line = self.listener.accept()[0]
            except OSError:
                return
            threading.Thread(target=self.serve, args=[line], daemon=True).start()

    def serve(self, line):
        def take(form):
            return struct.unpack(form, line.recv(struct.calcsize(form), socket.MSG_WAITALL))

        self.lines.append(line)
        with line:
            try:
                self.negotiate(line, take)
                while True:
                    waiting = [self.request(take)]
                    while select.select([line], [], [], self.patience)[0]:
                        waiting.append(self.request(take))
                    self.most = max(self.most, len(waiting))
                    random.shuffle(waiting)
                    for request in waiting:
                        self.answer(line, *request)
            except (OSError, struct.error):
                pass

    def negotiate(self, line, take):
        line.sendall(b"NBDMAGIC" + struct.pack(">QH", OPTIONS, 3))
        take(">I")
        option = 0
        while option != 7:
            _, option, length = take(">QII")
            asked = take(f"{length}s")[0]

            def reply(kind, text=b""):
                line.sendall(struct.pack(">QIII", OPTION_REPLY, option, kind, len(text)) + text)

            if option == 7:  # go
                reply(3, struct.pack(">HQH", 0, self.size(self), self.flags))
                reply(3, struct.pack(">HIII", 3, self.unit, max(4096, self.unit), 1 << 20))
            elif option == 10 and b"base:allocation" in asked:
                reply(4, struct.pack(">I", 1) + b"base:allocation")
                if b"qemu:dirty-bitmap:b" in asked and self.bitmap:
                    reply(4, struct.pack(">I", 2) + b"qemu:dirty-bitmap:b")
            elif option not in (8, 10):  # structured replies, contexts
                reply(1 << 31 | 1)
                continue
            reply(1)

    def request(self, take):
        _, flags, command, cookie, offset, length = take(">IHHQQI")
        if command == DISCONNECT:
            raise OSError
        return command, flags, cookie, offset, length, take(f"{length}s")[0] if command == WRITE else None

    def answer(self, line, command, flags, cookie, offset, length, written):
        chunks = [(NONE, b"")]
        if command == READ:
            chunks = [(DATA, struct.pack(">Q", offset) + self.data[offset:offset + length])]
        elif command == STATUS:
            chunks = [(EXTENTS, struct.pack(">I", 1) + self.extents(offset, offset + length))]
        if self.falsify:
            chunks = self.falsify(self, command, offset, length, chunks)
        if chunks is None:
            return
        self.log.append((command, offset, length, flags))
        if command in (WRITE, ZERO) and chunks != FAILED:
            self.data[offset:offset + length] = written or bytes(length)
        for number, (kind, text) in enumerate(chunks, 1):
            line.sendall(struct.pack(">IHHQI", CHUNK, number == len(chunks), kind, cookie, len(text)) + text)

    def extents(self, start, end):
        """Of 4 KiB each, or a unit. Whether room is taken says nothing of zeros."""
        step = max(4096, self.unit)
        return b"".join(struct.pack(">II", min(step, end - at), 2 * (not any(self.data[at:at + step])) + random.randrange(2))
                        for at in range(start, end, step))


def uri(path):
    return f"nbd+unix:///?socket={path}"
