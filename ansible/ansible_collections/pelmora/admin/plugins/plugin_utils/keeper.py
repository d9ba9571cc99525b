"""The session keeper: one process of the controller's user that keeps logged-in sessions to
pelmorad services open between the tasks of a play (and between runs), as ssh's ControlPersist
keeps its master connections, so that a task costs neither a login nor loading the library.

The connection plugin starts it as `python3 keeper.py SOCKET`; it answers "ready" (or "error
TEXT") on its standard output and serves requests on the Unix socket SOCKET, whose folder only
the user can enter; it also refuses a peer of another user. Each request carries the settings of
its login (host, port, account, password, TLS settings, persist time), so the password never
appears in arguments or the environment; the sessions of one login form a pool, which ends
`persist` seconds after its last request, and the keeper ends when no pool is left.

Exchange, one request per connection: the keeper greets with a message as soon as it takes the
connection (a client that meets the end of the stream before the greeting knows that the keeper
was ending and that its request was not run), the client sends a request, the keeper replies.
A message is a 4-byte big-endian length, that many bytes of JSON (an object whose "sizes" lists
the byte strings that follow), then those byte strings.
"""

import contextlib
import hashlib
import json
import os
import socket
import struct
import sys
import threading
import time

LENGTH = struct.Struct(">I")
MAX_HEADER = 1 << 20
MAX_BLOBS = 3
MAX_BLOB = 1 << 30
MAX_CLIENTS = 64
PROBE_AFTER = 1.0  # seconds a pooled session may idle before it is checked before use
EMPTY_GRACE = 5.0  # seconds a keeper without sessions waits for a request before it ends


def receive_exactly(sock, size):
    """size bytes from sock; ConnectionError when the stream ends before them."""
    data = bytearray()
    while len(data) < size:
        chunk = sock.recv(min(size - len(data), 1 << 20))
        if not chunk:
            raise ConnectionError("the session keeper's stream ended")
        data += chunk
    return bytes(data)


def send_message(sock, header, blobs=()):
    text = json.dumps(dict(header, sizes=[len(blob) for blob in blobs])).encode()
    sock.sendall(LENGTH.pack(len(text)) + text)
    for blob in blobs:
        sock.sendall(blob)


def receive_message(sock):
    """(header, blobs) of one message; ValueError when it breaks the format's bounds."""
    (size,) = LENGTH.unpack(receive_exactly(sock, LENGTH.size))
    if size > MAX_HEADER:
        raise ValueError(f"a message header of {size} bytes")
    header = json.loads(receive_exactly(sock, size))
    sizes = header.get("sizes") if isinstance(header, dict) else None
    if (not isinstance(sizes, list) or len(sizes) > MAX_BLOBS or
            not all(type(n) is int and 0 <= n <= MAX_BLOB for n in sizes)):
        raise ValueError("a message with bad sizes")
    return header, [receive_exactly(sock, n) for n in sizes]


def connect_session(pelmora, settings):
    """A logged-in Pelmora.RCFSO for settings, or raises pelmora.Error."""
    fso = pelmora.CreateObject("Pelmora.RCFSO")
    fso.timeout = int(settings["timeout"]) * 1000
    tls = settings.get("tls") or {}
    port = settings["port"] or (pelmora.TLS_PORT if tls else 8002)
    if tls:
        pelmora.use_tls(fso, **tls)
    if not fso.Connect(settings["host"], int(port), settings["user"], settings["password"],
                       False):
        raise pelmora.Error(fso.ErrCode, fso.ErrDescription, "Connect")
    return fso


def digest(settings):
    """The name of a login: sessions are shared only by requests that would log in alike."""
    return hashlib.sha256(json.dumps(settings, sort_keys=True).encode()).hexdigest()


class Pool:
    """The sessions of one login, each lent to one request at a time."""

    def __init__(self, settings):
        self.settings = settings
        self.persist = float(settings.get("persist", 60))
        self.idle = []      # (session, since when)
        self.last = time.monotonic()
        self.plain = False  # the service has no extended exchange: the plugin talks to it
        self.lent = 0


