"""What the library makes of thousands of inputs, beside what plain rules make of them (rules.py), answer by answer."""

import functools
import json
import os
import pathlib
import random
import re
import struct
import subprocess
import sys
import unicodedata
from collections.abc import Callable, Sequence
from typing import Any, Self

from torture import rules
from torture.case import BUILD, Case, scratch

COUNT = 5_000
BLANKS = "\t\n\x1c\x85 \u00a0\u2003\u2028\u3000"
# Characters that a Unicode version may assign later are escaped by Python's repr() until it does.
CHARACTERS = "ab\"'\\/\0\x1b\x7f\b\r\u00ad\u200b\ufeff\ue000\U0001f600" + BLANKS + "".join(
    filter(lambda c: unicodedata.category(c) not in ("Cn", "Cs"), map(chr, random.Random(1).sample(range(0x110000), 2000)))
)  # fmt: skip
FRAGMENTS = [
    b"{", b"}", b"[", b"]", b",", b":", b'"', b'"a"', b'"a":', b"1", b"-", b"0", b".5", b"e", b"E+9", b"NaN", b"Infinity", b"-Infinity",
    b"Inf", b"null", b"true", b"fals", b"\\", b"\\u", b"\\u00e9", b"\\ud83d\\ude00", b"\\ud800", b"12", b" ", b"\n", b"\t", b"\0",
    b"\x1f", b"\x7f", "é".encode(), "😀".encode(), b"\xff", b"\xc3", b"\xe2\x82", b"\xed\xa0\x80", b"\xf0\x9f", b"\xf4\x90\x80\x80",
    b"\xc0\x80", b"\xef\xbb\xbf", b"(", b"\\x",
]  # fmt: skip
EDGE_INTEGERS = [2**63, 2**63 - 1, -(2**63), -(2**63) - 1, 2**64, 2**53 + 1, 10**20, -(10**20), 10**30, 0, 1, -1]
EDGE_NUMBERS = [
    "1e999", "-1e999", "1e-999", "0e999", "0.0000001e9999999999999999999999", "1e-99999999999999999999", "-0", "-0.0", "1E400",
    "1" * 400, "-" + "9" * 5000, "1" + "0" * 400 + "e-400", "1" * 400 + ".5", "5e-324", "1.7976931348623159e308", "9007199254740993.0",
    "1e15", "1e16", "0.00001", "NaN", "Infinity",
    *map(json.dumps, ["\U0001d7d8", "\u0663\u0967", "\uff11.5", " 1_0.5_0e+1 ", "nan(1)", "\u00bd", "x" * 300, "-1e-999", "+nan", "1_e5"]),
]  # fmt: skip


class Draw(random.Random):
    """The same inputs each time. Some of them name a folder and the links in it."""

    def __new__(cls, *_: Any) -> Self:
        return super().__new__(cls)

    def __init__(self, seed: str, folder: pathlib.Path) -> None:
        super().__init__(seed)
        self.folder = folder

    def text(self, pieces: Sequence[str], most: int) -> str:
        return "".join(self.choices(pieces, k=self.randrange(most + 1)))

    def integer(self) -> int:
        return self.choice(EDGE_INTEGERS) if self.random() < 0.2 else self.getrandbits(self.choice([4, 62, 64, 66, 130])) * self.choice([1, -1])

    def real(self) -> float:
        drawn: float = self.choice([struct.unpack("d", self.randbytes(8))[0], float(self.integer()), float(f"1e{self.randrange(-330, 310)}"), self.uniform(-3, 3)])
        return drawn

    def scalar(self) -> Any:
        return self.choice([None, True, False, self.integer(), self.real(), self.text(CHARACTERS, 9)])

    def value(self, depth: int) -> Any:
        made = self.random() if depth else 0
        if made < 0.4:
            return self.scalar()
        return [self.value(depth - 1) for _ in range(self.randrange(5))] if made < 0.6 else {self.text(CHARACTERS, 4): self.value(depth - 1) for _ in range(self.randrange(9))}

    def other(self) -> Any:
        """In the place of a text or a document."""
        return self.choice([None, 5, True, [], ["a"], {}, 1.5, "", BLANKS])

    def or_other(self, value: Any) -> Any:
        return self.other() if self.random() < 0.04 else value

    def members(self, pairs: list[tuple[str, Any]]) -> bytes:
        """An object whose keys may come twice."""
        return ("{" + ", ".join(f"{json.dumps(key)}: {json.dumps(value)}" for key, value in pairs) + "}").encode()


