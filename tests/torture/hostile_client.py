"""The client of a case, in a process of its own that takes one program after the other and is begun anew where it ends.

Where the system lets it, that process may write to its data directories alone.
"""

# The names of the library that begin with an underscore stand in no stub.
# mypy: disable-error-code="attr-defined"

import base64
import dataclasses
import json
import logging
import os
import pathlib
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import traceback
import urllib.parse
from typing import Any

from torture.case import module_environment

# ---- within the process ---------------------------------------------------------------------------------------------


class Memory(logging.Handler):
    """All that the library logs, as a reader of any format of it would see it."""

    texts: list[str] = []

    def emit(self, record: logging.LogRecord) -> None:
        self.texts.append(f"{record.levelname} {record.getMessage()} {vars(record)}")


def shown(error: BaseException | None) -> str:
    if error is None:
        return ""
    return f"{error} {error!r} {error.args} {vars(error)} {getattr(error, 'object', '')} {''.join(traceback.format_exception(error))}"


def kilobytes(field: str) -> int:
    return int(open("/proc/self/status").read().split(field + ":")[1].split()[0])


def client_process() -> None:
    import faulthandler
    import types

    import brackenfen.sync as sync

    faulthandler.enable()
    faulthandler.register(signal.SIGUSR1)
    answers = os.fdopen(os.dup(1), "w")
    os.dup2(2, 1)
    log = logging.getLogger("brackenfen.sync")
    builtin = sync._sync_backoff_module()

    class Policy:
        def delay_seconds(self, attempt_index: int) -> float:
            return 0.01

        def sleep(self, wait_seconds: float, *, sleep: Any, stop_requested: Any) -> bool:
            sleep(wait_seconds)
            return not stop_requested()

    at_start, usual = kilobytes("VmRSS"), dict(os.environ)
    for line in sys.stdin:
        given = json.loads(line)
        os.environ.clear()
        os.environ.update(usual | given["environment"])
        for name in [name for name in sys.modules if name.startswith("brackenfen.") and name != "brackenfen.sync"]:
            del sys.modules[name]
        sys.modules["brackenfen.sync_backoff"] = types.ModuleType("brackenfen.sync_backoff")
        vars(sys.modules["brackenfen.sync_backoff"]).update({**vars(builtin), "SyncBackoffPolicy": Policy})
        log.handlers, log.filters, log.propagate, log.level = [Memory()], [], False, logging.DEBUG
        log.setLevel(logging.DEBUG)
        Memory.texts = []
        before = dict(sync._SYNC_EVENT_COALESCE_COUNTS)
        scope = {"sync": sync, "os": os, "sys": sys, "result": None, **given["variables"]}
        scope["manager"] = lambda scope=scope: sync.SyncManager(scope["directory"], scope["url"], lambda: scope["token"])
        raised: BaseException | None = None
        with open("/proc/self/clear_refs", "w") as file:
            file.write("5")  # the peak begins anew
        try:
            exec(given["code"], scope)
        except BaseException as error:
            raised = error
        events = [[dict(key), count - before.get(key, 0)] for key, count in dict(sync._SYNC_EVENT_COALESCE_COUNTS).items() if count > before.get(key, 0)]
        report = dict(
            error=f"{type(raised).__name__}: {raised}" if raised is not None else "", shown=shown(raised), log="\n".join(Memory.texts), events=events,
            result=scope["result"], grown=kilobytes("VmHWM") - at_start, kept=kilobytes("VmRSS") - at_start,
        )  # fmt: skip
        scope.clear()
        raised = None
        answers.write(json.dumps(report, default=repr) + "\n")
        answers.flush()


# ---- outside of it --------------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Report:
    error: str  # class and text, or nothing
    shown: str
    log: str
    events: list[tuple[dict[str, str], int]]
    result: Any
    grown: int  # KiB that its peak lies above the start of the process
    kept: int

    def reasons(self, *kinds: str) -> set[str]:
        """Of the events of those kinds."""
        return {fields.get("reason", "").strip("'") for fields, _ in self.events if fields["event_type"].strip("'") in kinds}


JAIL = 'mount --make-rprivate / && mount --bind "$0" "$0" && mount -o remount,bind,ro / && exec "$@"'
DEADLINE_SECONDS = 90  # of a program; the longest takes a few on a quiet machine


