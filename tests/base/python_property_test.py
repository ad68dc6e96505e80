"""Values, texts, addresses and paths of every shape, in the hands of the library and of Python itself.

BRACKENFEN_JSON_PEER names the executable built from tests/support/json_peer.cpp.
"""

import itertools
import json
import math
import os
import re
import struct
import subprocess
import sys
import unicodedata
from urllib.parse import urlsplit

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

PEER = os.environ.get("BRACKENFEN_JSON_PEER")
# Never skipped by ./dev, which names the peer; a plain pytest run has nothing to compare with.
pytestmark = pytest.mark.skipif(not PEER, reason="BRACKENFEN_JSON_PEER names no executable")

LONE_SURROGATE = re.compile(rb"\\u[dD][89a-fA-F]")


def field(content):
    return struct.pack("<I", len(content)) + content


class Peer:
    def __init__(self, path):
        self.process = subprocess.Popen([path], stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def ask(self, operation, argument):
        self.process.stdin.write(field(operation.encode()) + field(argument))
        self.process.stdin.flush()
        return [self._field().decode("utf-8", "surrogatepass") for _ in range(self.process.stdout.read(1)[0])]

    def _field(self):
        (size,) = struct.unpack("<I", self.process.stdout.read(4))
        return self.process.stdout.read(size)


@pytest.fixture(scope="module")
def peer():
    limit = sys.get_int_max_str_digits()
    sys.set_int_max_str_digits(0)
    with pytest.MonkeyPatch.context() as environment:
        environment.setenv("HOME", "/home/someone/")
        started = Peer(PEER)
        with started.process:  # closes the pipes, which ends the peer, and waits for it
            yield started
    assert started.process.returncode == 0
    sys.set_int_max_str_digits(limit)


def described(operation):
    try:
        return str(operation())
    except (ValueError, TypeError, ArithmeticError) as error:
        return f"{type(error).__name__}: {error}"


def forms(value):
    return [
        json.dumps(value),
        json.dumps(value, sort_keys=True),
        json.dumps(value, sort_keys=True, separators=(",", ":")),
        str(value),
        repr(value),
        str(bool(value)),
        described(lambda: int(value)),
        described(lambda: float(value)),
    ]


def comparison(pair):
    ordered = all(type(value) is int for value in pair)
    return [str(pair[0] == pair[1]), str(pair[0] < pair[1]) if ordered else ""]


def url_parts(url):
    parts = urlsplit(url)
    return [*parts, parts.hostname or "", str("@" in parts.netloc), described(lambda: parts.port)]


def paths(pair):
    left, right = pair
    return [os.path.join(left, right), *(function(left) for function in (os.path.dirname, os.path.abspath, os.path.realpath, os.path.expanduser))]


PYTHONS = {"forms": forms, "compare": comparison, "strip": lambda text: [text.strip()], "url": url_parts, "paths": paths}


def in_words_of_3_12(error):
    """Later versions name a trailing comma and point at it; 3.12, like the library, is surprised by what comes after it."""
    if not str(error).startswith("Illegal trailing comma"):
        return error
    said = "Expecting value" if error.msg.endswith("array") else "Expecting property name enclosed in double quotes"
    return json.JSONDecodeError(said, error.doc, re.compile(r"[ \t\n\r]*").match(error.doc, error.pos + 1).end())


def check(peer, document, operation="forms"):
    answer = peer.ask(operation, document)
    try:
        expected = PYTHONS[operation](json.loads(document.decode("utf-8")))
    except ValueError as error:
        expected = [f"{type(error).__name__}: {in_words_of_3_12(error)}"]
    if answer[0].startswith("JSONDecodeError: Lone surrogate in"):
        assert LONE_SURROGATE.search(document)
    elif operation == "forms" and len(answer) > 1 and any(unicodedata.category(c) == "Cn" for c in answer[3]):
        # Python escapes a character that its Unicode version has not assigned; the library prints most of them.
        assert answer[:3] == expected[:3]
    else:
        assert answer == expected


TEXTS = st.text(alphabet=st.characters(codec="utf-8"), max_size=12)
INTEGERS = st.integers() | st.integers(min_value=-(10**40), max_value=10**40) | st.sampled_from([2**63, 2**63 - 1, -(2**63), -(2**63) - 1])
SCALARS = st.none() | st.booleans() | INTEGERS | st.floats() | TEXTS
VALUES = st.recursive(
    SCALARS,
    lambda inner: st.lists(inner, max_size=6) | st.dictionaries(TEXTS, inner, max_size=12),
    max_leaves=25,
)
NUMBER_TEXTS = st.text(alphabet="0123456789_+-. eEinfatyNI\u0660\u0669\uff13\u00a0\x1c\x85\n", max_size=8)
FRAGMENTS = st.lists(
    st.sampled_from(
        [b"{", b"}", b"[", b"]", b",", b":", b'"', b'"a"', b'"a":', b"1", b"-", b"0", b".5", b"e", b"E+9", b"NaN", b"Infinity", b"-Infinity",
         b"Inf", b"null", b"true", b"fals", b"\\", b"\\u", b"\\u00e9", b"\\ud83d\\ude00", b"\\ud800", b"12", b" ", b"\n", b"\t", b"\0", b"\x1f",
         b"\x7f", "é".encode(), "😀".encode(), b"\xff", b"\xc3", b"\xe2\x82", b"\xed\xa0\x80", b"\xf0\x9f", b"\xef\xbb\xbf"]
    ),
    max_size=10,
).map(b"".join)

COMMON = settings(max_examples=400, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])


