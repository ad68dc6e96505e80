"""The rules that the library is compared with, in plain Python. A function answers what the peer's operation of its name does."""

import ipaddress
import json
import os
import pathlib
import platform
import re
from collections.abc import Callable
from typing import Any
from urllib.parse import urlsplit

PLATFORM = f"{platform.system()}_{platform.machine()}".lower()
HOME = "/home/someone"
EPOCHS = {"found_signals": "signal_is", "found_strategies": "strategy_is", "useful_signals": "signal_os"}
SETTINGS = ["feature_budget_gb", "algorithm", "rotation_seed", "market", "named_universes", "family", "subfamily", "rotation_frequency"]


class ManifestError(Exception):
    pass


def told(make: Callable[[], Any]) -> Any:
    try:
        return make()
    except (ValueError, TypeError, ArithmeticError, AttributeError, ManifestError) as error:
        return f"{type(error).__name__}: {error}"


def read(document: bytes) -> Any:
    """Python's reading, with a cap on nesting and in the words of 3.12: later versions name a trailing comma and point at it."""
    if deep := re.match(rb'(\[|\{"a":){1001}', document):
        raise json.JSONDecodeError("Nesting deeper than 1000 levels", document.decode(), deep.start(1))
    try:
        return json.loads(document.decode())
    except json.JSONDecodeError as error:
        if not error.msg.startswith("Illegal trailing comma"):
            raise
        said = "Expecting value" if error.msg.endswith("array") else "Expecting property name enclosed in double quotes"
        raise json.JSONDecodeError(said, error.doc, re.compile(r"[ \t\n\r]*").match(error.doc, error.pos + 1).end()) from None  # type: ignore[union-attr]


def forms(value: Any) -> list[Any]:
    written = [json.dumps(value), json.dumps(value, sort_keys=True), json.dumps(value, sort_keys=True, separators=(",", ":"))]
    return [*written, str(value), repr(value), bool(value), told(lambda: str(int(value))), told(lambda: str(float(value)))]


def compare(left: Any, right: Any) -> list[Any]:
    return [left == right, left < right if type(left) is type(right) is int else None]


def system(left: str, right: str) -> list[Any]:
    home = HOME + left[1:] if left == "~" or left.startswith("~/") else os.path.expanduser(left)
    single = re.sub("(?<=[^/])/+", "/", left)  # behind a loop of links Python takes the second slash for the root
    return [left.strip(), os.path.join(left, right), os.path.dirname(left), os.path.abspath(left), os.path.realpath(single), home]


def safe_path(path: Any) -> str:
    if not isinstance(path, str) or not path.strip():
        raise ManifestError("Manifest file path must be a non-empty relative path")
    if "\0" in path:
        raise ManifestError(f"Manifest file path contains NUL byte: {path!r}")
    native = pathlib.PurePosixPath(path.replace("\\", "/").strip())
    if native.is_absolute():
        raise ManifestError(f"Manifest file path must be relative: {path!r}")
    if not native.parts or {"", ".", ".."} & set(native.parts):
        raise ManifestError(f"Manifest file path contains unsafe segments: {path!r}")
    return "/".join(native.parts)


def normalised(path: Any) -> str:
    """Or what refuses it."""
    return str(told(lambda: safe_path(path)))


def local_path(directory: str, path: Any) -> str:
    relative = safe_path(path)
    base = os.path.realpath(directory)
    target = os.path.realpath(os.path.join(base, relative))
    if os.path.commonpath([base, target]) != base:
        raise ManifestError(f"Manifest file path escapes data directory: {path!r}")
    return target


def path(directory: str, given: Any) -> list[Any]:
    return [normalised(given), told(lambda: local_path(directory, given))]


def is_address(host: str) -> bool:
    return "%" not in host and not isinstance(told(lambda: ipaddress.ip_address(host)), str)


def demand_bearer(address: str) -> None:
    if found := re.search(r"[^!-~]", address):
        raise ValueError(f"URL can't contain control characters, blanks or non-ASCII characters (found {found[0]!r})")
    parts = urlsplit(address)
    host = parts.hostname or ""
    origin = f"{parts.scheme}://" + (f"[{host}]" if ":" in host else host)
    here = host == "localhost" or (is_address(host) and (host.startswith("127.") or ipaddress.ip_address(host) == ipaddress.ip_address("::1")))
    faults = {
        "begin with https://, or with http:// for this machine only": parts.scheme not in ("http", "https"),
        "name a host, such as https://data.example.com": not host,
        f"not hold a user name or password; give the address alone: {origin}": "@" in parts.netloc,
        "name its host by letters, digits, '-', '_' and '.', or by an address": not (is_address(host) if ":" in host else re.fullmatch(r"[a-z0-9._-]+", host)),
        f"have a port from 1 to 65535, or none: {origin}": told(lambda: parts.port) not in (None, *range(1, 65536)),
        f"use https, or http on this machine only: {origin}": parts.scheme == "http" and not here,
    }
    if broken := [fault for fault, holds in faults.items() if holds]:
        raise ValueError(f"URL must {broken[0]}")


