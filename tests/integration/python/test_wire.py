"""The direct wire without a daemon: its bytes, every operation that there is, and servers that misbehave."""

import inspect
import os
import pathlib
import socket
import struct
import subprocess
import tempfile
import threading
import unittest
from typing import Callable

import vigila
from vigila.client import token_or_raise
from vigila.configuration import Configuration
from vigila.services import Accounts, Administration, Rules
from vigila.text import Text
from vigila.wire import Connection, Malformed, Signed, decode_frame, encode_frame, encode_value

# What the C interface asks, and what no server of this version does.
ELSEWHERE = {
    "Authenticate",
    "AuthenticateHttp",
    "AuthenticateWsse",
    "IsAuthenticated",
    "IsProtected",
    "Authorize",
    "GetNonce",
    "TestLdap",
    "AllowHttpDigest",
}


class Bytes(unittest.TestCase):
    def test_the_documented_example_is_what_is_sent(self) -> None:
        self.assertEqual(
            encode_frame(1, 1, b"tevra.msgbus"),
            bytes.fromhex("1a000000 0100 01000000 0c000000") + b"tevra.msgbus" + bytes(4),
        )
        self.assertEqual(
            encode_frame(
                4, 1, b"tevra.interfaces.ISecurityProvider", b"IsProtected", [b"/system"]
            ),
            bytes.fromhex("47000000 0400 01000000 22000000")
            + b"tevra.interfaces.ISecurityProvider"
            + bytes.fromhex("0b000000")
            + b"IsProtected"
            + bytes.fromhex("73 07000000")
            + b"/system",
        )

    def test_every_value_comes_back(self) -> None:
        values = [True, False, 0, 0xFFFFFFFF, Signed(-1), b"", b"\0\xff", [], [b"", b"a"]]
        frame = decode_frame(encode_frame(5, 7, b"i", b"m", values)[4:])
        self.assertEqual(frame, (5, 7, b"m", values))

    def test_numbers_that_do_not_fit_are_refused(self) -> None:
        for value in (-1, 1 << 32, Signed(1 << 31)):
            with self.assertRaises(struct.error):
                encode_value(value)

    def test_a_frame_that_ends_too_soon_is_malformed(self) -> None:
        whole = encode_frame(5, 7, b"i", b"m", [b"text", [b"a", b"b"], True, 5])[4:]
        # The frame is also one where it ends behind a value.
        ends = {len(encode_frame(5, 7, b"i", b"m", [b"text", [b"a", b"b"], True][:n])) - 4 for n in range(4)}
        for length in range(len(whole)):
            if length not in ends:
                with self.assertRaises(Malformed, msg=str(length)):
                    decode_frame(whole[:length])


class Tokens(unittest.TestCase):
    def test_what_is_in_the_place_of_a_token_is_raised(self) -> None:
        for answer, kind in (
            (b"NO_TOKEN", vigila.LogonRefused),
            (b"DISABLED", vigila.AccountLocked),
            (b"_EXPIRED", vigila.PasswordExpired),
            (b"NODIGEST", vigila.DigestNotAllowed),
            (b"", vigila.Unavailable),
        ):
            with self.assertRaises(vigila.VigilaError) as raised:
                token_or_raise(answer)
            self.assertIs(type(raised.exception), kind)
        self.assertEqual(token_or_raise(b"0123ABCD"), "0123ABCD")