def jailed(folder: pathlib.Path, command: list[str]) -> list[str]:
    """The command so that it may write below the folder alone, where that can be had."""
    whole = ["unshare", "-m", "sh", "-c", JAIL, str(folder), *command]
    return whole if subprocess.run(["unshare", "-m", "sh", "-c", JAIL, str(folder), "true"], capture_output=True).returncode == 0 else command


class Client:
    """`folder` is where it may write, where it is jailed."""

    def __init__(self, folder: pathlib.Path, is_jailed: bool = True) -> None:
        command = [sys.executable, __file__]
        self.command = jailed(folder, command) if is_jailed else command
        self.errors = tempfile.TemporaryFile("w+")
        self.process: subprocess.Popen[str] | None = None

    def run(self, code: str, environment: dict[str, str] | None = None, deadline: float = DEADLINE_SECONDS, **variables: Any) -> Report:
        if self.process is None:
            modules = [os.environ.get("PYTHONPATH", ""), str(pathlib.Path(__file__).parents[2] / "tools/command")]
            whole = os.environ | module_environment() | {"PYTHONPATH": ":".join(modules)}
            self.process = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors, text=True, env=whole)
        assert self.process.stdin and self.process.stdout
        self.process.stdin.write(json.dumps({"code": code, "environment": environment or {}, "variables": variables}) + "\n")
        self.process.stdin.flush()
        if not select.select([self.process.stdout], [], [], deadline)[0]:
            self.process.send_signal(signal.SIGUSR1)
            select.select([self.process.stdout], [], [], 0.5)
            raise AssertionError(f"it hangs: {self.end()}")
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError(f"the client ended with {self.process.wait()}: {self.end()}")
        report = Report(**json.loads(line))
        if report.kept > 24 << 10:
            self.end()  # what the allocator keeps would count against the next
        self.errors.seek(0)
        told = self.errors.read()
        assert not told or "Warning" in told, f"standard error: {self.end()}"
        return report

    def end(self) -> str:
        """Ends the process, and returns what it wrote to standard error."""
        if self.process:
            self.process.kill()
            self.process.communicate()
        self.process = None
        self.errors.seek(0)
        told = self.errors.read()
        self.errors.seek(0)
        self.errors.truncate()
        return told


class Arena(threading.local):
    """A client and a folder for data directories, of each thread that runs cases; what lies around it must stay as it is."""

    def __init__(self) -> None:
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="brackenfen-torture-"))
        self.jail, self.outside = self.root / "jail", self.root / "outside"
        for folder in (self.jail, self.outside):
            folder.mkdir()
        for name in ("file", "manifest.json"):
            (self.outside / name).write_bytes(b"not yours\n" * 50)
        self.client, self.number = Client(self.jail), 0
        self.templates: dict[str, pathlib.Path] = {}
        FOLDERS.append(self)

    def directory(self, template: str = "") -> pathlib.Path:
        """A fresh one, or a copy of a kept one."""
        self.number += 1
        path = self.jail / str(self.number)
        if template:
            shutil.copytree(self.templates[template], path, symlinks=True)
        else:
            path.mkdir()
        return path

    def around(self, directory: pathlib.Path) -> dict[str, Any]:
        """All that lies outside of the directory, as a client that writes there would change it."""
        found: dict[str, Any] = {}
        for path in [*self.outside.rglob("*"), *self.jail.iterdir()]:
            if path != directory and path not in self.templates.values():
                stat = path.lstat()
                content = path.read_bytes() if path.is_file() and path.parent == self.outside else b""
                found[str(path)] = (stat.st_size, stat.st_mtime_ns, stat.st_mode, content)
        return found


FOLDERS: list[Arena] = []


def clear() -> None:
    for arena in FOLDERS:
        arena.client.end()
        shutil.rmtree(arena.root, ignore_errors=True)


def forms(token: str) -> list[str]:
    """How a token may look where somebody packed it."""
    packed = {base64.b64encode(b"x" * shift + token.encode()).decode()[4:-4] for shift in range(3)}
    return [token, urllib.parse.quote(token), urllib.parse.quote(token, ""), json.dumps(token)[1:-1], *packed]


if __name__ == "__main__":
    client_process()
