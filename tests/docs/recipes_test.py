"""The recipes for progress as their page has them, on a set that is slow to come and a server that is away at first."""

import pathlib
import re
from typing import Any

import pytest
from IPython.core.interactiveshell import InteractiveShell
from IPython.utils.capture import capture_output
from traitlets.config import Config

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "progress.md"
TOKEN = "canary-9a41"


@pytest.mark.parametrize(("recipe", "shown"), [
    ("tqdm", r"waiting for the server: http_503, attempt 1[\s\S]+sync: downloading: +[1-9]\d?%[\s\S]+B/s[\s\S]+done: 100%"),
    ("rich", r"sync: done +━+ ([\d.]+)/\1 \wB "),
    ("A notebook", r"waiting for the server: http_503[\s\S]+<progress value='[1-9]\d*' max='\d+'></progress> sync: down"),
])  # fmt: skip
def test_a_recipe_shows_how_far_it_is(recipe: str, shown: str, tool: Any, serve: Any, tmp_path: pathlib.Path, monkeypatch: Any) -> None:
    tool("sample", tmp_path / "tree", "--files", 24, "--bytes", "100kB", "--universes", "liquid_500")
    away, slow = "/data/manifest/version:status=503,times=1", "/data/files/features/*:drip=20000"
    url = serve(tmp_path / "tree", "--token", TOKEN, "--fault", away, "--fault", slow).url
    (tmp_path / "token").write_text(TOKEN)
    (tmp_path / "data").mkdir()
    monkeypatch.setenv("COLUMNS", "200")
    monkeypatch.setenv("IPYTHONDIR", str(tmp_path))
    text = PAGE.read_text()
    common, own = (re.findall(r"```python\n(.*?)```", part, re.DOTALL)[0] for part in (text, text.partition(f"\n## {recipe}\n")[2]))
    for example, real in (("https://data.example.com", url), ("/data/research", tmp_path / "data"), ("/run/token", tmp_path / "token")):
        common = common.replace(example, str(real))
    shell = InteractiveShell.instance(config=Config({"HistoryManager": {"enabled": False}}))
    with capture_output() as captured:
        for block in (common, own):
            shell.run_cell(block).raise_error()
    told = captured.stdout + captured.stderr + "".join(str(output.data.get("text/html")) for output in captured.outputs)
    assert re.search(shown, told) and TOKEN not in told, told
    assert (tmp_path / "data/manifest.json").exists()
