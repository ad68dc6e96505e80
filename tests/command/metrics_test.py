"""Figures for Prometheus: from a client's run, from outside, and what is made of them in examples/monitoring."""

import json
import logging
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from brackenfen import sync
from brackenfen.sync_metrics import MetricsFile
from brackenfen.sync_metrics.figures import FIGURES, PREFIX
from brackenfen.sync_metrics.textfile import write_whole
from prometheus_client.parser import text_string_to_metric_families

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples" / "monitoring"
TOKEN = "canary-71c0ffee"
COUNTERS = {name for name in FIGURES if name.endswith("_total")}
AT = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(1.7e9))


def figures(text):
    """By name without its prefix. Every sample has the directory as its label, and no other but the build's version."""
    found = {}
    for sample in (sample for family in text_string_to_metric_families(text) for sample in family.samples):
        assert os.path.isabs(sample.labels["directory"]) and set(sample.labels) <= {"directory", "version"}
        found[sample.name.removeprefix(PREFIX)] = sample.value
    return found


@pytest.fixture
def command(tmp_path):
    """command(arguments) -> exit code, standard output, standard error"""

    def run(*arguments, **changes):
        given = os.environ | {"BRACKENFEN_TOKEN": TOKEN, "XDG_CONFIG_HOME": "/nowhere"} | changes
        whole = [sys.executable, "-m", "brackenfen.sync_command", *map(str, arguments)]
        done = subprocess.run(whole, env=given, cwd=tmp_path, capture_output=True, text=True, timeout=60)
        assert TOKEN not in done.stdout + done.stderr and "Traceback" not in done.stderr
        return done.returncode, done.stdout, done.stderr

    return run


@pytest.fixture(scope="session")
def promtool():
    """promtool(arguments): raises where it finds fault."""
    path = shutil.which("promtool", path=f"{ROOT}/build/promtool/usr/bin:{os.environ['PATH']}")
    assert path, "./dev test brings promtool along"

    def run(*arguments, **options):
        done = subprocess.run([path, *map(str, arguments)], capture_output=True, text=True, timeout=60, **options)
        assert done.returncode == 0, done.stdout + done.stderr

    return run


def test_what_a_client_goes_through_is_in_its_figures(command, promtool, tool, serve, tmp_path, wait_until):
    tool("sample", tmp_path / "eras", "--source", "--files", 24, "--bytes", "200kB", "--eras", 2, "--universes", "liquid_500")
    tool("publish", tmp_path / "eras/era-1", tmp_path / "tree", "--era", 1, "--version", 1)
    (tmp_path / "faults").write_text("/data/manifest*:status=503,times=2\n/data/files/features/*:wrong-bytes,times=1\n")
    server = serve(tmp_path / "tree", "--fault-file", tmp_path / "faults", "--token", TOKEN)
    (tmp_path / "watch.toml").write_text(f'server = "{server.url}"\ndirectory = "data"\npoll_interval_seconds = 0.1\n')
    data, events, written = tmp_path / "data", tmp_path / "events", tmp_path / "x.prom"
    data.mkdir()
    (data / "feature-rotation-settings.json").write_text('{"feature_budget_gb": 0.00005, "rotation_frequency": "PT1H"}')
    whole = [sys.executable, "-m", "brackenfen.sync_command", "watch", "-c", "watch.toml", "--events", "events", "--metrics", "x.prom"]
    watch = subprocess.Popen(whole, env=os.environ | {"BRACKENFEN_TOKEN": TOKEN}, cwd=tmp_path, stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: events.exists() and '"Synced era 1' in events.read_text())
        (data / "functions.json").write_text("damaged")
        wait_until(lambda: events.read_text().count('"Synced era 1') == 2)
        os.utime(data / "feature-rotation-state.json", (1.7e9, 1.7e9))  # the next rotation is due
        tool("publish", tmp_path / "eras/era-2", tmp_path / "tree", "--era", 2, "--version", 2)
        wait_until(lambda: '"Era transition to era 2' in events.read_text())
        watch.send_signal(signal.SIGTERM)
        assert watch.wait(timeout=20) == 0
    finally:
        watch.kill()
        watch.wait()
    text = written.read_text()
    inside = figures(text)
    assert TOKEN not in text and written.stat().st_mode & 0o777 == 0o644
    assert inside["outages_total"] == 1 and 0.3 < inside["outage_seconds_total"] < 20 and inside["download_repairs_total"] == 1 == inside["local_repairs_total"]
    assert (inside["transitions_total"], inside["era_number"], inside["manifest_version"]) == (1, 2, 2)
    lines = [event for line in events.read_text().splitlines() if (event := json.loads(line))["event_type"] == "log"]
    [moved] = [event["args"][2:] for event in lines if event["format"].startswith("Era transition")]
    landed = [moved, *(event["args"][2:4] for event in lines if event["format"] == SYNCED["format"])]
    assert len(landed) == inside["passes_total"] + 1 >= 3 and moved[0] > 0 and moved[1] > 1000
    assert [inside["landed_files_total"], inside["landed_bytes_total"]] == [sum(pair) for pair in zip(*landed, strict=True)]
    assert inside["rotation_generation"] == 2 and 0 < inside["rotation_held_features"] < inside["rotation_eligible_features"]
    assert inside["disk_budget_bytes"] == 0.00005 * 2**30 and inside["disk_free_bytes"] > 0
    assert inside["running"] == 0 and inside["in_step"] == 1 and time.time() - inside["last_good_pass_timestamp_seconds"] < 60

    code, text, _ = command("metrics", "data", "-s", server.url, "--events", "events")
    outside = figures(text)
    assert code == 0 and (outside["in_step"], outside["server_up"], outside["server_era_number"], outside["locked"]) == (1, 1, 2, 0)
    for name in COUNTERS | {"era_number", "manifest_version", "rotation_held_features", "committed_timestamp_seconds"}:
        assert outside[name] == pytest.approx(inside[name], abs=0.5), name
    for told in (written.read_text(), text):
        promtool("check", "metrics", input=told)


