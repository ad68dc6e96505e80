"""Runs the fuzz targets: over the inputs that are kept, then on from them.

tests/fuzz/corpus holds a text file for each target, an input on each line: as it stands, with a backslash before what does
not print. What a run finds beside them stays in build/fuzz/corpus until --keep takes over what reaches new code.
"""

import argparse
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

HERE = Path(__file__).resolve().parent
NAMES = sorted(path.stem.removesuffix("_fuzz") for path in HERE.glob("*_fuzz.cpp"))
ESCAPED = re.compile(r"\\(?:x(..)|(.))")
PARSERS = [
    *(f"sync/base/values/{name}.cpp" for name in ("convert", "convert_text", "integer_sum", "json_parse", "json_write")),
    *("sync/base/text/text.cpp", "sync/base/text/url.cpp", "sync/base/text/secrets.cpp", "sync/base/files/paths.cpp"),
    *(f"sync/documents/{name}.cpp" for name in ("manifest", "manifest_filters", "manifest_paths", "feature_paths", "parsed_file")),
    *(f"sync/documents/{name}.cpp" for name in ("signals_index", "signals_index_document", "shuffle_seed")),
    *(f"sync/documents/{name}.cpp" for name in ("vocabulary", "vocabulary_tokens", "manifest_vocabularies")),
    *("sync/era/era_current.cpp", "sync/era/watcher_decision.cpp", "sync/lifecycle/told_era.cpp"),
    *("sync/engine/hash_cache_entries.cpp", "sync/engine/hash_cache_file.cpp"),
    *(f"sync/transport/{name}.cpp" for name in ("header_rules", "redirects", "settings", "unavailable", "http", "curl_transfer")),
    *(f"sync/neighbours/{name}.cpp" for name in ("release_version", "rotation_settings", "rotation_state", "transport_security")),
    *("sync/rotation/state_file.cpp", "sync/rotation/prefetched_features.cpp"),
]
INTERRUPTED = 72  # a target's exit code where it heard the Ctrl-C
NAMED = {"n": "\n", "r": "\r", "t": "\t", "\\": "\\"}


def escape(data: bytes) -> str:
    names = {value: "\\" + name for name, value in NAMED.items()}
    return "".join(names.get(c) or (c if " " <= c <= "~" else f"\\x{ord(c):02x}") for c in data.decode("latin-1"))


def unescape(line: str) -> bytes:
    return ESCAPED.sub(lambda found: chr(int(found[1], 16)) if found[1] else NAMED[found[2]], line).encode("latin-1")


def corpus(build: Path, name: str) -> list[Path]:
    """The folders of inputs: what a run adds to, and what is kept."""
    grown, kept = build / "corpus" / name, build / "kept" / name
    shutil.rmtree(kept, ignore_errors=True)
    for folder in (grown, kept):
        folder.mkdir(parents=True, exist_ok=True)
    for number, line in enumerate((HERE / "corpus" / f"{name}.txt").read_text().splitlines()):
        (kept / f"{number:04}").write_bytes(unescape(line))
    return [grown, kept]


def run(build: Path, name: str, seconds: int, temporary: str) -> bool:
    target, log = build / "bin" / f"{name}_fuzz", build / f"{name}.log"
    command: list[str | Path] = [target, f"-dict={HERE / 'words.dict'}", f"-max_total_time={seconds}", "-max_len=4096", "-timeout=60", "-rss_limit_mb=1024"]
    command += [f"-artifact_prefix={build}/finding-{name}-", "-print_final_stats=1", *corpus(build, name)]
    with log.open("w") as output:
        code = subprocess.run(command, stdout=output, stderr=output, env={**os.environ, "TMPDIR": temporary}).returncode
    if code == INTERRUPTED:
        return False
    text = log.read_text(errors="replace")
    executions, speed = (re.search(rf"stat::{key}: +(\d+)", text) for key in ("number_of_executed_units", "average_exec_per_sec"))
    counts = f"{executions[1]} executions, {speed[1]} a second" if executions and speed else "no figures"
    print(f"{name}: {counts}" if code == 0 else f"{name}: FAILED after {counts}; {log} ends in", flush=True)
    if code != 0:
        uninteresting = r"\s*(#\d+\s.*(NEW|REDUCE|RELOAD|pulse|INITED| in (fuzzer::|main|_start|__libc|raise|abort|__pthread))|NEW_FUNC|INFO|stat::|NOTE|$)"
        print("\n".join([line for line in text.splitlines() if not re.match(uninteresting, line)][-20:]))
        if found := re.search(r"Test unit written to (\S+)", text):
            print(f"again: {shlex.join([str(target), found[1]])}")
    return code == 0


