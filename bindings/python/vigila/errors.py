"""What goes wrong. Every exception of this package is a VigilaError; a ValueError is the caller's mistake."""

from __future__ import annotations


class VigilaError(Exception):
    """The base of all."""


class Unavailable(VigilaError):
    """The service gave no answer: not running, not trusted, or too late. The next call tries again."""


class LogonRefused(VigilaError):
    """Wrong name or password, or whatever else a logon is refused for without a reason."""


class AccountLocked(LogonRefused):
    """Too many wrong passwords."""


class PasswordExpired(LogonRefused):
    """The password has expired; of an HTTP digest logon, the nonce is too old."""


class DigestNotAllowed(LogonRefused):
    """The account cannot log on with a digest."""


class AccessDenied(VigilaError):
    """The caller lacks the role, or the session on whose behalf it called may not do this."""


class WrongArguments(VigilaError):
    """The service does not know the operation, or takes other arguments: one of the two is older."""


class OperationFailed(VigilaError):
    """The service could not do it; its log says more."""


class Refused(VigilaError):
    """An operation that was carried out to a refusal; `code` is the number by which the service says why."""

    def __init__(self, operation: str, code: int) -> None:
        reason = _REASONS.get(code, "for a reason that this version does not know")
        super().__init__(f"{operation}: {reason} (code {code})")
        self.code = code


_REASONS = {
    1: "the name is too short",
    2: "the name is too long",
    3: "the name has a character that names may not have",
    4: "the name is taken",
    5: "the password is too short",
    6: "the password is too long",
    7: "there is no such group",
    8: "this is the group of nobody, who has no password",
    9: "there are too many users",
    10: "there is no such user",
    11: "nobody and the last administrator stay",
    12: "the request is malformed",
    14: "the password was used before",
    15: "the password was changed too recently",
    16: "the account is locked",
    17: "the password has expired",
    18: "the password is wrong",
    19: "there is no such session",
    20: "there is no rule that can be changed",
    21: "another backup or restoration is under way",
    22: "the service has given this up for another one",
    23: "the backup is damaged, cut short, or not a backup",
    24: "the backup is of a later version",
    25: "the passphrase is not the one of the backup",
    26: "the backup is too large",
    27: "the passphrase of the backup is too short",
    28: "the accounts have changed in the meantime",
}
