"""The README as package metadata: links into the source tree, which lead nowhere from a package index, become plain text."""

import re
from collections.abc import Mapping
from pathlib import Path
from typing import Any


def dynamic_metadata(settings: Mapping[str, Any], project: Mapping[str, Any]) -> dict[str, Any]:
    text = re.sub(r"!?\[([^\]]+)\]\((?!https?:)[^)]+\)", r"\1", Path("README.md").read_text())
    return {"readme": {"content-type": "text/markdown", "text": text}}