@COMMON
@given(VALUES, st.booleans())
def test_values_are_read_and_written_as_python_does(peer, value, ascii_only):
    check(peer, json.dumps(value, ensure_ascii=ascii_only).encode())


@COMMON
@given(st.lists(st.tuples(st.sampled_from("abcdefghijkl"), SCALARS), max_size=30))
def test_the_last_of_duplicate_keys_wins_at_the_first_position(peer, pairs):
    members = ", ".join(f"{json.dumps(key)}: {json.dumps(value)}" for key, value in pairs)
    check(peer, ("{" + members + "}").encode())


@COMMON
@given(NUMBER_TEXTS)
def test_texts_convert_to_numbers_as_python_converts_them(peer, text):
    check(peer, json.dumps(text).encode())


@COMMON
@given(st.floats(allow_nan=False) | st.integers(-(10**20), 10**20).map(float) | st.integers(-330, 310).map(lambda e: float(f"1e{e}")))
def test_floats_print_as_python_prints_them(peer, number):
    check(peer, repr(number).replace("inf", "Infinity").encode())


EDGES = {
    "numbers": [b"1e999", b"-1e999", b"1e-999", b"0e999", b"0.0000001e9999999999999999999999", b"1e-99999999999999999999", b"-0", b"-0.0", b"1E400",
                b"1" * 400, b"-" + b"9" * 5000, b"1" + b"0" * 400 + b"e-400", b"1" * 400 + b".5", b"5e-324", b"1.7976931348623159e308",
                b"9007199254740993.0", b"1e15", b"1e16", b"0.00001", b"-1.99", b"1e22", b"true", b"null", b"[1]", b"NaN", b"-Infinity"],
    "texts of numbers": [json.dumps(text).encode() for text in
                         [" \t12\n", "+1_2", "-007", "\u00a0\uff11\uff12\u3000", "\u0663\u0967", "\U0001D7D8", "12.0", "1__2", "_1", "- 1", "+-1", "0x10",
                          "\u00bd", "1_000", "\x1c12", "x" * 300, " 1_0.5_0e+1 ", ".5", "5.", ".", "", "+nan", "\uff11.5", "-1e-999", "nan(1)", "1_e5"]],
    "texts": [json.dumps(text).encode() for text in
              ["it's", '"it\'s"', "\0\t\n\r\\\x1b\x7f/\b\f", "\u00a0\u00ad\u200b\u2028\ufeff\ufffe\U000E0001", "\U0001F600"]]
             + ['"\u0080\u07ff\u0800\ud7ff\ue000\uffff\U00010000\U0010FFFF"'.encode()],
    "runs of every length": [b'"' + b"x" * length + rest + b'"' for length in range(40) for rest in (b"", b"\\n" + b"x" * length, b"\x1f", b"\xff")],
    "documents": [b"", b" \n [1,]", b"[Inf]", b"-NaN", b'{"a": 1,}', '{"\u00e9" 1}'.encode(), b"[1 2]", b"[01]", '["\U0001F600'.encode(), b'"a\nb"', b'"\\x"',
                  b'"\\u12g4"', b"1 x", b"1\0", b"\xef\xbb\xbf{}"],
    "bytes": [b"abc\x80", b"\xc0\x80", b"\xf5\x80\x80\x80", b"\xc3", b"\xe2\x82", b"\xe2\x82(", b"\xe0\x80\x80", b"\xed\xa0\x80", b"\xed", b"\xed\xa0",
              b"\xf0\x9f\x98", b"\xf0\x9f(", b"\xf4\x90\x80\x80", b"[\xc3("],
}  # fmt: skip


