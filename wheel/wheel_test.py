"""What `./dev wheel` asks of the wheel in dist: it holds what it needs, shows nothing of it, and works where only Python and libc are."""

import importlib.util
import os
import platform
import re
import shutil
import ssl
import subprocess
import sys
import sysconfig
import zipfile
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

ROOT = Path(__file__).resolve().parent.parent
[WHEEL] = (ROOT / "dist").glob("*.whl")
MODULE = "brackenfen/sync.abi3.so"
# What every Linux of the tag has. libgcc_s is the unwinder, which a process has once.
SYSTEM_LIBRARIES = re.compile(r"lib(c|m|dl|rt|pthread|resolv|gcc_s)\.so\.\d|ld-linux.*")
LICENCES = {"LIBRARIES", "OpenSSL", "curl", "fmt", "libstdc++", "nanobind", "robin-map"}
AUTHORITIES = [
    "etc/ssl/certs/ca-certificates.crt",  # Debian, Ubuntu, Arch, Gentoo
    "etc/pki/tls/certs/ca-bundle.crt",  # Fedora, RHEL
    "etc/ssl/ca-bundle.pem",  # SUSE
    "etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  # newer Fedora
    "etc/ssl/cert.pem",  # Alpine
]

# Ends its waits at the first warning: nothing here is worth waiting for.
HOST = """
import logging, sys
from brackenfen import sync

warnings = []
class Warnings(logging.Handler):
    def emit(self, record):
        warnings.append(record.getMessage())
logging.getLogger("brackenfen.sync").addHandler(Warnings(logging.WARNING))
try:
    with sync.backoff_context(stop_requested=lambda: bool(warnings)):
        manager = sync.SyncManager.get_or_create("/data", sys.argv[1], get_token=lambda: "token")
        print(manager.sync().bytes_downloaded, *sorted(manager.get_manifest().files), *warnings)
except sync.SyncBackoffCancelled:
    print(*warnings)
"""


def output(*command: str | Path) -> str:
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


