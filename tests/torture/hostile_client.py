"""The client of a case, in a process of its own that takes one program after the other and is begun anew where it ends.

Where the system lets it, that process may write to its data directories alone.
"""

# The names of the library that begin with an underscore stand in no stub.
# mypy: disable-error-code="attr-defined"

import dataclasses
import faulthandler
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
import types
from typing import Any

from torture.case import module_environment

# ---- within the process ---------------------------------------------------------------------------------------------


class Memory(logging.Handler):
    """All that the library logs, as a reader of any format of it would see it."""

    def __init__(self) -> None:
        super().__init__()
        self.text = ""

    def emit(self, record: logging.LogRecord) -> None:
        self.text += f"{record.levelname} {record.getMessage()} {vars(record)}\n"


class Policy:
    """Waits hardly."""

    def delay_seconds(self, attempt_index: int) -> float:
        return 0.01

    def sleep(self, wait_seconds: float, *, sleep: Any, stop_requested: Any) -> bool:
        sleep(wait_seconds)
        return not stop_requested()


def shown(error: BaseException | None) -> str:
    if error is None:
        return ""
    return f"{error} {error!r} {error.args} {vars(error)} {getattr(error, 'object', '')} {''.join(traceback.format_exception(error))}"


def kilobytes(field: str) -> int:
    return int(pathlib.Path("/proc/self/status").read_text().split(field + ":")[1].split()[0])


def execute(code: str, variables: dict[str, Any], at_start: int) -> dict[str, Any]:
    import brackenfen.sync as sync

    for name in [name for name in sys.modules if name.startswith("brackenfen.") and name != "brackenfen.sync"]:
        del sys.modules[name]
    policy: Any = types.ModuleType("brackenfen.sync_backoff")
    vars(policy).update({**vars(sync._sync_backoff_module()), "SyncBackoffPolicy": Policy})
    sys.modules["brackenfen.sync_backoff"] = policy
    log, memory = logging.getLogger("brackenfen.sync"), Memory()
    log.handlers, log.filters, log.propagate = [memory], [], False
    log.setLevel(logging.DEBUG)
    before = dict(sync._SYNC_EVENT_COALESCE_COUNTS)
    scope = {"sync": sync, "os": os, "sys": sys, "result": None, **variables}
    scope["manager"] = lambda: sync.SyncManager(scope["directory"], scope["url"], lambda: scope["token"])
    raised: BaseException | None = None
    pathlib.Path("/proc/self/clear_refs").write_text("5")  # the peak begins anew
    try:
        exec(code, scope)
    except BaseException as error:
        raised = error
    counts = {key: count - before.get(key, 0) for key, count in dict(sync._SYNC_EVENT_COALESCE_COUNTS).items()}
    try:
        return dict(
            error=f"{type(raised).__name__}: {raised}" if raised is not None else "", shown=shown(raised), log=memory.text,
            events=[[dict(key), count] for key, count in counts.items() if count > 0], result=scope["result"],
            grown=kilobytes("VmHWM") - at_start,
        )  # fmt: skip
    finally:
        scope.clear()


def client_process() -> None:
    faulthandler.enable()
    faulthandler.register(signal.SIGUSR1)
    answers = os.fdopen(os.dup(1), "w")
    os.dup2(2, 1)
    import brackenfen.sync  # noqa: F401  # before memory is counted

    at_start, usual = kilobytes("VmRSS"), dict(os.environ)
    for line in sys.stdin:
        given = json.loads(line)
        os.environ.clear()
        os.environ.update(usual | given["environment"])
        print(json.dumps(execute(given["code"], given["variables"], at_start), default=repr), file=answers, flush=True)


# ---- outside of it --------------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Report:
    error: str  # class and text, or nothing
    shown: str
    log: str
    events: list[tuple[dict[str, str], int]]
    result: Any
    grown: int  # KiB that its peak lies above the start of the process

    def reasons(self, *kinds: str) -> set[str]:
        """Of the events of those kinds."""
        return {fields.get("reason", "").strip("'") for fields, _ in self.events if fields["event_type"].strip("'") in kinds}


JAIL = ("unshare", "-m", "sh", "-c", 'mount --make-rprivate / && mount --bind "$0" "$0" && mount -o remount,bind,ro / && exec "$@"')
DEADLINE_SECONDS = 90  # of a program; the longest takes a few on a quiet machine


class Client:
    """May write below the folder alone, where that can be had."""

    def __init__(self, folder: pathlib.Path) -> None:
        jail = (*JAIL, str(folder))
        holds = subprocess.run([*jail, "true"], capture_output=True).returncode == 0
        self.command = (*jail * holds, sys.executable, __file__)
        self.process: subprocess.Popen[str] | None = None

    def run(self, code: str, environment: dict[str, str] | None = None, deadline: float = DEADLINE_SECONDS, **variables: Any) -> Report:
        if self.process is None:
            self.errors, pipe = tempfile.TemporaryFile("w+"), subprocess.PIPE
            whole = os.environ | module_environment()
            self.process = subprocess.Popen(self.command, stdin=pipe, stdout=pipe, stderr=self.errors, text=True, env=whole)
        assert self.process.stdin and self.process.stdout
        print(json.dumps(dict(code=code, environment=environment or {}, variables=variables)), file=self.process.stdin, flush=True)
        if not select.select([self.process.stdout], [], [], deadline)[0]:
            self.process.send_signal(signal.SIGUSR1)
            select.select([self.process.stdout], [], [], 0.5)
            raise AssertionError(f"it hangs: {self.end()}")
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError(f"the client ended with {self.process.wait()}: {self.end()}")
        report = Report(**json.loads(line))
        if report.grown > 24 << 10:
            told = self.end()  # what the allocator keeps would count against the next
        else:
            self.errors.seek(0)
            told = self.errors.read()
        assert not told or "Warning" in told, f"standard error: {told}"
        return report

    def end(self) -> str:
        """Ends the process, and returns what it wrote to standard error."""
        if self.process is None:
            return ""
        self.process.kill()
        self.process.communicate()
        self.process = None
        self.errors.seek(0)
        return self.errors.read()


class Arena(threading.local):
    """A client and a folder for data directories, of each thread that runs cases; what lies around it must stay as it is."""

    all: list["Arena"] = []

    def __init__(self) -> None:
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="brackenfen-torture-"))
        self.jail, self.outside = self.root / "jail", self.root / "outside"
        for folder in (self.jail, self.outside):
            folder.mkdir()
        for name in ("file", "manifest.json"):
            (self.outside / name).write_bytes(b"not yours\n" * 50)
        self.client, self.number = Client(self.jail), 0
        self.templates: dict[str, pathlib.Path] = {}
        self.all.append(self)

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
        here = {directory, *self.templates.values()}
        found = {path: path.lstat() for path in (*self.outside.rglob("*"), *self.jail.iterdir()) if path not in here}
        contents = {path.name: path.read_bytes() for path in self.outside.iterdir() if path.is_file()}
        return contents | {str(path): (stat.st_size, stat.st_mtime_ns, stat.st_mode) for path, stat in found.items()}


if __name__ == "__main__":
    client_process()
