"""A vigilad of the tests' own, on a directory of its own."""

import os
import pathlib
import socket
import subprocess
import tempfile
from typing import Optional

VIGILAD = os.environ["VIGILAD"]
_PATIENCE = 60.0  # seconds; a machine under load is slow, not broken


class Device:
    def __init__(self) -> None:
        self._directory = tempfile.TemporaryDirectory()
        self.path = pathlib.Path(self._directory.name)
        for folder in ("settings", "run"):
            (self.path / folder).mkdir(mode=0o700)
        self.config = self.path / "platform.ini"
        self.config.write_text(
            f"; the tests' own\n[Settings]\ndirectory = {self.path}/settings\n"
            f"[MsgBus]\n runtime_dir = {self.path}/run\ntimeout_ms = 60000\n"
        )
        os.environ["TEVRA_PLATFORM_CONFIG"] = str(self.config)
        self._notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._notify.bind(f"{self.path}/notify")
        self._notify.settimeout(_PATIENCE)
        self._daemon: Optional[subprocess.Popen[bytes]] = None

    def start(self) -> None:
        environment = {**os.environ, "NOTIFY_SOCKET": f"{self.path}/notify"}
        with open(self.path / "log", "ab") as log:
            self._daemon = subprocess.Popen(
                # Nothing is left running by a test that was killed.
                ["/usr/bin/setpriv", "--pdeathsig", "KILL", VIGILAD, "--config", str(self.config)],
                env=environment,
                stderr=log,
            )
        while b"READY=1" not in self._notify.recv(4096):
            pass

    def stop(self) -> None:
        if self._daemon is not None:
            self._daemon.terminate()
            self._daemon.wait(_PATIENCE)
            self._daemon = None

    def remove(self) -> None:
        self.stop()
        self._notify.close()
        self._directory.cleanup()
