"""What the documentation says holds: its blocks run, its commands and links exist, and its promises have their tests."""

import contextlib
import itertools
import logging
import os
import pathlib
import random
import re
import shlex
import subprocess
import threading
from types import SimpleNamespace

import brackenfen.sync as sync
import click
import pytest
from brackenfen.sync_command.cli import group, run
from markdown_it import MarkdownIt

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
TOKEN = "canary-d0c5"
LANGUAGES = {"python", "sh", "console", "text", "json", "toml"}  # console: what was typed behind "$ ", and what came
RUN = {"sync", "status", "why", "verify", "plan", "rotation", "era", "doctor"}  # what the command may do in a test as it stands

each_page = pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)


def tokens_of(page):
    return MarkdownIt().enable("table").parse(page.read_text())


def blocks(page, language):
    """The blocks in that language, each behind as many lines as in its page, but for those below a `<!-- not run: why -->`."""
    for before, token in itertools.pairwise([None, *tokens_of(page)]):
        marked = before is not None and before.type == "html_block" and before.content.startswith("<!-- not run: ")
        assert token.type != "fence" or token.info in LANGUAGES, token.content
        if token.type == "fence" and token.info == language and not marked:
            yield "\n" * (token.map[0] + 1) + token.content


def lines(page, language):
    return itertools.chain(*(block.replace("\\\n", "").splitlines() for block in blocks(page, language)))


@pytest.fixture(scope="session")
def tree(tool, tmp_path_factory):
    made = tmp_path_factory.mktemp("docs") / "tree"
    tool("sample", made, "--files", 24, "--bytes", "200kB", "--universes", "liquid_500")
    return made


@pytest.fixture
def site(tree, serve, tmp_path, monkeypatch):
    """A server, a token and a directory, and `real`, which puts them where a page has its examples of them."""
    directory, token, url = tmp_path / "data", tmp_path / "token", serve(tree, "--token", TOKEN).url
    directory.mkdir()
    token.write_text(TOKEN)
    monkeypatch.chdir(tmp_path)
    examples = {"https://data.example.com": url, "/data/research": str(directory), "/run/token": str(token)}
    pattern = re.compile("|".join(map(re.escape, examples)))
    yield SimpleNamespace(url=url, directory=directory, real=lambda text: pattern.sub(lambda found: examples[found[0]], text))
    for manager in sync.SyncManager._instances.values():
        manager.stop()


@each_page
def test_blocks_of_python_run_one_after_the_other(page, site):
    code = [site.real(block) for block in blocks(page, "python")]
    names = {}
    if code and "import sync" not in code[0]:  # parts of a host, which have what a host has
        names |= {"sync": sync, "logging": logging, "random": random, "threading": threading, "page_someone": print, "stop_workers": print, "start_workers": print}
        names |= {"directory": site.directory, "server_url": site.url, "get_token": lambda: TOKEN}
        names["manager"] = sync.SyncManager.get_or_create(site.directory, site.url, names["get_token"])
    for block in code:
        exec(compile(block, page, "exec"), names)


def check_words(program, words, tool):
    """That the program knows that command, and the command these options."""
    if program == "brackenfen-sync":
        with contextlib.suppress(click.exceptions.Exit):  # of --help
            group.commands[words[0]].make_context(words[0], words[1:])
    elif program == "brackenfen-distribution":
        assert {word.partition("=")[0] for word in words if word.startswith("--")} <= set(re.findall(r"--[\w-]+", tool(words[0], "--help")))
    else:
        usage = subprocess.run([ROOT / "dev", "help"], capture_output=True, text=True, check=True).stdout
        assert f"\n  {words[0]} " in usage and all((ROOT / word.partition("::")[0]).exists() for word in words if word.startswith("tests/"))


@each_page
def test_commands_are_as_written(page, site, tool, monkeypatch, capsys):
    given = {"DIRECTORY": "data", "SERVER": site.url, "TOKEN": TOKEN, "CONFIG": os.devnull}
    for name, value in given.items():
        monkeypatch.setenv(f"BRACKENFEN_{name}", value)
    shown = [line.removeprefix("$ ") for line in lines(page, "console") if line.startswith("$ ")]  # of a directory in some state of its own
    for line, runs in [(line, True) for line in lines(page, "sh")] + [(line, False) for line in shown]:
        split = shlex.split(site.real(line), comments=True) or [""]
        program, *words = itertools.takewhile(lambda word: not re.match(r"\d?[<>]|[&|;]", word), split)
        if program not in ("brackenfen-sync", "brackenfen-distribution", "./dev") or not words:
            continue
        check_words(program, words, tool)
        if program == "brackenfen-sync" and words[0] in RUN and runs:
            for arguments in (["sync"], words):
                assert run(arguments) == 0, (line, *capsys.readouterr())


@each_page
def test_links_lead_somewhere(page):
    def anchors(target):
        titles = [after.content.lower() for token, after in itertools.pairwise(tokens_of(target)) if token.type == "heading_open"]
        return [re.sub(r"[^\w\- ]", "", title).replace(" ", "-") for title in titles]

    links = [link for token in tokens_of(page) for child in token.children or [] if (link := child.attrGet("href") or child.attrGet("src"))]
    for link in links:
        path, _, anchor = link.partition("#")
        target = page.parent / path if path else page
        assert "://" in link or (target.exists() and (not anchor or anchor in anchors(target))), link


def table(page, heading):
    """The rows of the table under that heading."""
    section = (ROOT / "docs" / page).read_text().partition(f"\n## {heading}\n")[2].partition("\n## ")[0]
    return [line.strip("|").split(" | ") for line in section.splitlines() if line.startswith("|")][2:]


def test_every_promise_has_its_tests():
    def plain(text):
        return " ".join(re.sub(r"^- |\*\*|docs/", "", text, flags=re.MULTILINE).split())

    promises, limits = table("promises.md", "What you can rely on"), table("promises.md", "What it does not promise")
    section = (ROOT / "README.md").read_text().partition("## What you can rely on\n")[2].partition("\n[docs/promises.md]")[0]
    assert plain(section) == plain(" ".join(row[0] for row in promises))
    in_cpp = "".join(path.read_text() for path in (ROOT / "tests").rglob("*.cpp"))
    for row in promises + limits:
        tests = re.findall("`(.+?)`", row[1])
        assert tests, row
        for test in tests:
            path, _, name = test.partition("::")
            assert f"\ndef {name}(" in (ROOT / path).read_text() if name else f"({test.replace('.', ', ')})" in in_cpp, test


def test_every_piece_of_the_campaign_has_its_figures():
    def named(heading, column):
        return {name for row in table("reliability.md", heading) for name in re.findall(r"`(\w+)`", row[column])}

    pieces = {path.stem for path in (ROOT / "tests/torture").glob("*.py") if "\ndef cases(" in path.read_text()}
    assert named("Figures", 0) == named("What holds, whatever happens", -1) == pieces


def test_every_module_of_a_site_is_told():
    adapters = "".join(path.read_text() for path in (ROOT / "python/adapters").glob("*.cpp"))
    told = {name for row in table("hosts.md", "Modules that a site supplies") for name in re.findall(r"`(\w+)`", row[0])}
    assert told == set(re.findall(r'NeighbourModule(?: module)?[({]"(\w+)"', adapters)) != set()
