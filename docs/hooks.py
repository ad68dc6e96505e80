"""What the site needs besides its pages: a page for every file of the repository that one links to, the Python interface among
them, and a look at the result, which must load nothing from elsewhere and show every list as one."""

import logging
import posixpath
import re
from pathlib import Path

from mkdocs.config.defaults import MkDocsConfig
from mkdocs.structure.files import File, Files, InclusionLevel
from mkdocs.structure.pages import Page

ROOT = Path(__file__).resolve().parent.parent
INTERFACE = "python/sync.pyi"
LINK = re.compile(r"(\]\()([^)\s#:]+)")
LANGUAGES = {".py": "python", ".hpp": "cpp", ".cpp": "cpp", ".conf": "nginx"}
LOADED = re.compile(r"<(?:script|img|iframe|source)\b[^>]*\ssrc=\"?(?:https?:)?//[^\s>]+|<link\b[^>]*\shref=\"?(?:https?:)?//[^\s>]+")
BROKEN_LIST = re.compile(r"<p>[^<]*\n(?:[-*] |\d+\. |\| ).*")

log = logging.getLogger("mkdocs.hooks.pages")


def target_of(page: File, link: str) -> str:
    """The path of a link from the root of the repository."""
    return posixpath.normpath(posixpath.join(posixpath.dirname(page.src_uri), link))


def on_files(files: Files, config: MkDocsConfig) -> Files:
    linked = {INTERFACE} | {target_of(page, link) for page in files.documentation_pages() for _, link in LINK.findall(page.content_string)}
    for path in sorted(linked):
        source = ROOT / path
        if files.get_file_from_path(path) or not source.is_file():
            continue
        content = f"# {path}\n\n```` {LANGUAGES.get(source.suffix, 'text')}\n{source.read_text()}\n````\n"
        if path == INTERFACE:
            content = "# brackenfen.sync\n\n::: brackenfen.sync\n"
        files.append(File.generated(config, f"{path}.md", content=content, inclusion=InclusionLevel.NOT_IN_NAV))
    return files


def on_page_markdown(markdown: str, page: Page, config: MkDocsConfig, files: Files) -> str:
    def lead(found: re.Match[str]) -> str:
        shown = files.get_file_from_path(target_of(page.file, found[2]) + ".md")
        return found[0] + (".md" if shown else "")

    return markdown if page.file.generated_by else LINK.sub(lead, markdown)


def on_post_page(output: str, page: Page, config: MkDocsConfig) -> None:
    for what, pattern in (("loads from elsewhere", LOADED), ("has a list or table that is none", BROKEN_LIST)):
        for found in pattern.findall(output):
            log.warning("%s %s: %s", page.file.src_uri, what, found)
