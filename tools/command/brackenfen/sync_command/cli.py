"""The command line: options that all commands share, help, and the way from an error to its line and exit code."""

from __future__ import annotations

import inspect
import os
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

import click
from brackenfen import sync

from brackenfen.sync_command import cleaning, doctor, metrics, passes, planning, reporting, telling, watching
from brackenfen.sync_command.exits import ADVICE, Exit, Interrupted, OutputError, exit_code
from brackenfen.sync_command.output import Output, silence, writing
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.settings import settings_of
from brackenfen.sync_command.texts import clean

NAME = "brackenfen-sync"
LANDS = {"sync", "watch", "repair", "features"}
LANDED = "; what has landed stays, and the next run goes on from there"


class Place(click.Path):
    """Of a file or folder. What cannot be read is told by what reads it."""

    def __init__(self) -> None:
        super().__init__(path_type=Path, readable=False)

    def convert(self, value: Any, param: click.Parameter | None, ctx: click.Context | None) -> Any:
        if value == "":  # which is what an unset variable of a shell leaves, and would mean the folder at hand
            self.fail("no name is given", param, ctx)
        return super().convert(value, param, ctx)


PATH = Place()
SHARED_OPTIONS = (
    click.option("-d", "--directory", type=PATH, help="The data directory. [env: BRACKENFEN_DIRECTORY]"),
    click.option("-s", "--server", metavar="URL", help="The server's address. [env: BRACKENFEN_SERVER]"),
    click.option("--token-file", type=PATH, help="Read the token from a file. [env: BRACKENFEN_TOKEN_FILE]"),
    click.option("--token-command", metavar="COMMAND", help="Have a command print the token. [env: BRACKENFEN_TOKEN_COMMAND]"),
    click.option("-c", "--config", type=PATH, help="The settings file. [env: BRACKENFEN_CONFIG]"),
    click.option("--json", "as_json", is_flag=True, help="Print JSON."),
    click.option("-v", "--verbose", is_flag=True, help="Print all that the library logs."),
)
WAIT_OPTION = click.option(
    "--wait", "wait_seconds", type=click.FloatRange(min=0), metavar="SECONDS", help="Give up when the server is away for so long."
)
EVENTS_OPTION = click.option("--events", type=PATH, metavar="FILE", help="Append what happens as JSON lines.")

GROUP_HELP = """Keep a data directory in step with its server.

\b
Examples:
  brackenfen-sync sync -d data -s https://data.example.com --token-file token
  brackenfen-sync doctor
  brackenfen-sync status --json

Directory, server and token come from the options, else from the environment, else from a settings file
(~/.config/brackenfen/sync.toml). Without --token-file and --token-command the token is BRACKENFEN_TOKEN.

\b
Exit codes: 0 fine, 1 failed, 2 usage, 3 integrity, 4 server unavailable,
5 authentication, 6 disk, 7 era, 130 interrupted.
"""


class InOrder(click.Group):
    """Lists its commands as they were registered: what is used most comes first."""

    def list_commands(self, ctx: click.Context) -> list[str]:
        return list(self.commands)


@click.group(cls=InOrder, help=GROUP_HELP, context_settings={"help_option_names": ["-h", "--help"]})
@click.version_option(sync.__version__, prog_name=NAME)
def group() -> None:
    pass


def command(
    short: str,
    function: Callable[..., Outcome | Exit],
    *options: Callable[[Any], Any],
    examples: tuple[str, ...] = ("",),
    waits: bool = False,
) -> None:
    """Registers a command. Its docstring is its help; it is called with a Session and the values of its own options."""
    name = function.__name__.rstrip("_")

    def body(
        directory: Path | None, server: str | None, token_file: Path | None, token_command: str | None, config: Path | None,
        as_json: bool, verbose: bool, wait_seconds: float | None = None, **own: Any,
    ) -> Exit:  # fmt: skip
        output = Output(name, as_json)
        settings = settings_of(directory, server, token_file, token_command, config)
        try:
            outcome = function(Session(settings, output, verbose, wait_seconds), **own)
        except KeyboardInterrupt:
            raise Interrupted from None
        if isinstance(outcome, Exit):
            return outcome
        if as_json:
            output.document({"ok": outcome.code == Exit.FINE, "exit_code": int(outcome.code), **outcome.document})
        else:
            outcome.tell(output)
        return outcome.code

    lines = "\n".join(f"  {NAME} {name}{f' {example}' if example else ''}" for example in examples)
    text = inspect.getdoc(function)
    body.__doc__ = f"{text}\n\n\b\nExamples:\n{lines}\n"
    wrapped: Any = body
    for option in reversed([*options, *([WAIT_OPTION] if waits else []), *SHARED_OPTIONS]):
        wrapped = option(wrapped)
    group.command(name, short_help=short)(wrapped)