def keep(build: Path, name: str) -> None:
    """Adds the small inputs that reach code which what is kept does not."""
    grown, kept = corpus(build, name)
    before = set(kept.iterdir())
    command: list[str | Path] = [build / "bin" / f"{name}_fuzz", "-merge=1", "-use_counters=0", "-max_len=256", kept, grown]
    subprocess.run(command, check=True, capture_output=True)
    inputs = {path.read_bytes() for path in kept.iterdir() if path in before or path.stat().st_size <= 256}
    (HERE / "corpus" / f"{name}.txt").write_text("".join(escape(data) + "\n" for data in sorted(inputs, key=lambda data: (len(data), data))))
    print(f"{name}: {len(inputs) - len(before)} more inputs, {sum(map(len, inputs))} bytes in all")


def coverage(build: Path, corpora: Path) -> None:
    """The lines that all inputs reach, by file."""
    for name in NAMES:
        subprocess.run(
            [build / "bin" / f"{name}_fuzz", "-runs=0", *corpus(corpora, name)],
            check=True,
            capture_output=True,
            env={**os.environ, "LLVM_PROFILE_FILE": str(build / f"{name}.profraw")},
        )
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", "-o", f"{build}/all.profdata", *map(str, build.glob("*.profraw"))], check=True)
    targets = [f"-object={build}/bin/{name}_fuzz" for name in NAMES]
    export = ["llvm-cov-14", "export", "-format=lcov", f"-instr-profile={build}/all.profdata", *targets[1:], targets[0].removeprefix("-object=")]
    traced = subprocess.run(export, check=True, stdout=subprocess.PIPE, text=True).stdout
    missed, total = 0, 0
    for record in traced.split("end_of_record\n")[:-1]:
        file = os.path.relpath(re.findall(r"^SF:(.*)", record, re.MULTILINE)[0], HERE.parents[1])
        lines = dict(re.findall(r"^DA:(\d+),(\d+)", record, re.MULTILINE))
        if file in PARSERS:
            unreached = [line for line, count in lines.items() if count == "0"]
            missed, total = missed + len(unreached), total + len(lines)
            print(f"{1 - len(unreached) / len(lines):7.1%} of {len(lines):4} lines  {file}  {'not ' if unreached else ''}{' '.join(unreached)}")
    print(f"{1 - missed / total:7.1%} of {total:4} lines")


def seconds(text: str) -> int:
    if (count := int(text)) < 1:
        raise ValueError  # a target would take it as without an end
    return count


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev fuzz", description=__doc__)
    parser.add_argument("--build", type=Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--corpora", type=Path, help=argparse.SUPPRESS)
    parser.add_argument("--seconds", type=seconds, default=os.environ.get("FUZZ_SECONDS", "60"), help="for each target (FUZZ_SECONDS, 60)")
    parser.add_argument("--keep", action="store_true", help="afterwards, keep in the tree what reaches new code")
    parser.add_argument("--coverage", action="store_true", help="instead, print the lines of the parsers that the inputs reach")
    parser.add_argument("targets", nargs="*", metavar="TARGET", help=" ".join(NAMES))
    given = parser.parse_args()
    if unknown := set(given.targets) - set(NAMES):
        parser.error(f"there is no target {min(unknown)}; there are {', '.join(NAMES)}")
    if given.coverage:
        coverage(given.build, given.corpora)
        return 0
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    names = given.targets or NAMES
    with tempfile.TemporaryDirectory(dir=memory) as temporary, ThreadPoolExecutor(os.cpu_count()) as pool:
        fine = all(list(pool.map(lambda name: run(given.build, name, given.seconds, temporary), names)))
    if given.keep and fine:
        for name in names:
            keep(given.build, name)
    return 0 if fine else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        sys.exit(130)