@pytest.fixture(scope="session")
def unpacked(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("wheel")
    with zipfile.ZipFile(WHEEL) as archive:
        archive.extractall(folder)
    return folder


def files_of(folder: Path) -> set[str]:
    return {path.relative_to(folder).as_posix() for path in folder.rglob("*") if path.is_file() and path.suffix != ".pyc"}


def test_the_command_is_there_with_all_its_files(unpacked: Path) -> None:
    module = {"sync.abi3.so", "sync.pyi", "py.typed"}
    assert files_of(unpacked / "brackenfen") == module | files_of(ROOT / "tools" / "command" / "brackenfen")


def test_one_file_for_many_systems_shows_and_needs_nothing_of_its_libraries(unpacked: Path) -> None:
    assert re.fullmatch(rf"brackenfen_sync-[\d.]+-cp312-abi3-manylinux_2_\d+_{platform.machine()}\.whl", WHEEL.name)
    assert WHEEL.stat().st_size < 12_000_000
    assert [path.relative_to(unpacked).as_posix() for path in unpacked.rglob("*.so*")] == [MODULE]
    defined = output("nm", "-D", "--defined-only", "--format=just-symbols", unpacked / MODULE).split()
    assert [name.split("@")[0] for name in defined] == ["PyInit_sync"]
    needed = re.findall(r"\((NEEDED|RPATH|RUNPATH)\).*\[(.*)\]", output("readelf", "-d", unpacked / MODULE))
    assert [(kind, name) for kind, name in needed if kind != "NEEDED" or not SYSTEM_LIBRARIES.fullmatch(name)] == []
    [licences] = unpacked.glob("*.dist-info/licenses/libraries")
    assert {path.stem for path in licences.iterdir() if path.stat().st_size > 100} == LICENCES


def shared_libraries(file: Path) -> set[Path]:
    return {Path(path) for path in re.findall(r"(/\S+) \(0x", output("ldd", file))}


@pytest.fixture(scope="session")
def clean_root(unpacked: Path, tmp_path_factory: pytest.TempPathFactory) -> Path:
    """A root of the interpreter, its standard library, the unpacked wheel, and those libraries that the two are linked to."""
    root = tmp_path_factory.mktemp("root")
    interpreter, library = Path(sys._base_executable), Path(sysconfig.get_path("stdlib"))  # type: ignore[attr-defined]
    for path in shared_libraries(interpreter) | shared_libraries(unpacked / MODULE):
        (root / path.parent.relative_to("/")).mkdir(parents=True, exist_ok=True)
        shutil.copy2(path, root / path.relative_to("/"))
    (root / "usr" / "bin").mkdir(parents=True, exist_ok=True)
    shutil.copy2(interpreter, root / "usr" / "bin" / "python3")
    unneeded = shutil.ignore_patterns("test", "site-packages", "dist-packages", "idlelib", "tkinter", "ensurepip", "config-*", "__pycache__")
    shutil.copytree(library, root / "usr" / "lib" / library.name, ignore=unneeded, dirs_exist_ok=True)
    shutil.copytree(unpacked, root / "wheel")
    foreign = re.compile(r"lib(curl|fmt|ssl|crypto|stdc\+\+|nghttp2|z)\.so")
    assert [path for path in root.rglob("*.so*") if foreign.match(path.name)] == []
    return root


@pytest.fixture
def data(clean_root: Path) -> Iterator[Path]:
    (clean_root / "data").mkdir()
    yield clean_root / "data"
    shutil.rmtree(clean_root / "data")
    shutil.rmtree(clean_root / "etc", ignore_errors=True)


@pytest.fixture
def server(unpacked: Path, monkeypatch: pytest.MonkeyPatch) -> Iterator[Any]:
    """The one of the Python tests, which import the library: here the wheel's."""
    monkeypatch.syspath_prepend(unpacked)
    specification = importlib.util.spec_from_file_location("python_conftest", ROOT / "tests" / "python" / "conftest.py")
    assert specification is not None and specification.loader is not None
    module = importlib.util.module_from_spec(specification)
    specification.loader.exec_module(module)
    running = module.Server()
    running.add("features/a.bin", b"a" * 100_000)
    yield running
    running.close()


@pytest.fixture(scope="session")
def certificate(tmp_path_factory: pytest.TempPathFactory) -> tuple[Path, Path]:
    folder = tmp_path_factory.mktemp("certificate")
    made = folder / "certificate.pem", folder / "key.pem"
    new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj", "/CN=test"]
    output(*new, "-addext", "subjectAltName=IP:127.0.0.1", "-out", made[0], "-keyout", made[1])
    return made


def run_host(root: Path, url: str, **environment: str) -> str:
    """A pass inside the root, by a namespace of its own, or by chroot where only root's own right is there."""
    inside = ["unshare", "--map-root-user", "--root", str(root), "--"]
    if subprocess.run([*inside[:2], "true"], stderr=subprocess.DEVNULL).returncode != 0:
        if os.geteuid() != 0:
            pytest.skip("NOT TRIED in a clean root: namespaces are not allowed here, and this is not root")
        inside = ["chroot", str(root)]
    usual = {"PATH": os.environ["PATH"], "PYTHONHOME": "/usr", "PYTHONPATH": "/wheel"}
    done = subprocess.run([*inside, "/usr/bin/python3", "-c", HOST, url], capture_output=True, text=True, timeout=60, env=usual | environment)
    return done.stdout + done.stderr


PASSED = r"\d{6} features/a.bin functions.json named_universes/us/vocabulary.json\n"


def test_a_pass_over_http(clean_root: Path, data: Path, server: Any) -> None:
    said = run_host(clean_root, server.url)
    assert re.fullmatch(PASSED, said), said
    assert (data / "features" / "a.bin").stat().st_size == 100_000


@pytest.mark.parametrize("place", [*AUTHORITIES, "SSL_CERT_FILE", "SSL_CERT_DIR", "none"])
def test_a_pass_over_https_with_the_systems_authorities(
    clean_root: Path, data: Path, server: Any, certificate: tuple[Path, Path], place: str
) -> None:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(*certificate)
    server.http.socket = context.wrap_socket(server.http.socket, server_side=True)
    environment, expected = {}, PASSED
    bundle = clean_root / (place if "/" in place else "etc/own/authorities.pem")
    if place == "SSL_CERT_FILE":
        environment = {place: "/etc/own/authorities.pem"}
    elif place == "SSL_CERT_DIR":
        environment = {place: "/etc/own"}
        bundle = bundle.with_name(output("openssl", "x509", "-hash", "-noout", "-in", certificate[0]).strip() + ".0")
    elif place == "none":
        expected = r".*TrustStoreError.*SSL_CERT_FILE or SSL_CERT_DIR says where they are.*\n"
    bundle.parent.mkdir(parents=True)
    shutil.copy(certificate[0], bundle)
    said = run_host(clean_root, server.url.replace("http:", "https:"), **environment)
    assert re.fullmatch(expected, said, re.DOTALL), said
