"""The part of the host's platform configuration that says where the service is, and who serves it."""

from __future__ import annotations

import os
import pwd
from dataclasses import dataclass

_VARIABLE = "TEVRA_PLATFORM_CONFIG"
_DEFAULT_PATH = "/etc/tevra/platform.ini"


@dataclass(frozen=True)
class Configuration:
    runtime_dir: str = "/run/vigila"
    service_user: str = "root"
    timeout: float = 5.0  # seconds
    max_message_bytes: int = 2097152
    transport: str = "direct"

    @staticmethod
    def load() -> Configuration:
        """Raises OSError and ValueError. Without a file at the default place every value has its default."""
        path = os.environ.get(_VARIABLE) or _DEFAULT_PATH
        values = {}
        if path != _DEFAULT_PATH or os.path.exists(path):
            with open(path, encoding="utf-8", errors="surrogateescape", newline="\n") as file:
                values = _section(file.read(), "MsgBus")
        default = Configuration()
        return Configuration(
            runtime_dir=values.get("runtime_dir", default.runtime_dir),
            service_user=values.get("service_user", default.service_user),
            timeout=float(values.get("timeout_ms", default.timeout * 1000)) / 1000,
            max_message_bytes=int(values.get("max_message_bytes", default.max_message_bytes)),
            transport=values.get("transport", default.transport),
        )

    def trusts(self, uid: int) -> bool:
        if uid in (0, os.geteuid()):
            return True
        if self.service_user.isdigit():
            return uid == int(self.service_user)
        try:
            return uid == pwd.getpwnam(self.service_user).pw_uid
        except KeyError:
            return False


def _section(text: str, wanted: str) -> dict[str, str]:
    section = ""
    values = {}
    for line in text.split("\n"):
        line = line.strip(" \t\r")
        if line.startswith("[") and line.endswith("]"):
            section = line[1:-1].strip(" \t")
        elif "=" in line and line[0] not in "#;" and section == wanted:
            key, value = line.split("=", 1)
            values[key.strip(" \t")] = value.strip(" \t")
    return values
