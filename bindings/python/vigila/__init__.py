"""The device's authentication service for programs in Python.

Client asks what is asked on every request, through the client library and its memory. The services of the
administration (Administration, Accounts, Rules) speak the documented wire of the direct transport.

Texts: a str goes as UTF-8 and bytes go as they are; answers are str. Names and passwords may hold any bytes:
those that are not UTF-8 are lone surrogates in a str, as Python's file names have them (PEP 383), and go back
as the same bytes.
"""

from .client import Client
from .configuration import Configuration
from .errors import (
    AccessDenied,
    AccountLocked,
    DigestNotAllowed,
    LogonRefused,
    OperationFailed,
    PasswordExpired,
    Refused,
    Unavailable,
    VigilaError,
    WrongArguments,
)
from .services import Accounts, Administration, Rules

__all__ = [
    "AccessDenied",
    "AccountLocked",
    "Accounts",
    "Administration",
    "Client",
    "Configuration",
    "DigestNotAllowed",
    "LogonRefused",
    "OperationFailed",
    "PasswordExpired",
    "Refused",
    "Rules",
    "Unavailable",
    "VigilaError",
    "WrongArguments",
]