class Operations(unittest.TestCase):
    """A method for each operation, with its arguments: new ones need a line in vigila/services.py."""

    SAMPLES = {Text: "x", "Text": "x", "str": "x", "int": 1, "bool": True}

    def called(self, service: type) -> set[str]:
        """What the service's methods send, as vigilad --list-operations writes it without names."""
        sent: set[str] = set()
        instance = service(configuration=Configuration())

        def record(interface: str, member: str, values: list) -> list:
            letters = "".join(" " + chr(encode_value(value)[0]) for value in values)
            sent.add(f"{interface} {member}{letters}")
            raise vigila.Unavailable

        instance._connection.call = record
        for name, method in inspect.getmembers(instance, inspect.ismethod):
            if name.startswith("_") or name in ("call", "close"):
                continue
            arguments = [
                self.SAMPLES.get(parameter.annotation, [])
                for parameter in inspect.signature(method).parameters.values()
            ]
            try:
                for _ in method(*arguments):
                    pass
            except vigila.Unavailable:
                pass
        return sent

    def test_every_operation_has_a_method_with_its_arguments(self) -> None:
        listed = subprocess.run(
            [os.environ["VIGILAD"], "--list-operations"], check=True, capture_output=True, text=True
        )
        served = set()
        for line in listed.stdout.splitlines():
            _, interface, member, *arguments = line.split(" ->")[0].split(" ")
            if member not in ELSEWHERE:
                served.add(" ".join([interface, member, *arguments[::2]]))
        self.assertGreater(len(served), 20)
        sent = self.called(Accounts) | self.called(Administration) | self.called(Rules)
        self.assertEqual(sent, served)


class Server:
    """Takes one connection after the other and lets `answer` do what it likes with it."""

    def __init__(self, path: pathlib.Path, answer: Callable[[socket.socket], None]) -> None:
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(path))
        self._listener.listen()
        self._answer = answer
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def stop(self) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()

    def _serve(self) -> None:
        while True:
            try:
                peer, _ = self._listener.accept()
            except OSError:
                return
            with peer:
                try:
                    self._answer(peer)
                except OSError:
                    pass


WELCOME = encode_frame(2, 1, b"tevra.msgbus", b"", [1, 2, 3])


def welcome_then(answer: bytes) -> Callable[[socket.socket], None]:
    def serve(peer: socket.socket) -> None:
        peer.recv(4096)
        peer.sendall(WELCOME)
        if peer.recv(4096):
            peer.sendall(answer)

    return serve


