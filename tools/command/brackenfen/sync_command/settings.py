"""Where directory, server and token come from: options, else the environment, else a small TOML file.

A token is never an argument, which every user of the machine could read, and never a line of the TOML file.
"""

from __future__ import annotations

import contextlib
import os
import select
import shlex
import subprocess
import threading
import time
import tomllib
from collections.abc import Callable, Mapping
from dataclasses import dataclass
from pathlib import Path

from brackenfen.sync_command.exits import SettingsError, TokenError

TOKEN_COMMAND_TIMEOUT_SECONDS = 60.0
TOKEN_COMMAND_LIFETIME_SECONDS = 60.0
LOOK_SECONDS = 0.1
SMALL_BYTES = 2**20
FILE_KEYS = {"directory", "server", "token_file", "token_command", "poll_interval_seconds"}


def read_small(path: Path) -> str:
    """Of a file that people write. Raises OSError, or ValueError that says what is wrong; another that was named by mistake may be vast."""
    with path.open("rb") as stream:
        content = stream.read(SMALL_BYTES + 1)
    if len(content) > SMALL_BYTES:
        raise ValueError("it is longer than such a file is")
    try:
        return content.decode()
    except UnicodeDecodeError:
        raise ValueError("it is no text") from None


class TokenFile:
    """Read for each request, so that a renewed token takes effect at once."""

    def __init__(self, path: Path) -> None:
        self.path = path

    def __call__(self) -> str:
        try:
            token = read_small(self.path).strip()
        except (OSError, ValueError) as error:
            reason = error.strerror if isinstance(error, OSError) else error
            raise TokenError(f"the token file {self.path} cannot be read: {reason}") from None
        if not token:
            raise TokenError(f"the token file {self.path} is empty")
        return token

    def __str__(self) -> str:
        return f"the file {self.path}"