SYNCED = {"event_type": "log", "format": "Synced era %s to version %s: %d files, %d bytes, in %.1f s", "message": "", "args": [1, 3, 2, 70, 0.1]}
HOSTILE = f'{{}}\n\x00\xff\n{"[" * 100_000}\n' + json.dumps({"time": AT, **SYNCED, "args": [1, 3, float("nan"), 10**400, 0]}) + "\n"
AWAY = {"event_type": "sync_unavailable_status", "endpoint": f'/a"}}\n{TOKEN}', "status_sequence": [503]}
CASES = {
    "a log that is none": ([HOSTILE, SYNCED], {"passes_total": 1, "landed_bytes_total": 70, "log_unreadable_lines": 4, "failing": 0}),
    "two logs": ([SYNCED, None, SYNCED], {"passes_total": 2, "landed_files_total": 4, "running": 0}),
    "an outage that lasts": ([{"event_type": "watch_started"}, SYNCED, AWAY], {"running": 1, "outages_total": 1, "in_step": 0}),
    "a failure": ([{"event_type": "log", "level": "WARNING", "format": "", "args": [], "message": "Poll once failed: no"}], {"failures_total": 1, "warnings_total": 1, "failing": 1}),
    "damage here": ([{"event_type": "log", "format": "Manifest-tracked local file failed integrity check; re-downloading: %s", "message": "", "args": [TOKEN]}], {"local_repairs_total": 1}),
    "a verify": ([{"event_type": "verified", "files": 9, "corrupted": 1, "missing": 2}], {"verified_bad_files": 3, "verified_timestamp_seconds": 1.7e9}),
    "no log": ([], {"era_number": 1, "listed_bytes": 1, "damaged": 0, "passes_total": None, "in_step": None, "server_up": None, "running": None}),
}  # fmt: skip


@pytest.mark.parametrize(("log", "told"), CASES.values(), ids=CASES)
def test_a_log_becomes_figures_and_what_is_unknown_none(command, tmp_path, log, told):
    (tmp_path / "dätä").mkdir()
    entry = {"kind": "feature", "size_bytes": 1, "sha256": "0" * 64}
    (tmp_path / "dätä/manifest.json").write_text(json.dumps({"version": 3, "era_number": 1, "files": {"features/u/a.arrow": entry}}))
    given, streams = [], []
    for event in [None, *log] if log else []:
        if event is None:
            given += ["--events", f"events{len(streams)}"]
            streams.append((tmp_path / given[-1]).open("w"))  # as watch has it open
        else:
            streams[-1].write(event if isinstance(event, str) else json.dumps({"time": AT, "level": "INFO", **event}) + "\n")
            streams[-1].flush()
    code, text, error = command("metrics", "dätä", *given, PYTHONIOENCODING="latin-1")
    for stream in streams:
        stream.close()
    found = figures(text)
    assert (code, error) == (0, "") and {name: found.get(name) for name in told} == told
    assert (found.get("server_wait_seconds", 0) > 10**6) == (AWAY in log)


