"""The wire of the direct transport, as docs/reference/bus.md has it: one connection, one call at a time."""

from __future__ import annotations

import os
import socket
import struct
import threading
import time
from typing import List, NamedTuple, Optional, Sequence, Union

from .configuration import Configuration
from .errors import AccessDenied, OperationFailed, Unavailable, WrongArguments
from .text import to_str

# A bool is "b", a Signed "i", any other int "u", bytes are "s" and a list of bytes is "l".
Value = Union[bool, int, bytes, List[bytes]]


class Signed(int):
    """A signed number on the wire."""


_VERSION = 1
_HELLO, _WELCOME, _REFUSAL, _CALL, _REPLY, _ERROR = 1, 2, 3, 4, 5, 6
_HELLO_INTERFACE = b"tevra.msgbus"
_MAX_VALUES = 64

_ERRORS = {
    "org.freedesktop.DBus.Error.AccessDenied": AccessDenied,
    "org.freedesktop.DBus.Error.InvalidArgs": WrongArguments,
    "org.freedesktop.DBus.Error.UnknownMethod": WrongArguments,
}


class Malformed(Exception):
    """A frame that the server of this version does not send."""


class Frame(NamedTuple):
    kind: int
    serial: int
    member: bytes
    values: list[Value]


def encode_text(text: bytes) -> bytes:
    return struct.pack("<I", len(text)) + text


def encode_value(value: Value) -> bytes:
    if isinstance(value, bool):
        return b"b" + bytes([value])
    if isinstance(value, Signed):
        return b"i" + struct.pack("<i", value)
    if isinstance(value, int):
        return b"u" + struct.pack("<I", value)
    if isinstance(value, bytes):
        return b"s" + encode_text(value)
    return b"l" + struct.pack("<I", len(value)) + b"".join(encode_text(entry) for entry in value)


def encode_frame(
    kind: int, serial: int, interface: bytes, member: bytes = b"", values: Sequence[Value] = ()
) -> bytes:
    head = struct.pack("<BBI", kind, 0, serial) + encode_text(interface) + encode_text(member)
    return encode_text(head + b"".join(encode_value(value) for value in values))


class _Reader:
    def __init__(self, data: bytes) -> None:
        self._data = data
        self._at = 0

    def take(self, count: int) -> bytes:
        if count > len(self._data) - self._at:
            raise Malformed("a frame ends in the middle of a value")
        self._at += count
        return self._data[self._at - count : self._at]

    def number(self, form: str = "<I") -> int:
        return int(struct.unpack(form, self.take(4))[0])

    def text(self) -> bytes:
        return self.take(self.number())

    def value(self) -> Value:
        letter = self.take(1)
        if letter == b"b":
            return self.take(1) != b"\0"
        if letter == b"i":
            return Signed(self.number("<i"))
        if letter == b"u":
            return self.number()
        if letter == b"s":
            return self.text()
        if letter == b"l":
            return [self.text() for _ in range(self.number())]
        raise Malformed(f"a value of no type: {letter!r}")

    def at_end(self) -> bool:
        return self._at == len(self._data)


def decode_frame(body: bytes) -> Frame:
    """The frame behind its length."""
    reader = _Reader(body)
    kind = reader.take(1)[0]
    reader.take(1)
    serial = reader.number()
    reader.text()
    member = reader.text()
    values: list[Value] = []
    while not reader.at_end():
        if len(values) == _MAX_VALUES:
            raise Malformed("too many values")
        values.append(reader.value())
    return Frame(kind, serial, member, values)


class _Deadline:
    def __init__(self, seconds: float) -> None:
        self._until = time.monotonic() + seconds

    def apply(self, peer: socket.socket) -> None:
        left = self._until - time.monotonic()
        if left <= 0:
            raise TimeoutError("no answer in time")
        peer.settimeout(left)