def file_url(server: str, given: Any, base_url: Any) -> str:
    relative = safe_path(given)
    base = (base_url.strip() if isinstance(base_url, str) else "") or server.rstrip("/") + "/data/files"
    parts = told(lambda: urlsplit(base))
    if isinstance(parts, str) or not parts.scheme or not parts.netloc:
        raise ManifestError("Manifest base_url must be an absolute data-file URL")
    if refused := told(lambda: demand_bearer(base)):
        raise ManifestError(refused.removeprefix("ValueError: "))
    return f"{base.rstrip('/')}/{relative}"


def is_public(server: str, base_url: Any) -> bool:
    if not isinstance(base_url, str) or not base_url.strip():
        return False
    try:
        base = urlsplit(base_url.strip())
        return (base.netloc, base.path.rstrip("/")) != (urlsplit(server).netloc, "/data/files")
    except ValueError:
        return True  # what cannot be read never gets credentials


def url_parts(address: str) -> list[Any]:
    parts = urlsplit(address)
    return [*parts, parts.hostname or "", "@" in parts.netloc, told(lambda: parts.port)]


def origin(address: str) -> tuple[str, str, int]:
    parts = urlsplit(address)
    return parts.scheme, parts.hostname or "", (443 if parts.scheme == "https" else 80) if parts.port is None else parts.port


def url(address: str, server: str, given: Any, base: Any) -> list[Any]:
    return [told(lambda: url_parts(address)), told(lambda: demand_bearer(address)), told(lambda: file_url(server, given, base)), is_public(server, base), told(lambda: origin(address) == origin(server)) is True]


def feature_path(files: Any, name: Any, expression_type: Any, universe: Any) -> str | None:
    if not isinstance(files, dict) or not isinstance(name, str) or not name.strip():
        return None
    name, universe = name.strip(), universe.strip() if isinstance(universe, str) else ""
    epoch = "strategy_is" if "strategy" in str(expression_type).lower() else "signal_is"
    listed = [listed for listed, info in files.items() if isinstance(info, dict)]
    scoped = [listed for listed in listed if (parts := listed.split("/"))[0] == "features" and len(parts) >= 4 and parts[-2] == epoch]
    if universe:
        if (own := f"features/{universe}/{epoch}/{name}.arrow") in listed:
            return own
        if any(listed.endswith(f"/{epoch}/{name}.arrow") for listed in scoped):
            return None
    if (unscoped := f"features/{epoch}/{name}.arrow") in listed:
        return unscoped
    return next((one for one in listed if one.endswith(f"/{name}.arrow") and (one in scoped or one.startswith(f"features/{epoch}/"))), None)


def family(name: Any) -> str | None:
    fields = name.strip().removesuffix(".arrow").split("__") if isinstance(name, str) else []
    return f"{fields[0]}__{fields[1]}__" if len(fields) >= 4 and fields[0] and fields[1] else None


def companions(files: Any, given: Any) -> list[str]:
    own = normalised(given)
    folder, _, name = own.rpartition("/")
    if not isinstance(files, dict) or not folder.startswith("features/") or own.count("/") < 3 or not name.endswith(".arrow") or not (prefix := family(name)):
        return []
    listed = [normalised(key) for key, info in files.items() if isinstance(info, dict)]
    return sorted(one for one in listed if one != own and one.startswith(folder + "/") and re.fullmatch(f"{re.escape(prefix)}.*[.]arrow", one.rpartition("/")[2], re.DOTALL))


def groups(files: Any, names: list[str], expression_type: Any, universe: Any, given: Any, prefix: str) -> list[Any]:
    fetched: dict[str, None] = {}
    for name in names:
        if own := feature_path(files, name, expression_type, universe):
            fetched |= dict.fromkeys([own, *companions(files, own)])
    parts = given.split("/") if isinstance(given, str) and given.startswith(prefix) else []
    root = prefix.rstrip("/")
    grouped = len(parts) >= 5 and parts[0] == root and root in EPOCHS and parts[3] == EPOCHS[root]
    return [feature_path(files, given, expression_type, universe), family(given), companions(files, given), list(fetched), "/".join(parts[:3]) if grouped else None]


def kind_of(info: Any) -> str:
    kind = info.get("kind") if isinstance(info, dict) else None
    return "" if kind is None else str(kind)


def is_declaration(listed: str, info: Any) -> bool:
    return listed.endswith(".pxd") or kind_of(info) in ("vault_declaration", "backtester_declaration")


def is_unsupported(info: Any) -> bool:
    return kind_of(info).endswith("_module") and kind_of(info) != "vault_module"


def is_foreign(info: Any) -> bool:
    built_for = info.get("platform") if isinstance(info, dict) else None
    return kind_of(info) == "vault_module" and built_for is not None and str(built_for) not in ("", PLATFORM)


def is_retired(listed: str) -> bool:
    parts = listed.replace("\\", "/").strip("/").split("/")
    return len(parts) == 5 and parts[0] in ("found_signals", "found_strategies") and parts[4] in ("pnl_long.arrow", "pnl.long.arrow")