def document(draw: Draw) -> bytes:
    written = json.dumps(draw.value(3), ensure_ascii=draw.random() < 0.5, indent=draw.choice([None, None, 1])).encode()
    at = draw.randrange(len(written) + 1)
    damaged = written[:at] + draw.choice(FRAGMENTS) * draw.randrange(2) + written[at + draw.randrange(4) :]
    run = b'"' + b"x" * draw.randrange(40) + draw.choice(FRAGMENTS) + b"x" * draw.randrange(40) + b'"'
    pairs = [(draw.choice("abcdef"), draw.scalar()) for _ in range(draw.randrange(30))]
    opening, closing = draw.choice([(b"[", b"]"), (b'{"a":', b"}")])
    depth = draw.choice([3, 3, 3, 3, 3, 3, 3, 999, 1000, 1001])
    nested = opening * depth + b"1" * draw.randrange(2) + closing * depth
    return draw.choices([written, damaged, run, draw.members(pairs), nested, b"".join(draw.choices(FRAGMENTS, k=draw.randrange(9))), draw.randbytes(9)], [6, 6, 2, 3, 1, 4, 1])[0]


def number(draw: Draw) -> bytes:
    def digits() -> str:
        return draw.text("0123456789_\u0660\u0669\uff13", 4)

    shaped = draw.choice(["", "", *BLANKS]) + draw.choice(["", "", "+", "-", "+-", "++"]) + digits() + draw.choice(["", "", "", ".", "e", "E-", "e+3", "_"]) + digits() + draw.choice(["", "", *BLANKS])
    text = draw.choice([shaped, shaped, shaped, draw.text("0123456789_+-. eEinfatyNI\u00a0\n", 8)])
    return draw.choice([json.dumps(text), json.dumps(text), json.dumps(draw.integer()), json.dumps(draw.real()), json.dumps(draw.other())]).encode()


def pair(draw: Draw) -> Any:
    left, other = draw.choice([draw.integer(), draw.integer(), draw.real(), draw.scalar(), draw.value(2)]), draw.choice([draw.integer(), draw.scalar()])
    near = [int(left), float(left), int(left) + 1, bool(left)] if isinstance(left, int | float) and abs(left) < 1e300 else [left]
    right = draw.choice([left, other, *near])
    return draw.choice([[left, right], [left, right], [{"a": True, "b": left}, {"b": right, "a": 1.0}]]) if left == left else [left, right]


LINKS = {"inside": "real", "beside": "../data-beside", "self": ".", "dangling": "nowhere/x", "loop-a": "loop-b", "loop-b": "loop-a"}


def grow(folder: pathlib.Path) -> None:
    for name in ("data/real/a", "data-beside"):
        (folder / name).mkdir(parents=True)
    (folder / "way-in").symlink_to("data")
    for name, target in LINKS.items():
        (folder / "data" / name).symlink_to(target)


NAMES = [*LINKS, *LINKS, "real", "a", "b", "..", ".", "", "...", "C:", "x" * 300, "%2e%2e", "é", "~", "a b"]
SOUP = [*NAMES, *"//////////////\\\\", *CHARACTERS[:26]]


def relative(draw: Draw) -> str:
    return draw.choice(["/".join(draw.choices(NAMES, k=draw.randrange(1, 5))), draw.text(SOUP, 8)])


def system_pair(draw: Draw) -> Any:
    root = draw.choice(["", "/", "~", "~/", "~root/", "~no-such-user/", *[f"{draw.folder}/data/"] * 4])
    return [(root + relative(draw)).replace("\0", "."), draw.choice(["", "/"]) + relative(draw)]


def manifest_path(draw: Draw) -> Any:
    directory = draw.choice(["data", "data/", "way-in", "data/../data/./real/..", "nothing"])
    return [f"{draw.folder}/{directory}", draw.or_other(relative(draw))]


SCHEMES = [
    "https://", "http://", "HTTPS://", "hTTp://", "http:", "//", "ftp://", "", " http://", "\x01http://", "h+1://", "1h://", "ht tp://",
    "mailto:",
]
HOSTS = [
    "LocalHost", "127.255.1.2", "[0:0::1]", "Data.Example.com", "localhost", "127.0.0.1", "127.1", "0177.0.0.1", "[::1]", "[::1%eth0]",
    "[FE80::1%Eth0]", "[::ffff:127.0.0.1]", "::1", "[1.2.3.4]", "[x]", "[v1.x]", "[v.x]", "[::1", "::1]", "data.example.com", "a_b-c",
    "128.0.0.1", "é", "a\uff0fb", "%41", "h\no", "", "127.0.0.1.", "localhost.",
]  # fmt: skip
PORTS = ["", "", "", ":", ":0", ":80", ":443", ":0080", ":65535", ":65536", ":99999999999999999999", ":-1", ":8x", ":\uff18", ":80:81"]
PLACES = [
    "", "/", "/data/files", "/data/files/", "/data/files//", "/api/data/files", "/a b", "/a:b//c?q=1?2#f#g", "?q", "#f", "/%2e%2e/",
    "/\x7f", "/a\rb", "/é", ":x", "/@",
]