@pytest.mark.parametrize(("arguments", "changes", "code", "said"), [
    (["metrics", "nowhere"], {}, 2, "does not exist"),
    (["metrics", "data"], {"PYTHONPATH": "without"}, 2, "metrics needs the package prometheus-client: pip install 'brackenfen-sync[metrics]'\n"),
    (["watch", "-d", "data", "-s", "http://127.0.0.1:9", "--metrics", "x.prom"], {"PYTHONPATH": "without"}, 2, "pip install 'brackenfen-sync[metrics]'\n"),
    (["metrics", "data", "-o", "data/x.prom"], {}, 2, "is the library's own"),
    (["metrics", "data", "-o", "x.txt"], {}, 2, "ends in .prom"),
    (["metrics", "data", "-o", "nowhere/x.prom"], {}, 2, "cannot be written"),
    (["metrics", "data", "-o", "x.prom"], {}, 0, ""),
    (["metrics", "data", "-s", "http://127.0.0.1:9", "-o", "x.prom"], {}, 0, ""),
])  # fmt: skip
def test_one_line_says_what_is_wrong_and_damage_is_a_figure(command, tmp_path, arguments, changes, code, said):
    (tmp_path / "without").mkdir()
    (tmp_path / "without/prometheus_client.py").write_text("raise ModuleNotFoundError('none', name='prometheus_client')")
    (tmp_path / "data").mkdir()
    (tmp_path / "data/manifest.json").write_text("{")
    (tmp_path / "data/feature-rotation-settings.json").write_text(f'{{"feature_budget_gb": 1{"0" * 400}}}')
    done, out, error = command(*arguments, **{name: f"{value}:{os.environ[name]}" for name, value in changes.items()})
    assert (done, said in error, error.count("\n")) == (code, True, int(code != 0)), error
    assert [path.name for path in tmp_path.glob("*.prom")] == ["x.prom"] * (not code)
    if not code:
        found = figures((tmp_path / "x.prom").read_text())
        assert found["damaged"] == 1 and found["in_step"] == 0 and found.get("server_up") == (0 if "-s" in arguments else None)


HOST = """
import logging, os, resource, sys, time
from brackenfen import sync
from brackenfen.sync_metrics import MetricsFile
logging.basicConfig(level=logging.INFO, format="%(levelname)s %(message)s")
os.umask(0o077)
manager = sync.SyncManager("data", "http://127.0.0.1:9", get_token=lambda: "")
figures = MetricsFile(manager, "data", "x.prom", 0.01)
def until(condition):
    while not condition(): time.sleep(0.005)
until(lambda: os.path.exists("x.prom"))
def changed():
    before = os.stat("x.prom").st_ino, os.stat("x.prom").st_mtime_ns
    return lambda: (os.stat("x.prom").st_ino, os.stat("x.prom").st_mtime_ns) != before
"""
SCENES = {
    "it ends without a word": ("print(oct(os.stat('x.prom').st_mode & 0o777))", "0o644", ""),
    "a full disk": ("""
resource.setrlimit(resource.RLIMIT_FSIZE, (100, resource.RLIM_INFINITY))
until(lambda: figures._has_warned)
print(os.path.getsize("x.prom") > 1000, sorted(os.listdir()))
resource.setrlimit(resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
until(changed())
""", "True ['data', 'x.prom']", "File too large"),
    "a fork": ("""
figures.close()
figures = MetricsFile(manager, "data", "x.prom", 60)
if (child := os.fork()) == 0:
    os.unlink("x.prom")
    figures.close()
    os._exit(os.path.exists("x.prom"))
print(os.waitpid(child, 0)[1])
figures.close()
figures.close()
print(os.path.exists("x.prom"))
""", "0\nTrue", ""),
    "its handlers are replaced": ("""
import logging.config
class Bad:
    def __str__(self): raise RuntimeError
logging.raiseExceptions = False
logging.getLogger("brackenfen.sync").warning(Bad())
until(lambda: "passes_total" in open("x.prom").read())
logging.config.dictConfig({"version": 1, "disable_existing_loggers": False, "loggers": {"brackenfen": {"level": "INFO"}}})
until(lambda: "passes_total" not in open("x.prom").read())
""", "", "so the counters are left out"),
    "no manager any more": (
        "del manager; figures._thread.join(20); print(figures._thread.is_alive(), len(logging.getLogger('brackenfen.sync').handlers))", "False 0", ""
    ),
}  # fmt: skip