class Servers(unittest.TestCase):
    def call(self, answer: Callable[[socket.socket], None], times: int = 1, **options) -> list:
        with tempfile.TemporaryDirectory() as directory:
            server = Server(pathlib.Path(directory) / "a.b", answer)
            connection = Connection("a.b", Configuration(runtime_dir=directory, **options))
            try:
                for _ in range(times):
                    results = connection.call("i", "m", [b"x"])
                return results
            finally:
                connection.close()
                server.stop()

    def assert_unavailable(self, answer: Callable[[socket.socket], None], text: str, **options) -> None:
        with self.assertRaisesRegex(vigila.Unavailable, text):
            self.call(answer, **options)

    def test_an_answer_may_come_in_pieces(self) -> None:
        def serve(peer: socket.socket) -> None:
            peer.recv(4096)
            for byte in WELCOME:
                peer.sendall(bytes([byte]))
            peer.recv(4096)
            for byte in encode_frame(5, 1, b"", b"", [b"text"]):
                peer.sendall(bytes([byte]))

        self.assertEqual(self.call(serve), [b"text"])

    def test_a_connection_is_used_again(self) -> None:
        connections = []

        def serve(peer: socket.socket) -> None:
            connections.append(peer)
            peer.recv(4096)
            peer.sendall(WELCOME)
            while request := peer.recv(4096):
                serial = struct.unpack_from("<I", request, 6)[0]
                peer.sendall(encode_frame(5, serial, b"", b"", [serial]))

        self.assertEqual(self.call(serve, times=3), [3])
        self.assertEqual(len(connections), 1)

    def test_a_connection_that_has_ended_is_made_anew(self) -> None:
        serials = []

        def serve(peer: socket.socket) -> None:
            peer.recv(4096)
            peer.sendall(WELCOME)
            serial = struct.unpack_from("<I", peer.recv(4096), 6)[0]
            serials.append(serial)
            peer.sendall(encode_frame(5, serial, b"", b"", []))

        # Whether the end is seen before the next call or in it is chance; only the first is repaired.
        for _ in range(20):
            try:
                self.call(serve, times=2)
                break
            except vigila.Unavailable:
                serials.clear()
        self.assertEqual(serials, [1, 2])

    def test_errors_become_exceptions(self) -> None:
        prefix = b"org.freedesktop.DBus.Error."
        for name, kind in (
            (b"AccessDenied", vigila.AccessDenied),
            (b"InvalidArgs", vigila.WrongArguments),
            (b"UnknownMethod", vigila.WrongArguments),
            (b"Failed", vigila.OperationFailed),
            (b"NotSupported", vigila.OperationFailed),
        ):
            with self.assertRaises(kind) as raised:
                self.call(welcome_then(encode_frame(6, 1, b"", prefix + name, [b"why \xff"])))
            self.assertEqual(str(raised.exception), "why \udcff")

    def test_a_refused_connection_says_why(self) -> None:
        def refuse(name: bytes) -> Callable[[socket.socket], None]:
            return lambda peer: peer.sendall(encode_frame(3, 1, b"tevra.msgbus", name, [b"too many"]))

        self.assert_unavailable(refuse(b"tevra.msgbus.Error.Limit"), "too many")
        with self.assertRaisesRegex(vigila.AccessDenied, "too many"):
            self.call(refuse(b"org.freedesktop.DBus.Error.AccessDenied"))

    def test_nonsense_ends_the_connection(self) -> None:
        self.assert_unavailable(welcome_then(encode_frame(5, 2, b"")), "another call")
        self.assert_unavailable(welcome_then(encode_frame(7, 1, b"")), "another call")
        self.assert_unavailable(welcome_then(struct.pack("<I", 1025)), "1025 bytes", max_message_bytes=1024)
        self.assert_unavailable(welcome_then(struct.pack("<I", 3) + b"\5\0\1"), "middle of a value")
        self.assert_unavailable(
            welcome_then(encode_frame(5, 1, b"")[:-1]), "hung up"
        )
        self.assert_unavailable(welcome_then(encode_frame(5, 1, b"", b"", [True] * 65)), "too many values")
        self.assert_unavailable(lambda peer: None, "hung up|reset")
        self.assert_unavailable(lambda peer: peer.sendall(encode_frame(5, 1, b"")), "no welcome")

    def test_a_server_that_says_nothing_is_given_up(self) -> None:
        self.assert_unavailable(lambda peer: peer.recv(1 << 16) and peer.recv(1), "", timeout=0.05)

    def test_a_server_of_another_user_is_not_believed(self) -> None:
        if os.geteuid() != 0:
            self.skipTest("only root can play another user")
        with tempfile.TemporaryDirectory() as directory:
            os.chmod(directory, 0o777)
            os.seteuid(65534)
            try:
                server = Server(
                    pathlib.Path(directory) / "a.b", welcome_then(encode_frame(5, 1, b""))
                )
            finally:
                os.seteuid(0)
            try:
                for user, believed in (("root", False), ("no such user", False), ("65534", True)):
                    connection = Connection(
                        "a.b", Configuration(runtime_dir=directory, service_user=user)
                    )
                    if believed:
                        self.assertEqual(connection.call("i", "m", []), [])
                    else:
                        with self.assertRaisesRegex(vigila.Unavailable, "served by user 65534"):
                            connection.call("i", "m", [])
                    connection.close()
            finally:
                server.stop()


class ReadingTheConfiguration(unittest.TestCase):
    def load(self, text: str) -> Configuration:
        with tempfile.NamedTemporaryFile("w", suffix=".ini") as file:
            file.write(text)
            file.flush()
            os.environ["TEVRA_PLATFORM_CONFIG"] = file.name
            return Configuration.load()

    def test_reads_what_the_platform_reads(self) -> None:
        loaded = self.load(
            "# comment\n[MsgBus]\n runtime_dir\t=  /a b \r\n;timeout_ms = 1\ntimeout_ms=250\n"
            "[Other]\nruntime_dir = /c\n"
        )
        self.assertEqual(loaded, Configuration(runtime_dir="/a b", timeout=0.25))
        self.assertEqual(self.load(""), Configuration())

    def test_a_named_file_must_be_there(self) -> None:
        os.environ["TEVRA_PLATFORM_CONFIG"] = "/no such file"
        with self.assertRaises(OSError):
            Configuration.load()
        with self.assertRaises(ValueError):
            self.load("[MsgBus]\ntimeout_ms = soon\n")


if __name__ == "__main__":
    unittest.main()