def address(draw: Draw) -> str:
    host = draw.choice(HOSTS + HOSTS[:4] * 5)
    made = draw.choice(SCHEMES + SCHEMES[:4] * 9) + draw.choice([""] * 15 + ["u@", "U:p@w@", "@"]) + host + draw.choice(PORTS + [""] * 9) + draw.choice(PLACES)
    if draw.random() < 0.1 and not set("[]\uff0f") & set(host):  # versions of Python differ on other brackets, and no message of it escapes a host
        at = draw.randrange(len(made) + 1)
        made = made[:at] + draw.choice(CHARACTERS) + made[at:]
    return made if made.isascii() else made.lower()  # only ASCII letters lose their case in the library; it sends no others


def urls(draw: Draw) -> Any:
    server = address(draw)
    base = draw.choice([None, address(draw), server, f" {server.rstrip('/')}/data/files ", draw.other()])
    return [draw.choice([server, address(draw), server.upper() if server.isascii() else server]), server, draw.choice(["a b/ü", " a//b ", "a#b?c", "../a", "", 7]), base]


FOLDERS = ["features/us/signal_is/"] * 6 + ["features/us//signal_is/", "features/signal_is/", "features/us/signal_is/sub/", "features/eu/signal_is/", "features/us/strategy_is/", "/features/us/signal_is/",
           "features/strategy_is/", "other/us/signal_is/", "features\\us\\signal_is\\", "../features/us/signal_is/", "features/signal_is/deep/er/", "features/eu/x/signal_is/"]  # fmt: skip


def groups(draw: Draw) -> Any:
    stems = ["a__b__c__d", "a__b__c__e", "a__b__", *[draw.choice(["__", "__", "___"]).join(draw.choices(["a", "b", "", "c"], k=draw.randrange(1, 6))) for _ in range(2)]]
    files: dict[str, Any] = {draw.choice(FOLDERS) + draw.choice(stems) + draw.choice([".arrow"] * 6 + [".txt", ""]): draw.choice([{}, {}, {}, 1, None]) for _ in range(draw.randrange(20))}
    names = [draw.choice(["", "", "", " ", "sub/"]) + draw.choice(stems) for _ in range(draw.randrange(5))]
    prefix = draw.choice([*[f"{root}/" for root in rules.EPOCHS] * 3, "found_signals", "features/", "", "/"])
    signal = "/".join([prefix.rstrip("/"), *draw.choices(["p", ""], k=draw.choice([1, 2, 2, 2])), draw.choice([*rules.EPOCHS.values()]), *draw.choices(["x", ""], k=draw.randrange(3))])
    given = draw.choice([draw.choice(stems), draw.choice(stems), draw.choice(["", " "]) + draw.choice([*files, "x"]), signal])
    universe = draw.choice([None, "us", " us ", "eu", "", 5])
    return [draw.or_other(files), names, draw.choice(["SIGNAL", "SIGNAL", "a STRATEGY", None, "Strategy_IS", 5]), universe, draw.or_other(given), prefix]


KINDS = [
    "feature", "vault_declaration", "Vault_declaration", "backtester_declaration", "vault_module", "vault_module", "risk_module",
    "_module", "module", None, 7, ["risk_module"], "",
]


def manifest(draw: Draw) -> Any:
    def listed() -> str:
        parts = [draw.choice(["found_signals", "found_strategies", "found_signals", "useful_signals"]), *draw.choices("ab", k=draw.choice([2, 3, 3, 3, 4])), draw.choice(["pnl_long.arrow", "pnl.long.arrow", "pnl.arrow"])]
        module = draw.choice(["backtester", "risk_model", "vault"]) + "-" + draw.choice([rules.PLATFORM, "plan9_mips"]) + draw.choice([".so", ".pyd", ".so/x", ""])
        return draw.choice(["", "", "", "/", "\\", "x"]) + draw.choice([draw.choice("/\\").join(parts), "/".join(parts), draw.choice(["", "m/", "m\\"]) + module, "a.pxd", "a.PXD", "keep"]) + draw.choice(["", "", "", "/"])

    def entry() -> Any:
        return draw.or_other({key: value for key, value in (("kind", draw.choice(KINDS)), ("platform", draw.choice([rules.PLATFORM, "plan9_mips", "", None, 9]))) if draw.random() < 0.7})

    def section() -> Any:
        return draw.or_other({name: draw.choice([2, {}, {"files": 1}, *[{"score": 1, "files": [draw.choice([*pool, None, 5]) for _ in range(draw.randrange(4))]}] * 5]) for name in "uvw"})

    pool = [listed() for _ in range(6)]
    data = {"version": 3, "files": draw.or_other({name: entry() for name in pool[: draw.randrange(7)]}), "artifacts": draw.or_other([{"path": draw.choice(pool)} | (made if isinstance(made := entry(), dict) else {}) for _ in range(3)]),
            "found_signals": section(), "found_strategies": section(), "useful_signals": section()}  # fmt: skip
    return draw.or_other({key: data[key] for key in draw.sample(sorted(data), draw.randrange(3, 7))})