@pytest.mark.parametrize(("scene", "printed", "warned"), SCENES.values(), ids=SCENES)
def test_a_host_is_not_harmed_by_its_figures(tmp_path, scene, printed, warned):
    (tmp_path / "data").mkdir()
    done = subprocess.run([sys.executable, "-W", "ignore", "-c", HOST + scene], cwd=tmp_path, capture_output=True, text=True, timeout=30)
    assert (done.returncode, done.stdout.strip()) == (0, printed) and done.stderr.count("WARNING") == bool(warned), done.stderr
    assert warned in done.stderr


def test_a_host_whose_logger_is_closed_has_figures_without_counters(tmp_path, caplog):
    (tmp_path / "data").mkdir()
    manager = sync.SyncManager(tmp_path / "data", "http://127.0.0.1:9", get_token=lambda: "")
    with caplog.at_level(logging.WARNING, logger="brackenfen.sync"), MetricsFile(manager, tmp_path / "data", tmp_path / "x.prom"):
        pass
    found = set(figures((tmp_path / "x.prom").read_text()))
    assert "running" in found and not found & COUNTERS and "counters are left out" in caplog.text
    for place, seconds in ((tmp_path / "data/x.prom", 1), (tmp_path / "x.prom", 0)):
        with pytest.raises(ValueError):
            MetricsFile(manager, tmp_path / "data", place, seconds)


def test_a_reader_meets_a_whole_file_at_any_moment(tmp_path):
    """Of two writers, too, as by mistake or in two containers with the same process numbers."""
    place, contents = tmp_path / "x.prom", [letter * 1_000_000 for letter in (b"a", b"b")]
    write_whole(place, contents[0])
    with ThreadPoolExecutor(2) as pool:
        writers = [pool.submit(lambda content=content: [write_whole(place, content) for _ in range(60)]) for content in contents]
        seen = []
        while not all(writer.done() for writer in writers):
            seen.append(place.read_bytes() in contents)
    assert all(len(writer.result()) == 60 for writer in writers) and all(seen) and list(tmp_path.iterdir()) == [place]


def test_alerts_fire_when_they_should_and_dashboard_and_pages_speak_of_figures_that_there_are(promtool, tmp_path):
    promtool("check", "rules", EXAMPLES / "alerts.yml")
    promtool("test", "rules", EXAMPLES / "alerts_test.yml")
    alerts, page = (EXAMPLES / "alerts.yml").read_text(), (ROOT / "docs" / "monitoring.md").read_text()
    panels = json.loads((EXAMPLES / "dashboard.json").read_text())["panels"]
    shown = [target["expr"].replace("$__rate_interval", "5m") for panel in panels for target in panel["targets"]]
    queries = [*re.findall(r"^ +expr: (.*)$", alerts, re.MULTILINE), *shown]
    used = set(re.findall(rf"{PREFIX}(\w+)", " ".join(queries)))
    assert used <= set(FIGURES) and len(FIGURES.keys() - used) < 15
    told = [re.findall(r"^\| `(\w+)` \|", part, re.MULTILINE) for part in page.split("\n## ")]
    assert list(FIGURES) in told and re.findall(r"- alert: (\w+)", alerts) in told
    rules = [{"record": f"a:{index}", "expr": query} for index, query in enumerate(queries)]
    (tmp_path / "rules.json").write_text(json.dumps({"groups": [{"name": "queries", "rules": rules}]}))  # which is YAML as well
    promtool("check", "rules", tmp_path / "rules.json")


def test_the_dashboard_has_what_grafana_asks_of_one():
    board = json.loads((EXAMPLES / "dashboard.json").read_text())
    assert board["id"] is None and 8 <= len(board["uid"]) <= 40 and {"title", "schemaVersion", "time", "refresh"} <= set(board)
    variables = {variable["name"] for variable in board["templating"]["list"]}
    assert set(re.findall(r"\$\{?(\w+)", json.dumps(board))) - {"__rate_interval", "__all"} == variables
    taken = set()
    for panel in board["panels"]:
        place = panel["gridPos"]
        cells = {(x, y) for x in range(place["x"], place["x"] + place["w"]) for y in range(place["y"], place["y"] + place["h"])}
        assert not cells & taken and place["x"] + place["w"] <= 24 and panel["description"] and panel["targets"]
        taken |= cells
    assert len({panel["id"] for panel in board["panels"]}) == len(board["panels"])