command(
    "Bring the directory up to date.",
    passes.sync_,
    click.option("--create", is_flag=True, help="Make the directory where it is missing."),
    examples=("", "--create -d data -s http://127.0.0.1:8080", "--wait 60 --json"),
    waits=True,
)
command(
    "Keep it up to date until stopped, through eras.",
    watching.watch,
    EVENTS_OPTION,
    click.option("--metrics", "target", type=PATH, metavar="FILE.prom", help="Keep figures for Prometheus up to date in a file."),
    examples=("", "--events /var/log/brackenfen-events.jsonl", "--json"),
)
command("What the directory holds, and who works on it.", telling.status, examples=("", "-d /data/research --json"))
command("What is waited for.", telling.why)
command(
    "Read every file and compare it with the manifest.",
    passes.verify,
    EVENTS_OPTION,
    examples=("", "--events /var/log/brackenfen-events.jsonl", "--json"),
)
command(
    "Fetch damaged files anew.",
    passes.repair,
    click.argument("paths", nargs=-1, metavar="[PATH]..."),
    examples=("", "features/us/signal_is/close.arrow"),
    waits=True,
)
command(
    "What a pass would do.",
    planning.plan,
    click.option("--files", "list_files", is_flag=True, help="Name each file."),
    examples=("", "--files", "--json"),
    waits=True,
)
command("Which features are held, and when they change.", telling.rotation, examples=("", "--json"))
command(
    "Fetch features by name.",
    passes.features,
    click.argument("names", nargs=-1, required=True, metavar="NAME..."),
    click.option("--strategy", is_flag=True, help="Of the strategy epoch in place of the signal epoch."),
    click.option("--universe", metavar="NAME", help="Of one named universe alone."),
    examples=("close volume", "--universe liquid_500 close"),
    waits=True,
)
command("Which era is here, and which at the server.", telling.era, examples=("", "--json"), waits=True)
command(
    "Remove what killed processes and old eras left.",
    cleaning.clean,
    click.option("-y", "--yes", is_flag=True, help="Remove without asking."),
    examples=("", "--yes"),
)
command("Look for faults, and say what to do.", doctor.doctor, examples=("", "--json"))
command(
    "Write a page to look at.",
    reporting.report,
    click.argument("place", required=False, type=PATH, metavar="[DIR]"),
    click.option("-o", "--output", "page", type=PATH, default=Path("report.html"), show_default=True, metavar="FILE", help="The page."),
    click.option("--events", type=PATH, metavar="FILE", help="What watch --events and verify --events recorded."),
    click.option("--verify", "read_all", is_flag=True, help="Read every file, as the command verify does."),
    examples=("", "data -o report.html --events events.jsonl", "--verify --json"),
)
command(
    "Print figures for Prometheus.",
    metrics.metrics,
    click.argument("place", required=False, type=PATH, metavar="[DIR]"),
    click.option("-o", "--output", "target", type=PATH, metavar="FILE.prom", help="Write them to a file, for node_exporter."),
    click.option(
        "--events", type=PATH, multiple=True, metavar="FILE", help="What watch --events recorded. May be given more than once."
    ),
    examples=("data", "data --events events.jsonl -o /srv/prom/data.prom"),
)


def report(error: BaseException, arguments: list[str]) -> Exit:
    """The one line of an error, with the notes that the library put to it; as a document where JSON was asked for."""
    code = exit_code(error)
    name = next((word for word in arguments if word in group.commands), "")
    output = Output(name, "--json" in arguments)
    if isinstance(error, click.UsageError):
        message, notes = error.format_message(), [f"Try '{NAME}{f' {name}' if name else ''} --help'."]
    elif code == Exit.INTERRUPTED:
        message, notes = f"interrupted{LANDED if name in LANDS else ''}", []
        if output.is_live:
            output.say("")  # the terminal has shown a ^C
    else:
        message = str(error) if str(error) else type(error).__name__
        advice = [ADVICE[code]] if code in ADVICE else []
        if isinstance(error, OSError) and error.filename and error.strerror:
            message = f"{os.fsdecode(error.filename)}: {error.strerror}"
            advice = advice or ["brackenfen-sync doctor tells what is wrong with the directory"]
        notes = [str(note) for note in getattr(error, "__notes__", ())] or advice
    output.say(clean(message) if code == Exit.INTERRUPTED else f"error: {clean(message)}", "" if code == Exit.INTERRUPTED else "red")
    for note in notes:
        output.say(f"  {clean(note)}")
    if output.as_json and not isinstance(error, OutputError):
        told = {"type": type(error).__name__, "message": message, "notes": notes}
        document = {"ok": False, "exit_code": int(code), "error": told}
        if name == "watch":  # whose documents are lines
            output.event({"event_type": "error", **document})
        else:
            output.document(document)
    return code


def run(arguments: list[str]) -> int:
    """Runs the command line; never raises but for what Python itself cannot go on after."""
    try:
        outcome = group.main(arguments, prog_name=NAME, standalone_mode=False)
        with writing():
            pass
        return int(outcome or 0)
    except click.exceptions.Exit as ended:
        return ended.exit_code
    except BrokenPipeError:  # nobody reads any more: nothing is said, at exit neither
        silence(sys.stdout)
        return Exit.FAILED
    except (Exception, KeyboardInterrupt) as error:
        try:
            code = report(error, arguments)
        except (OSError, OutputError):
            code = exit_code(error)
            silence(sys.stdout)
        if isinstance(error, OutputError):
            silence(sys.stdout)
        return code
