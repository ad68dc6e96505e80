"""What is printed where: results on standard output, everything said meanwhile on standard error.

On a terminal tables and bars are drawn; in a pipe every line is whole, plain and free of escape codes.
"""

from __future__ import annotations

import json
import sys
from collections.abc import Iterable, Mapping, Sequence
from typing import IO, Any

from rich.console import Console
from rich.table import Table
from rich.text import Text

from brackenfen.sync_command.texts import clean

PLAIN_WIDTH = 10_000  # no line of a pipe is ever broken


def console_for(stream: IO[str]) -> Console:
    live = stream.isatty()
    return Console(
        file=stream, force_terminal=live, width=None if live else PLAIN_WIDTH, color_system="auto" if live else None,
        highlight=False, markup=False, emoji=False, soft_wrap=not live,
    )  # fmt: skip


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

    def line(self, text: str, style: str = "") -> None:
        """A line of the result."""
        self.results.print(Text(text, style))

    def say(self, text: str, style: str = "") -> None:
        """A line about what goes on; above the bars, where there are any."""
        self.talk.print(Text(text, style))

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
        if self.results.is_terminal:
            self.results.print(table)
            return
        with self.results.capture() as captured:
            self.results.print(table)
        for line in captured.get().splitlines():
            print(line.rstrip(), file=self.results.file)

    def document(self, content: Mapping[str, Any]) -> None:
        """The one document of a command, indented for people who look at it."""
        print(json.dumps({"command": self.command, **content}, indent=2, default=str), flush=True)

    def event(self, content: Mapping[str, Any]) -> None:
        """One of many documents, a line each."""
        print(json.dumps(content, default=str), flush=True)
