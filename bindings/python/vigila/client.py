"""What is asked on every request, over the C interface of the client library."""

from __future__ import annotations

import ctypes
from types import TracebackType
from typing import Any, Optional, Type

from .errors import AccountLocked, DigestNotAllowed, LogonRefused, PasswordExpired, Unavailable
from .services import Accounts
from .text import Text, to_bytes, to_c_text, to_str

LIBRARY = "libvigila-client.so.1"

_TOKEN_SIZE = 9
_NONCE_SIZE = 33
_WOULD_HAVE_TO_ASK = -1

_REFUSALS = {
    "NO_TOKEN": LogonRefused("wrong name or password"),
    "DISABLED": AccountLocked("locked after too many wrong passwords"),
    "_EXPIRED": PasswordExpired("the password has expired, or the nonce is too old"),
    "NODIGEST": DigestNotAllowed("the account cannot log on with a digest"),
}

_TEXT = ctypes.c_char_p
_NUMBER = ctypes.c_uint
_TRUTH = ctypes.c_int
_HANDLE = ctypes.c_void_p

# Every function that takes a client and answers a truth value, and what else it takes.
_FUNCTIONS: dict[str, list[Any]] = {
    "vigila_authenticate": [_TEXT, _NUMBER, _TEXT, _NUMBER, _TEXT, _TEXT],
    "vigila_authenticate_http": [_TEXT, _TEXT, _TEXT, _TRUTH, _TEXT, _TEXT, _TEXT, _TEXT, _TEXT, _TEXT],
    "vigila_authenticate_wsse": [_TEXT, _TEXT, _TEXT, _TEXT, _TEXT, _TEXT],
    "vigila_authorize": [_TEXT, _TEXT],
    "vigila_is_authenticated": [_TEXT],
    "vigila_is_protected": [_TEXT],
    "vigila_try_authorize": [_TEXT, _TEXT],
    "vigila_try_is_protected": [_TEXT],
    "vigila_get_nonce": [_TEXT],
}


def _load(library: str) -> ctypes.CDLL:
    loaded = ctypes.CDLL(library)
    loaded.vigila_open.argtypes = []
    loaded.vigila_open.restype = _HANDLE
    loaded.vigila_close.argtypes = [_HANDLE]
    loaded.vigila_close.restype = None
    for name, arguments in _FUNCTIONS.items():
        function = getattr(loaded, name)
        function.argtypes = [_HANDLE, *arguments]
        function.restype = _TRUTH
    return loaded


def token_or_raise(answer: bytes) -> str:
    """What a logon answered, or the exception that it stands for."""
    text = to_str(answer)
    if not text:
        raise Unavailable("the service did not answer")
    refusal = _REFUSALS.get(text)
    if refusal is not None:
        raise type(refusal)(*refusal.args)
    return text


class Client:
    """One client of the service. Use it in a `with`, or call close.

    Any thread may call any method at the same time, save close, which must be the last one and the only one
    under way; other threads run while a call waits. A client belongs to the process that opened it: after
    os.fork the child opens its own. The server need not be running. A platform configuration that cannot be
    used ends the process, as it does in C.

    A logon with `share` shares a session that the same credentials opened before. So does every logon that this
    client made itself within the last second and a half: it is answered from memory.
    """

    def __init__(self, library: str = LIBRARY) -> None:
        self._library = _load(library)
        self._client: Optional[int] = self._library.vigila_open()
        self._accounts = Accounts()

    def __enter__(self) -> Client:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def close(self) -> None:
        self._accounts.close()
        client, self._client = self._client, None
        self._library.vigila_close(client)  # of none, too

    # Logons answer a session's token. They raise LogonRefused or one of its kinds, or Unavailable.

    def authenticate(self, name: Text, password: Text, *, share: bool = False) -> str:
        name, password = to_bytes(name), to_bytes(password)
        return self._logon(
            "vigila_authenticate", name, len(name), password, len(password), share=share
        )

    def authenticate_http(
        self,
        name: Text,
        nonce: Text,
        ha2: Text,
        response: Text,
        *,
        sess: bool = False,
        qop: Text = "",
        cnonce: Text = "",
        nc: Text = "",
        share: bool = False,
    ) -> str:
        """An HTTP digest logon; `sess` for the session variants of the algorithm."""
        head = [to_c_text(text) for text in (name, nonce, ha2)]
        tail = [to_c_text(text) for text in (qop, cnonce, nc, response)]
        return self._logon("vigila_authenticate_http", *head, int(sess), *tail, share=share)

    def authenticate_wsse(
        self, name: Text, digest: Text, nonce: Text, created: Text, *, share: bool = False
    ) -> str:
        """A UsernameToken logon."""
        texts = [to_c_text(text) for text in (name, digest, nonce, created)]
        return self._logon("vigila_authenticate_wsse", *texts, share=share)

    # Truth values. No answer counts as no, so what is handed out hangs on authorize.

    def authorize(self, token: Text, path: Text) -> bool:
        """May the session reach the path? A grant restarts its idle time."""
        return self._ask("vigila_authorize", token, path) == 1

    def is_authenticated(self, token: Text) -> bool:
        return self._ask("vigila_is_authenticated", token) == 1

    def is_protected(self, path: Text) -> bool:
        """Does the path ask for a logon? False also when the service did not answer."""
        return self._ask("vigila_is_protected", path) == 1

    # The same from memory, without waiting; None when the service would have to be asked.

    def try_authorize(self, token: Text, path: Text) -> Optional[bool]:
        return self._known(self._ask("vigila_try_authorize", token, path))

    def try_is_protected(self, path: Text) -> Optional[bool]:
        return self._known(self._ask("vigila_try_is_protected", path))

    def get_nonce(self) -> str:
        nonce = ctypes.create_string_buffer(_NONCE_SIZE)
        self._call("vigila_get_nonce", nonce)
        if not nonce.value:
            raise Unavailable("the service did not answer")
        return to_str(nonce.value)

    # Not in the C interface: over the wire, with its errors.

    def allowed_paths(self, token: Text) -> list[str]:
        return self._accounts.get_allowed_paths(token)

    def allowed_permissions(self, token: Text) -> list[str]:
        return self._accounts.get_allowed_permissions(token)

    def user_of(self, token: Text) -> str:
        """The session's user; empty without a session."""
        return self._accounts.get_credentials(token)

    def logout(self, token: Text) -> None:
        self._accounts.logout(token)

    def _call(self, function: str, *arguments: Any) -> int:
        if self._client is None:
            raise ValueError("the client is closed")
        return int(getattr(self._library, function)(self._client, *arguments))

    def _ask(self, function: str, *texts: Text) -> int:
        return self._call(function, *[to_c_text(text) for text in texts])

    def _logon(self, function: str, *arguments: Any, share: bool) -> str:
        token = ctypes.create_string_buffer(_TOKEN_SIZE)
        self._call(function, *arguments, b"cache" if share else b"", token)
        return token_or_raise(token.value)

    @staticmethod
    def _known(answer: int) -> Optional[bool]:
        return None if answer == _WOULD_HAVE_TO_ASK else answer == 1