class TokenCommand:
    """Run at most once a minute, by whichever thread asks first. Neither its output nor its arguments are ever shown."""

    def __init__(self, command: tuple[str, ...]) -> None:
        self._command = command
        self._ended = threading.Event()
        self._lock = threading.Lock()
        self._token = ""
        self._until = 0.0

    def __call__(self) -> str:
        with self._lock:
            if time.monotonic() >= self._until:
                self._token = self._run()
                self._until = time.monotonic() + TOKEN_COMMAND_LIFETIME_SECONDS
            return self._token

    def end(self) -> None:
        """Any thread: whoever waits for the program is told at once that it does not end, and it is not run again."""
        self._ended.set()

    def _run(self) -> str:
        try:
            child = subprocess.Popen(self._command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        except OSError as error:
            raise TokenError(f"{self} cannot be run: {error.strerror}") from None
        except ValueError:
            raise TokenError(f"{self} cannot be run: its name is none") from None
        with child:
            try:
                printed = self._printed(child)
            except BaseException:
                child.kill()
                raise
        if child.returncode != 0:
            raise TokenError(f"{self} ended with exit code {child.returncode}")
        try:
            token = printed.decode().strip()
        except UnicodeDecodeError:
            raise TokenError(f"{self} printed no text") from None
        if not token:
            raise TokenError(f"{self} printed nothing")
        return token

    def _printed(self, child: subprocess.Popen[bytes]) -> bytes:
        """All that it prints, to its end; not more than a token may have, and not for longer than it may take."""
        assert child.stdout is not None
        printed, is_open, until = b"", True, time.monotonic() + TOKEN_COMMAND_TIMEOUT_SECONDS
        while not self._ended.is_set() and time.monotonic() < until:
            if not is_open:
                with contextlib.suppress(subprocess.TimeoutExpired):
                    child.wait(LOOK_SECONDS)
                    return printed
            elif select.select([child.stdout], [], [], LOOK_SECONDS)[0]:
                more = os.read(child.stdout.fileno(), SMALL_BYTES)
                printed, is_open = printed + more, bool(more)
                if len(printed) > SMALL_BYTES:
                    raise TokenError(f"{self} prints more than a token has")
        raise TokenError(f"{self} does not end")

    def __str__(self) -> str:
        return f"the token command {self._command[0]}"


class TokenVariable:
    """The value that the environment had at the start; without one, servers that want none are still reached."""

    def __init__(self, token: str) -> None:
        self._token = token

    def __call__(self) -> str:
        return self._token

    def __str__(self) -> str:
        return "BRACKENFEN_TOKEN" if self._token else "nowhere"


@dataclass(frozen=True)
class Settings:
    """`directory` and `server` may be absent; which command needs which is told by session.Session."""

    directory: Path | None
    server: str | None
    token: Callable[[], str]
    poll_interval_seconds: float
    file: Path | None


def default_file(environment: Mapping[str, str]) -> Path:
    base = environment.get("XDG_CONFIG_HOME") or os.path.join(environment.get("HOME") or "/", ".config")
    return Path(base) / "brackenfen" / "sync.toml"


def read_file(path: Path | None, environment: Mapping[str, str]) -> tuple[Path | None, dict[str, object]]:
    """The settings file and its content. One that was named must exist; the one in the default place may be missing."""
    named = path or (Path(given) if (given := environment.get("BRACKENFEN_CONFIG")) else None)
    place = named or default_file(environment)
    try:
        content: dict[str, object] = tomllib.loads(read_small(place))
    except FileNotFoundError:
        if named is None:
            return None, {}
        raise SettingsError(f"the settings file {place} does not exist") from None
    except (OSError, ValueError) as error:
        raise SettingsError(f"the settings file {place} cannot be read: {error}") from None
    if "token" in content:
        raise SettingsError(f"{place}: a token does not belong into this file; give token_file or token_command")
    if unknown := sorted(set(content) - FILE_KEYS):
        raise SettingsError(f"{place}: unknown key {unknown[0]}; known are {', '.join(sorted(FILE_KEYS))}")
    return place, content


def text_of(content: Mapping[str, object], key: str, place: Path | None) -> str | None:
    value = content.get(key)
    if value is not None and (not isinstance(value, str) or not value):
        raise SettingsError(f"{place}: {key} must be a text")
    return value


def beside(place: Path | None, name: str | None) -> Path | None:
    """A path of the settings file counts from the folder of that file."""
    return place.parent / Path(name).expanduser() if place and name else None


def command_of(value: object, origin: str) -> tuple[str, ...]:
    """The words of a command that is a text, split as a shell would, or a list of texts. No shell runs it."""
    try:
        words = shlex.split(value) if isinstance(value, str) else value
    except ValueError as error:
        raise SettingsError(f"{origin}: {error}") from None
    if not isinstance(words, list) or not words or not all(isinstance(word, str) for word in words):
        raise SettingsError(f"{origin} must be a command: a text, or a list of texts")
    return tuple(words)


def token_source(
    token_file: Path | None, token_command: str | None, content: Mapping[str, object], place: Path | None, environment: Mapping[str, str]
) -> Callable[[], str]:
    """The first of the options, the environment and the file that names one; two in the same place contradict each other."""
    in_file = text_of(content, "token_file", place)
    for name, path, command in (
        ("the options", token_file, token_command),
        ("the environment", environment.get("BRACKENFEN_TOKEN_FILE"), environment.get("BRACKENFEN_TOKEN_COMMAND")),
        (str(place), beside(place, in_file), content.get("token_command")),
    ):
        if path and command:
            raise SettingsError(f"{name}: a token file and a token command are given; leave one out")
        if path:
            return TokenFile(Path(path))
        if command:
            return TokenCommand(command_of(command, f"the token command of {name}"))
        if name == "the environment" and (token := environment.get("BRACKENFEN_TOKEN", "").strip()):
            return TokenVariable(token)
    return TokenVariable("")


def settings_of(
    directory: Path | None,
    server: str | None,
    token_file: Path | None,
    token_command: str | None,
    config: Path | None,
    environment: Mapping[str, str] = os.environ,
) -> Settings:
    place, content = read_file(config, environment)
    in_file = text_of(content, "directory", place)
    interval = content.get("poll_interval_seconds", 5.0)
    if isinstance(interval, bool) or not isinstance(interval, (int, float)) or not 0 < interval <= 1e6:
        raise SettingsError(f"{place}: poll_interval_seconds must be a positive number")
    given = directory or environment.get("BRACKENFEN_DIRECTORY") or (beside(place, in_file))
    return Settings(
        Path(given) if given else None,
        server or environment.get("BRACKENFEN_SERVER") or text_of(content, "server", place),
        token_source(token_file, token_command, content, place, environment),
        float(interval),
        place,
    )