class Keeper:
    """Every pool of the user's tasks, served on one socket."""

    def __init__(self, pelmora, listener, path):
        self.pelmora = pelmora
        self.listener, self.path = listener, path
        self.identity = os.stat(path).st_ino
        self.pools = {}
        self.lock = threading.Condition()
        self.slots = threading.BoundedSemaphore(MAX_CLIENTS)
        self.busy = 0
        self.last = time.monotonic()
        self.ending = False

    def pool(self, settings):
        if not isinstance(settings, dict):
            raise ValueError("no settings")
        name = digest(settings)
        with self.lock:
            found = self.pools.get(name)
            if found is None:
                found = self.pools[name] = Pool(settings)
            found.last = time.monotonic()
            return name, found

    def borrow(self, pool):
        fso = None
        while fso is None:
            with self.lock:
                if not pool.idle:
                    break
                fso, since = pool.idle.pop()
            if time.monotonic() - since >= PROBE_AFTER:
                fso.GetSystemTime()  # a session the service closed while it idled fails here
                if fso.ErrCode != 0:
                    fso.Disconnect()
                    fso = None
        if fso is None:
            fso = connect_session(self.pelmora, pool.settings)
            if fso.ExtendedCommandVersion() < 1:
                pool.plain = True
                fso.Disconnect()
                return None
        with self.lock:
            pool.lent += 1
        return fso

    def give_back(self, name, pool, fso):
        # A session whose connection failed (numbers from 10000) is not lent again, nor one of
        # a pool that was stopped meanwhile.
        with self.lock:
            pool.lent -= 1
            if fso.ErrCode < 10000 and self.pools.get(name) is pool:
                pool.idle.append((fso, time.monotonic()))
                pool.last = time.monotonic()
                return
        fso.Disconnect()

    def expire(self):
        """Ends the pools idle for longer than their persist time; True when none is left."""
        now = time.monotonic()
        ended = []
        with self.lock:
            for name, pool in list(self.pools.items()):
                if pool.lent == 0 and now - pool.last >= pool.persist:
                    ended += [fso for fso, _ in pool.idle]
                    del self.pools[name]
            empty = not self.pools and self.busy == 0 and now - self.last >= EMPTY_GRACE
        empty = empty or self.ending
        for fso in ended:
            fso.Disconnect()
        return empty

    def serve(self, client):
        try:
            send_message(client, {"keeper": 2})
            header, blobs = receive_message(client)
            reply, out = self.run(header, blobs)
            send_message(client, reply, out)
        except (OSError, ValueError):
            pass  # the client went away or broke the format: nothing to answer
        finally:
            client.close()
            with self.lock:
                self.busy -= 1
                self.last = time.monotonic()
                self.lock.notify_all()
            self.slots.release()

    def run(self, header, blobs):
        try:
            operation = header.get("op")
            if operation == "end":  # every pool ends, and the keeper with them
                self.ending = True
                self.leave()
                return {"ok": True}, []
            name, pool = self.pool(header.get("settings"))
            if operation == "stop":
                with self.lock:
                    stopped = self.pools.pop(name, None)
                for fso, _ in stopped.idle if stopped else []:
                    fso.Disconnect()
                return {"ok": True}, []
            if pool.plain:
                return {"plain": True}, []
            fso = self.borrow(pool)
            if fso is None:
                return {"plain": True}, []
        except self.pelmora.Error as error:
            return {"error": error.number, "description": error.description, "login": True}, []
        except (KeyError, TypeError, ValueError) as error:
            return {"error": 87, "description": f"malformed request: {error}"}, []
        try:
            if operation == "open":
                return {"ok": True}, []
            if operation == "exec":
                result = self.pelmora.run_command(fso, header["command"],
                                                  input=blobs[0] if blobs else b"",
                                                  timeout=int(header.get("timeout", 0)))
                reply = {"status": result.status, "timed_out": result.timed_out}
                return reply, [result.stdout, result.stderr]
            if operation in ("put", "fetch"):
                if operation == "put":
                    done = fso.Upload(header["local"], header["remote"])
                else:
                    done = fso.Download(header["local"], header["remote"])
                if done:
                    return {"ok": True}, []
                return {"error": fso.ErrCode, "description": fso.ErrDescription}, []
            return {"error": 87, "description": f"unknown request {operation!r}"}, []
        except self.pelmora.Error as error:
            return {"error": error.number, "description": error.description}, []
        except (KeyError, TypeError, ValueError) as error:
            return {"error": 87, "description": f"malformed request: {error}"}, []
        finally:
            self.give_back(name, pool, fso)

    def leave(self):
        """Removes the socket's name if it is still this keeper's: a client that finds no
        socket starts a new keeper, and one waiting in the backlog meets the end of the stream
        before a greeting."""
        with contextlib.suppress(FileNotFoundError):
            if os.stat(self.path).st_ino == self.identity:
                os.unlink(self.path)

    def close(self):
        with self.lock:
            pools, self.pools = self.pools, {}
        for pool in pools.values():
            for fso, _ in pool.idle:
                fso.Disconnect()


def same_user(client):
    creds = client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    _, uid, _ = struct.unpack("3i", creds)
    return uid == os.getuid()


def listen_at(path):
    """A listening socket at path, put there atomically over a stale file of a dead keeper."""
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    fresh = f"{path}.{os.getpid()}"
    try:
        os.unlink(fresh)
    except FileNotFoundError:
        pass
    listener.bind(fresh)
    listener.listen(MAX_CLIENTS)
    os.rename(fresh, path)
    return listener


def serve(keeper):
    listener = keeper.listener
    listener.settimeout(1.0)
    try:
        while not keeper.expire():
            try:
                client, _ = listener.accept()
            except socket.timeout:
                continue
            client.settimeout(None)
            if not same_user(client):
                client.close()
                continue
            keeper.slots.acquire()
            with keeper.lock:
                keeper.busy += 1
            threading.Thread(target=keeper.serve, args=(client,), daemon=True).start()
    finally:
        keeper.leave()
        listener.close()
    with keeper.lock:  # requests under way finish
        keeper.lock.wait_for(lambda: keeper.busy == 0)
    keeper.close()


def main():
    path = sys.argv[1]
    try:
        import pelmora
        listener = listen_at(path)
    except (ImportError, OSError) as error:
        print(f"error 0 {error}", flush=True)
        return 1
    keeper = Keeper(pelmora, listener, path)
    print("ready", flush=True)
    sys.stdout.close()
    serve(keeper)
    return 0


if __name__ == "__main__":
    sys.exit(main())