@pytest.mark.parametrize("documents", EDGES.values(), ids=EDGES.keys())
def test_edges(peer, documents):
    for document in documents:
        check(peer, document)


COMPARED = [
    None, False, True, 0, 0.0, -0.0, 1, 1.0, -1, 2, math.nan, math.inf, 2**53 + 1, 2.0**53, 2**63 - 1, -(2**63), 2**63, 2.0**63, -(2.0**63),
    10**20 - 1, 10**20, 1 - 10**20, -(10**20), 10**30, 1e30, int(1e30), "", "1", [], [1, 2], [2, 1], [True, 2.0], {}, {"a": 1},
    {"a": 1, "b": [2]}, {"b": [2.0], "a": True},
]  # fmt: skip
PLACES = ["", "/", "a", "a/", "b", "/b", "/a//b", "//a", "/a/./b//../c/", "/../..", "/missing/../..", "x/..", "~", "~/x", "a/~", "~root/x", "~no-such-user-here/x"]
ARGUMENTS = {
    "compare": list(itertools.product(COMPARED, repeat=2)),
    "paths": list(itertools.product(PLACES, repeat=2)),
    "strip": ["\t\x1c \u00a0\u2003\u3000a b\u0085\u2028\n", " \u3000 ", "\u200bx\u200b"],
    "url": [
        "HTTPS://User@Host:8443/a/b?q=1?2#f#g", "/data/files", "//host?x", "mailto:a@b", "host:80/a", "a_b:c", "\x01 \thttp://ho\nst/\ra ",
        "http://h/a:b//c", "http://[::1%eth0]:1/", "http://[v1.x]/", "http://HOST:0080", "http://u:p@w@Host", "http://@host:65535",
        "http://[FE80::1%Eth0]:8", "http://u@[::1]", "http://h:65536", "http://h:99999999999999999999", "http://h:-1", "http://[::1/",
        "http://::1]/", "http://[1.2.3.4]/", "http://[x]/", "http://[v.x]/", "http://a\uff0fb/",
    ],
}  # fmt: skip


@pytest.mark.parametrize(("operation", "arguments"), ARGUMENTS.items(), ids=ARGUMENTS.keys())
def test_small_operations_mean_what_they_mean_in_python(peer, operation, arguments):
    for argument in arguments:
        check(peer, json.dumps(argument).encode(), operation)


def test_links_are_followed_as_far_as_a_path_exists(peer, tmp_path):
    (tmp_path / "dir/inner").mkdir(parents=True)
    links = {"relative": "dir/inner", "absolute": tmp_path / "dir", "dangling": "nowhere/x", "loop-a": "loop-b", "loop-b": "loop-a"}
    for name, target in links.items():
        (tmp_path / name).symlink_to(target)
    for below in ("/..", "/../missing/./x", "/inner/missing", "/../y", "/x"):
        for name in (*links, "dir", "missing"):
            check(peer, json.dumps([f"{tmp_path}/{name}{below}", ""]).encode(), "paths")


@COMMON
@given(FRAGMENTS | st.binary(max_size=12))
def test_hostile_bytes_are_refused_with_pythons_words(peer, document):
    check(peer, document)


@COMMON
@given(VALUES, st.data())
def test_damaged_documents_are_refused_with_pythons_words(peer, value, data):
    document = json.dumps(value, ensure_ascii=False, indent=data.draw(st.sampled_from([None, 1]))).encode()
    at = data.draw(st.integers(0, len(document)))
    kept = data.draw(st.integers(at, min(len(document), at + 3)))
    check(peer, document[:at] + data.draw(st.sampled_from([b"", b",", b'"', b"}", b"]", b"\\", b"\n", b"x"])) + document[kept:])