class Connection:
    """A connection to one destination, made when it is needed. Any thread may call; calls take turns. In a
    child of fork the first call makes a connection of the child's own."""

    def __init__(self, destination: str, configuration: Optional[Configuration] = None) -> None:
        self._destination = destination
        self._configuration = configuration or Configuration.load()
        self._lock = threading.Lock()
        self._peer: Optional[socket.socket] = None
        self._owner = os.getpid()
        self._serial = 0

    def close(self) -> None:
        with self._lock:
            self._drop()

    def call(self, interface: str, member: str, values: Sequence[Value]) -> list[Value]:
        """The results. Raises Unavailable, AccessDenied, WrongArguments and OperationFailed. A call that was
        sent and not answered may have been carried out; it is not repeated."""
        if os.getpid() != self._owner:  # the lock may have been held at the fork
            self._lock, self._owner = threading.Lock(), os.getpid()
            self._drop()
        with self._lock:
            try:
                answer = self._exchange(interface.encode(), member.encode(), values)
            except (OSError, Malformed) as error:
                self._drop()
                raise Unavailable(f"{self._destination}: {error}") from error
            except BaseException:  # an answer may be under way that no one waits for any more
                self._drop()
                raise
        if answer.kind == _REPLY:
            return answer.values
        kind = _ERRORS.get(to_str(answer.member), OperationFailed)
        raise kind(_reason(answer))

    def _exchange(self, interface: bytes, member: bytes, values: Sequence[Value]) -> Frame:
        deadline = _Deadline(self._configuration.timeout)
        if self._peer is not None and _has_ended(self._peer):
            self._drop()
        if self._peer is None:
            self._peer = self._connect(deadline)
        self._serial = self._serial % 0xFFFFFFFF + 1
        deadline.apply(self._peer)
        self._peer.sendall(encode_frame(_CALL, self._serial, interface, member, values))
        answer = self._receive(self._peer, deadline)
        if answer.serial != self._serial or answer.kind not in (_REPLY, _ERROR):
            raise Malformed("an answer to another call")
        return answer

    def _connect(self, deadline: _Deadline) -> socket.socket:
        if self._configuration.transport != "direct":
            raise OSError(
                "the service is on a D-Bus broker ([MsgBus] transport), where a D-Bus library calls it"
            )
        path = os.path.join(self._configuration.runtime_dir, self._destination)
        peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            deadline.apply(peer)
            try:
                peer.connect(path)
            except OSError as error:
                raise OSError(error.errno, f"cannot connect to {path}: {error.strerror}") from error
            self._check_server(peer)
            self._greet(peer, deadline)
        except BaseException:
            peer.close()
            raise
        return peer

    def _check_server(self, peer: socket.socket) -> None:
        credentials = peer.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        _, uid, _ = struct.unpack("iII", credentials)
        if not self._configuration.trusts(uid):
            raise OSError(f"served by user {uid}, who is not to be believed ([MsgBus] service_user)")

    def _greet(self, peer: socket.socket, deadline: _Deadline) -> None:
        try:
            peer.sendall(encode_frame(_HELLO, _VERSION, _HELLO_INTERFACE))
        except (BrokenPipeError, ConnectionResetError):
            pass  # a refusal may have come before
        answer = self._receive(peer, deadline)
        if answer.kind == _REFUSAL:
            if to_str(answer.member) in _ERRORS:
                raise AccessDenied(_reason(answer))
            raise OSError(_reason(answer))
        if answer.kind != _WELCOME or answer.serial != _VERSION:
            raise Malformed("no welcome")

    def _receive(self, peer: socket.socket, deadline: _Deadline) -> Frame:
        length = struct.unpack("<I", _receive_exactly(peer, 4, deadline))[0]
        if length > self._configuration.max_message_bytes:
            raise Malformed(f"a frame of {length} bytes")
        return decode_frame(_receive_exactly(peer, length, deadline))

    def _drop(self) -> None:
        peer, self._peer = self._peer, None
        if peer is not None:
            peer.close()


def _reason(answer: Frame) -> str:
    text = answer.values[0] if answer.values else b""
    return to_str(text) if isinstance(text, bytes) and text else to_str(answer.member)


def _has_ended(peer: socket.socket) -> bool:
    """Between calls nothing comes but the end."""
    peer.settimeout(0)
    try:
        peer.recv(1, socket.MSG_PEEK)
    except BlockingIOError:
        return False
    except OSError:
        pass
    return True


def _receive_exactly(peer: socket.socket, count: int, deadline: _Deadline) -> bytes:
    data = bytearray()
    while len(data) < count:
        deadline.apply(peer)
        chunk = peer.recv(count - len(data))
        if not chunk:
            raise ConnectionResetError("the service hung up")
        data += chunk
    return bytes(data)