def settings(draw: Draw) -> Any:
    def one(key: str) -> Any:
        fitting: dict[str, list[Any]] = {"feature_budget_gb": [0.5, 0, 2**33, 3, "FULL_DOWNLOAD", draw.uniform(0, 9)], "algorithm": ["seeded-hash"], "rotation_seed": [-3, 2**70], "named_universes": [["a"], ["a", "é"]],
                   "rotation_frequency": ["weekly", "PT12H", " PT007H "]}  # fmt: skip
        wrong = [-1, 1e300, 2**33 + 1, 10**20, float("nan"), True, "7", "", " eu", [], ["a", " b"], [1], {}, "random", "daily", "PT0H", "PTH", "PT1_0H", "PT1234567H", "PT\u0663H", "pt1h", 7]
        return draw.choice([None, *fitting.get(key, ["eu", "a b"]) * 3]) if draw.random() < 0.93 else draw.choice(wrong)

    keys = draw.choices(rules.SETTINGS, k=draw.randrange(7)) + ["feature_budget"] * (draw.random() < 0.05)
    content = draw.members([(key, one(key)) for key in draw.sample(keys, len(keys))])
    at = draw.randrange(len(content))
    content = draw.choice([content] * 20 + [content[:at], content[:at] + b"\xff" + content[at:], json.dumps(draw.other()).encode()])
    catalogue = draw.choice([{}, {"market": draw.choice(["eu", "", None]), "named_universes": draw.choice([["a", "b"], [], None])}])
    return [str(draw.folder), content.hex(), catalogue, draw.integer()]


def edges() -> list[bytes]:
    runs = [b'"' + b"x" * length + rest + b'"' for length in range(40) for rest in (b"", b"\\n" + b"x" * length, b"\x1f", b"\xff")]
    return [*map(str.encode, EDGE_NUMBERS), *runs, '"\u0080\u07ff\u0800\ud7ff\ue000\uffff\U00010000\U0010FFFF"'.encode()]


INPUTS: dict[str, Callable[[Draw], Any]] = {
    "json": document, "numbers": number, "compare": pair, "system": system_pair, "path": manifest_path, "url": urls, "groups": groups,
    "manifest": manifest, "rotation": settings,
}  # fmt: skip


def is_known(argument: bytes, answer: Any, ruled: Any) -> bool:
    """Lone surrogates are refused, and characters that Python's Unicode version has not assigned are printed, not escaped."""
    if isinstance(answer, str):
        return "Lone surrogate in" in answer and bool(re.search(rb"\\u[dD][89a-fA-F]", argument))
    return answer[:3] == ruled[:3] and any(unicodedata.category(character) == "Cn" for character in answer[3])


def compare(kind: str, seed: int) -> None:
    operation = "json" if kind == "numbers" else kind
    with scratch() as folder:
        grow(folder)
        draw = Draw(f"{kind} {seed}", folder)
        drawn = [INPUTS[kind](draw) for _ in range(COUNT)]
        arguments = edges() * (kind == "json") + [made if isinstance(made, bytes) else json.dumps(made).encode() for made in drawn]
        asked = "".join(f"{operation} {argument.hex()}\n" for argument in arguments)
        peer = subprocess.run([BUILD / "bin/torture_peer"], input=asked, capture_output=True, text=True, env=os.environ | {"HOME": rules.HOME + "/"})
        answers = peer.stdout.splitlines()
        for argument, answer in zip(arguments, answers, strict=False):
            ruled = json.dumps(rules.answer(operation, argument))
            if answer != ruled and not (operation == "json" and is_known(argument, json.loads(answer), json.loads(ruled))):
                raise AssertionError(f"{operation} of {argument!r}\nlibrary: {answer}\nrules:   {ruled}")
        assert len(answers) == len(arguments) and peer.returncode == 0, f"the peer ended on {arguments[len(answers) :][:1]}: {peer.stderr}"


def cases(long: bool) -> list[Case]:
    sys.set_int_max_str_digits(0)  # the library reads and writes integers of any length
    return [Case(f"{kind} {seed}", functools.partial(compare, kind, seed)) for seed in range(1, 6 if long else 2) for kind in INPUTS]
