"""The service's interfaces over the direct wire, a method for each operation. docs/reference/bus.md says what
they do, to whom, and what the members of the answers are."""

from __future__ import annotations

import json
from types import TracebackType
from typing import Any, Dict, Iterator, List, Optional, Sequence, Type, TypeVar, Union

from .configuration import Configuration
from .errors import OperationFailed, Refused
from .text import Text, to_bytes, to_str
from .wire import Connection, Value

Answer = Dict[str, Any]
Argument = Union[bool, int, Text, Sequence[Text]]
_Service = TypeVar("_Service", bound="_Base")
_Kind = TypeVar("_Kind")


def _to_value(argument: Argument) -> Value:
    if isinstance(argument, (bool, int)):
        return argument
    if isinstance(argument, (str, bytes)):
        return to_bytes(argument)
    return [to_bytes(entry) for entry in argument]


class _Base:
    """One connection, made when it is needed. Use it in a `with`, or call close. Any thread may call."""

    INTERFACE = ""
    DESTINATION = "tevra.SecurityProvider"

    def __init__(self, configuration: Optional[Configuration] = None) -> None:
        self._connection = Connection(self.DESTINATION, configuration)

    def __enter__(self: _Service) -> _Service:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def close(self) -> None:
        self._connection.close()

    def call(self, operation: str, *arguments: Argument) -> list[Value]:
        """Any operation, by its name: a bool is `b`, another int `u`, a text `s`, a list of texts `l`."""
        return self._connection.call(self.INTERFACE, operation, [_to_value(a) for a in arguments])

    def _results(self, kinds: Sequence[type], operation: str, *arguments: Argument) -> list[Any]:
        results = self.call(operation, *arguments)
        if len(results) != len(kinds) or not all(map(isinstance, results, kinds)):
            raise OperationFailed(f"{operation} answered other types than it does in this version")
        return results

    def _one(self, kind: Type[_Kind], operation: str, *arguments: Argument) -> _Kind:
        result: _Kind = self._results([kind], operation, *arguments)[0]
        return result

    def _text(self, operation: str, *arguments: Argument) -> str:
        return to_str(self._one(bytes, operation, *arguments))

    def _texts(self, operation: str, *arguments: Argument) -> list[str]:
        texts: list[bytes] = self._results([list], operation, *arguments)[0]
        return [to_str(text) for text in texts]

    def _apply(self, operation: str, *arguments: Argument) -> None:
        code = self._one(int, operation, *arguments)
        if code != 0:
            raise Refused(operation, code)


class Administration(_Base):
    """Accounts' state, sessions, explanations. `token` is the session of the person on whose behalf it is
    asked; a program with the role admin may leave it empty.

    Every method answers the operation's JSON, or raises Refused with its code.
    """

    INTERFACE = "tevra.interfaces.IAdministration1"

    def __init__(self, token: Text = "", configuration: Optional[Configuration] = None) -> None:
        super().__init__(configuration)
        self.token = token

    # An operation is a line here, in the order of its arguments.

    # fmt: off
    def get_accounts(self, cursor: Text = "", limit: int = 0) -> Answer: return self._ask("GetAccounts", cursor, limit)
    def get_account(self, name: Text) -> Answer: return self._ask("GetAccount", name)
    def unlock_account(self, name: Text) -> Answer: return self._ask("UnlockAccount", name)
    def get_sessions(self, user: Text = "", cursor: Text = "", limit: int = 0) -> Answer: return self._ask("GetSessions", user, cursor, limit)
    def end_session(self, identifier: Text) -> Answer: return self._ask("EndSession", identifier)
    def end_sessions(self, user: Text, spare: bool = False) -> Answer: return self._ask("EndSessions", user, spare)
    def set_session_source(self, address: Text) -> Answer: return self._ask("SetSessionSource", address)
    def explain_account(self, name: Text, path: Text) -> Answer: return self._ask("ExplainAccount", name, path)
    def explain_session(self, session: Text, path: Text) -> Answer: return self._ask("ExplainSession", session, path)
    def get_rule_effect(self, path: Text, rule: Text) -> Answer: return self._ask("GetRuleEffect", path, rule)
    def check_password(self, name: Text, proposed: Text) -> Answer: return self._ask("CheckPassword", name, proposed)
    def change_password(self, present: Text, proposed: Text) -> Answer: return self._ask("ChangePassword", present, proposed)
    def start_backup(self, passphrase: Text) -> Answer: return self._ask("StartBackup", passphrase)
    def get_backup(self, identifier: Text, offset: int = 0) -> Answer: return self._ask("GetBackup", identifier, offset)
    def put_backup(self, identifier: Text, offset: int, piece: Text) -> Answer: return self._ask("PutBackup", identifier, offset, piece)
    def start_restore(self, identifier: Text, passphrase: Text) -> Answer: return self._ask("StartRestore", identifier, passphrase)
    def get_restore_plan(self, identifier: Text) -> Answer: return self._ask("GetRestorePlan", identifier)
    def commit_restore(self, identifier: Text) -> Answer: return self._ask("CommitRestore", identifier)
    # fmt: on

    def accounts(self) -> Iterator[Answer]:
        """Every account, page by page."""
        page = self.get_accounts()
        while True:
            yield from page["Accounts"]
            if "Next" not in page:
                return
            page = self.get_accounts(page["Next"])

    def sessions(self, user: Text = "") -> Iterator[Answer]:
        """Every session, of everybody or of one user, page by page."""
        page = self.get_sessions(user)
        while True:
            yield from page["Sessions"]
            if "Next" not in page:
                return
            page = self.get_sessions(user, page["Next"])

    def _ask(self, operation: str, *arguments: Argument) -> Answer:
        answer: Answer = json.loads(self._one(bytes, operation, self.token, *arguments))
        if answer.get("Code", 0) != 0:
            raise Refused(operation, answer["Code"])
        return answer