def retired_module(listed: str) -> str | None:
    found = re.fullmatch(rf"(backtester|risk_model)-{PLATFORM}\.(so|pyd)", re.split(r"[/\\]", listed)[-1])
    return found[1] if found else None


def without(section: dict[str, Any], retired: set[str]) -> dict[str, Any]:
    """A section of found entities; one that is left with no files goes, whether or not it had any."""
    kept = {}
    for entity, entry in section.items():
        named = entry.get("files") if isinstance(entry, dict) else None
        left = [one for one in named if not isinstance(one, str) or one not in retired] if isinstance(named, list) else None
        if left != []:
            kept[entity] = entry | {"files": left} if left else entry
    return kept


def sanitised(data: Any) -> Any:
    if not isinstance(data, dict):
        raise AttributeError(f"the manifest is not a JSON object: '{type(data).__name__}' object has no attribute 'get'")
    files, rows, cleaned = data.get("files"), data.get("artifacts"), data
    if isinstance(files, dict):
        kept = {listed: info for listed, info in files.items() if not is_declaration(listed, info) and not is_unsupported(info)}
        if retired := set(filter(is_retired, kept)):
            sections = [section for section in ("found_signals", "found_strategies") if isinstance(data.get(section), dict)]
            cleaned = data | {section: without(data[section], retired) for section in sections}
        if len(kept) != len(files) or retired:
            cleaned = cleaned | {"files": {listed: info for listed, info in kept.items() if listed not in retired}}
    if isinstance(rows, list) and any(is_unsupported(row) for row in rows):
        cleaned = cleaned | {"artifacts": [row for row in rows if not is_unsupported(row)]}
    return cleaned


def manifest(data: Any) -> list[Any]:
    cleaned = sanitised(data)
    files = data["files"] if isinstance(data.get("files"), dict) else {}
    rows = [[is_foreign(info), is_unsupported(info) or is_foreign(info), retired_module(listed)] for listed, info in files.items()]
    return [cleaned, cleaned is data, True, any(is_declaration(*entry) for entry in files.items()), any(map(is_retired, files)), rows]


def is_name(value: Any) -> bool:
    return isinstance(value, str) and value != "" and value == value.strip()


def is_size(value: Any) -> bool:
    return value == "FULL_DOWNLOAD" or (type(value) in (int, float) and 0 <= value <= 2**33)


def rotation(directory: str, content: str, catalogue: dict[str, Any], seed: int) -> list[Any]:
    where = os.path.join(directory, "feature-rotation-settings.json")
    try:
        members = read(bytes.fromhex(content))
    except ValueError as error:
        raise ValueError(f"{where}: {error}") from None
    if not isinstance(members, dict):
        raise ValueError(f"{where}: it must hold a JSON object, not {type(members).__name__}")
    if unknown := [key for key in members if key not in SETTINGS]:
        raise ValueError(f"{where}: unknown key {unknown[0]!r}")
    a_name = "a text without blanks around it"
    tests: list[tuple[Callable[[Any], bool], str, Any]] = [
        (is_size, 'a number of gigabytes from 0 to 2^33, or "FULL_DOWNLOAD"', None), (is_name, a_name, "seeded-hash"),
        (lambda value: type(value) is int, "an integer", seed), (is_name, a_name, catalogue.get("market") or None),
        (lambda value: isinstance(value, list) and value != [] and all(map(is_name, value)), "a list of texts without blanks around them", catalogue.get("named_universes")),
        (is_name, a_name, None), (is_name, a_name, None),
        (lambda value: isinstance(value, str) and bool(re.fullmatch(r"weekly|PT(?!0*H)[0-9]{1,6}H", value.strip())), '"weekly" or "PT{hours}H"', "weekly"),
    ]  # fmt: skip
    settings = {}
    for key, (fits, expected, otherwise) in zip(SETTINGS, tests, strict=True):
        stated = members.get(key)
        if stated is not None and not fits(stated):
            raise ValueError(f"{where}: {key} must be {expected}, not {stated!r}")
        if key == "algorithm" and stated not in (None, "seeded-hash"):
            raise ValueError(f"{where}: algorithm must be 'seeded-hash', not {stated!r}")
        settings[key] = otherwise if stated is None else stated
    budget, period = settings["feature_budget_gb"], settings["rotation_frequency"].strip()
    return [settings, budget if budget in (None, "FULL_DOWNLOAD") else int(budget * 2**30), 7 * 24 * 3600 if period == "weekly" else int(period[2:-1]) * 3600]


RULES: dict[str, Callable[[Any], Any]] = {
    "json": forms, "compare": lambda pair: compare(*pair), "system": lambda pair: system(*pair), "path": lambda given: path(*given),
    "url": lambda given: url(*given), "groups": lambda given: groups(*given), "manifest": manifest,
    "rotation": lambda given: rotation(*given),
}  # fmt: skip


def answer(operation: str, argument: bytes) -> Any:
    return told(lambda: RULES[operation](read(argument)))
