"""What is printed where: results on standard output, everything said meanwhile on standard error.

On a terminal tables and bars are drawn; in a pipe every line is whole, plain and free of escape codes.
"""

from __future__ import annotations

import contextlib
import json
import os
import sys
import textwrap
from collections.abc import Iterable, Iterator, Mapping, Sequence
from typing import IO, Any

from rich.console import Console
from rich.table import Table
from rich.text import Text

from brackenfen.sync_command.exits import OutputError
from brackenfen.sync_command.texts import clean

PLAIN_WIDTH = 10_000  # no line of a pipe is ever broken


class Screen(Console):
    """A pipe that nobody reads any more is an error as any other: rich itself would end whichever thread prints."""

    def on_broken_pipe(self) -> None:
        raise BrokenPipeError


def console_for(stream: IO[str]) -> Console:
    live = stream.isatty()
    return Screen(
        file=stream, force_terminal=live, width=None if live else PLAIN_WIDTH, color_system="auto" if live else None,
        highlight=False, markup=False, emoji=False, soft_wrap=not live,
    )  # fmt: skip


def silence(stream: IO[str]) -> None:
    """What is written from now on, and at exit, leads nowhere."""
    nowhere = os.open(os.devnull, os.O_WRONLY)
    os.dup2(nowhere, stream.fileno())
    os.close(nowhere)


@contextlib.contextmanager
def writing() -> Iterator[None]:
    """Raises OutputError for results that go nowhere, but BrokenPipeError where nobody wants them any more."""
    try:
        yield
        sys.stdout.flush()
    except BrokenPipeError:
        raise
    except OSError as error:
        raise OutputError(f"standard output cannot be written: {error.strerror}") from None


class Output:
    """`as_json`: standard output holds documents alone."""

    def __init__(self, command: str, as_json: bool = False) -> None:
        self.command = command
        self.as_json = as_json
        for stream in (sys.stdout, sys.stderr):
            if hasattr(stream, "reconfigure"):
                stream.reconfigure(errors="backslashreplace")  # a name that the terminal cannot show is no failure
        self.results = console_for(sys.stdout)
        self.talk = console_for(sys.stderr)
        self.is_live = sys.stderr.isatty() and not self.talk.is_dumb_terminal

    def line(self, text: str, style: str = "", hanging: int = 0) -> None:
        """A line of the result; on a terminal that breaks it, what follows begins at the column `hanging`."""
        if hanging and self.results.is_terminal:
            text = textwrap.fill(text, self.results.width, subsequent_indent=" " * hanging, break_on_hyphens=False)
        with writing():
            self.results.print(Text(text, style))

    def say(self, text: str, style: str = "") -> None:
        """A line about what goes on; above the bars, where there are any. Where it cannot be written the work goes on."""
        try:
            self.talk.print(Text(text, style))
        except OSError:
            silence(sys.stderr)

    def pairs(self, rows: Iterable[tuple[str, object]]) -> None:
        table = Table.grid(padding=(0, 2, 0, 0))
        table.add_column(style="dim", no_wrap=True)
        table.add_column(overflow="fold")
        for name, value in rows:
            table.add_row(name, Text(clean(value)))
        self._print(table)

    def table(self, headers: Sequence[str], rows: Iterable[Sequence[object]], styles: Mapping[str, str] | None = None) -> None:
        """`styles`: for the words of the first column. A header that ends in a blank is that of figures."""
        table = Table(box=None, padding=(0, 2, 0, 0), header_style="dim", pad_edge=False)
        for header in headers:
            table.add_column(
                header.strip(), justify="right" if header.endswith(" ") else "left", overflow="fold", no_wrap=header.endswith(" ")
            )
        for first, *rest in rows:
            table.add_row(Text(clean(first), (styles or {}).get(str(first), "")), *(Text(clean(cell)) for cell in rest))
        self._print(table)

    def _print(self, table: Table) -> None:
        with writing():
            if self.results.is_terminal:
                self.results.print(table)
                return
            with self.results.capture() as captured:
                self.results.print(table)
            for line in captured.get().splitlines():
                print(line.rstrip(), file=self.results.file)

    def document(self, content: Mapping[str, Any]) -> None:
        """The one document of a command, indented for people who look at it."""
        with writing():
            print(json.dumps({"command": self.command, **content}, indent=2, default=str))

    def event(self, content: Mapping[str, Any]) -> None:
        """One of many documents, a line each."""
        with writing():
            print(json.dumps(content, default=str))
