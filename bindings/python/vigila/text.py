"""How texts pass between Python and the service, which takes and answers bytes of any value."""

from __future__ import annotations

from typing import Union

Text = Union[str, bytes]


def to_bytes(text: Text) -> bytes:
    return text if isinstance(text, bytes) else text.encode("utf-8", "surrogateescape")


def to_str(data: bytes) -> str:
    return data.decode("utf-8", "surrogateescape")


def to_c_text(text: Text) -> bytes:
    """For functions that take a text to its first zero byte, which would be another one than was given."""
    data = to_bytes(text)
    if b"\0" in data:
        raise ValueError("a zero byte in a text that may not have one")
    return data