class Accounts(_Base):
    """Accounts and passphrases, for programs with the role admin, and questions about tokens, for those with the
    role service. What answers a code raises Refused when it is not 0."""

    INTERFACE = "tevra.interfaces.ISecurityProvider"

    def get_users(self) -> list[Answer]:
        users: list[Answer] = json.loads(self._text("GetUsers"))["Users"]
        return users

    def add_user(self, name: str, group: int, password: str) -> None:
        """Group 1, 2, 4 or 8: administrators, managers, operators, viewers."""
        self.add_users([{"Name": name, "Group": group, "Password": password}])

    def add_users(self, users: Sequence[Answer]) -> None:
        self._apply("AddUsers", _document(users))

    def modify_users(self, users: Sequence[Answer]) -> None:
        self._apply("ModifyUsers", _document(users))

    def delete_users(self, names: Sequence[Text]) -> None:
        self._apply("DeleteUsers", list(names))

    def validate_password(self, name: Text, current: Text, proposed: Text) -> None:
        self._apply("ValidatePassword", name, current, proposed)

    def get_expiration(self, name: Text) -> tuple[int, str]:
        """Days since the password expired, negative before, 2147483647 for never; and the instant."""
        days, expires = self._results([int, bytes], "GetExpiration", name)
        return int(days), to_str(expires)

    def invalidate(self, name: Text) -> None:
        self._results([], "Invalidate", name)

    def logout(self, token: Text) -> bool:
        return self._one(bool, "Logout", token)

    def get_credentials(self, token: Text) -> str:
        return self._text("GetCredentials", token)

    def get_allowed_paths(self, token: Text) -> List[str]:
        return self._texts("GetAllowedPaths", token)

    def get_allowed_permissions(self, token: Text) -> List[str]:
        return self._texts("GetAllowedPermissions", token)

    def add_passphrase(self, phrase: Text, alias: Text) -> str:
        """The identifier; empty when there is none to add."""
        return self._text("AddPassphrase", phrase, alias)

    def get_passphrases(self) -> list[Answer]:
        passphrases: list[Answer] = json.loads(self._text("GetPassphrases"))["Passphrases"]
        return passphrases

    def get_passphrase(self, identifier: Text) -> str:
        return self._text("GetPassphrase", identifier)

    def delete_passphrase(self, identifier: Text) -> bool:
        return self._one(bool, "DeletePassphrase", identifier)


class Rules(_Base):
    """The access rules that can be changed, by their paths as they are listed."""

    INTERFACE = "krand.interfaces.PermissionTarget"
    DESTINATION = "krand.target.permission"

    def get_access_rule(self, path: Text) -> Optional[str]:
        """None where there is no such rule."""
        status, rule = self._results([int, bytes], "getAccessRule", path)
        return to_str(rule) if status == 0 else None

    def set_access_rule(self, path: Text, rule: Text) -> bool:
        return self._one(int, "setAccessRule", path, rule) == 0


def _document(users: Sequence[Answer]) -> bytes:
    # Not escaped: lone surrogates stand for bytes, and go as such.
    return to_bytes(json.dumps({"Users": list(users)}, ensure_ascii=False))
