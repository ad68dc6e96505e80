"""Makes the static libraries that go into the wheel: libcurl from its source package, OpenSSL from its own package.

usage: libraries.py FOLDER

FOLDER gets include, lib and licences, and a stamp: what is there already for the same pins and compiler stays. Packages come
by this machine's own apt and its sources, into lists of FOLDER's; nothing is installed and no right of root is needed.
"""

import hashlib
import importlib.metadata
import os
import platform
import re
import shutil
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

HERE = Path(__file__).resolve().parent
PINS = HERE / "libraries.txt"
DOCUMENTS = Path("/usr/share/doc")
COMMON_LICENCES = Path("/usr/share/common-licenses")

# HTTP and TLS alone: what sync/transport uses, proxies included. It says itself where the certificate authorities are.
CURL_OPTIONS = [
    "-DHTTP_ONLY=ON", "-DCURL_USE_OPENSSL=ON", "-DENABLE_THREADED_RESOLVER=ON", "-DENABLE_IPV6=ON",
    "-DCURL_ZLIB=OFF", "-DCURL_BROTLI=OFF", "-DCURL_ZSTD=OFF", "-DUSE_NGHTTP2=OFF", "-DUSE_LIBIDN2=OFF",
    "-DCURL_USE_LIBPSL=OFF", "-DCURL_USE_LIBSSH2=OFF", "-DCURL_USE_GSSAPI=OFF", "-DCURL_DISABLE_NTLM=ON",
    "-DCURL_DISABLE_COOKIES=ON", "-DCURL_DISABLE_ALTSVC=ON", "-DCURL_DISABLE_HSTS=ON", "-DCURL_DISABLE_DOH=ON",
    "-DCURL_DISABLE_NETRC=ON", "-DCURL_CA_BUNDLE=none", "-DCURL_CA_PATH=none",
    "-DBUILD_SHARED_LIBS=OFF", "-DBUILD_CURL_EXE=OFF", "-DBUILD_TESTING=OFF", "-DENABLE_MANUAL=OFF",
    "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_POSITION_INDEPENDENT_CODE=ON", "-DCMAKE_INSTALL_LIBDIR=lib", "-DOPENSSL_USE_STATIC_LIBS=ON",
]  # fmt: skip
CURL_PROTOCOLS = {"HTTP", "HTTPS"}
CURL_FEATURES = {"SSL", "IPv6", "AsynchDNS", "Largefile", "HTTPS-proxy", "threadsafe"}


class NotMade(Exception):
    """Why the libraries could not be made, for whoever builds."""


@dataclass(frozen=True)
class Pin:
    name: str
    version: str
    sha256: str

    def require(self, file: Path) -> Path:
        found = hashlib.sha256(file.read_bytes()).hexdigest()
        if found != self.sha256:
            raise NotMade(f"{file.name} has the digest {found}, {PINS.name} says {self.sha256}")
        return file


def pins() -> dict[str, Pin]:
    """By package, those for this machine's architecture."""
    architecture = run("dpkg", "--print-architecture").strip()
    rows = [line.split() for line in PINS.read_text().splitlines() if line and not line.startswith("#")]
    found = {row[1]: Pin(*row[1:]) for row in rows if row[0] in ("source", f"binary:{architecture}")}
    if set(found) != {"curl", "libssl-dev"}:
        raise NotMade(f"{PINS.name} has no complete list for {architecture}")
    return found


def run(*command: str | Path, cwd: Path | None = None) -> str:
    if shutil.which(command[0]) is None:
        raise NotMade(f"{command[0]} is not installed: the wheel is made on Debian")
    done = subprocess.run(command, cwd=cwd, capture_output=True, text=True)
    if done.returncode != 0:
        raise NotMade(f"{' '.join(map(str, command))} failed:\n{done.stdout[-2000:]}{done.stderr[-2000:]}")
    return done.stdout


class Apt:
    """The machine's sources with source packages added, and lists of their own."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        parts = folder / "sources.list.d"
        for needed in (parts, folder / "lists" / "partial", folder / "cache" / "archives" / "partial"):
            needed.mkdir(parents=True, exist_ok=True)
        for sources in [Path("/etc/apt/sources.list"), *Path("/etc/apt/sources.list.d").glob("*")]:
            if sources.suffix == ".sources":
                (parts / sources.name).write_text(re.sub(r"(?m)^Types:.*$", "Types: deb deb-src", sources.read_text()))
            elif sources.suffix == ".list" and sources.exists():
                lines = re.findall(r"(?m)^deb(\s.*)$", sources.read_text())
                (parts / sources.name).write_text("".join(f"deb{line}\ndeb-src{line}\n" for line in lines))
        places = {"Etc::sourcelist": "/dev/null", "Etc::sourceparts": parts, "State::lists": folder / "lists", "Cache": folder / "cache"}
        self.options = [f"-oDir::{name}={place}" for name, place in places.items()]
        if os.geteuid() == 0:  # its unprivileged user may not write here
            self.options.append("-oAPT::Sandbox::User=root")
        subprocess.run(["apt-get", *self.options, "update"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)  # what is missing is told below

    def fetch(self, pin: Pin, *command: str, pattern: str) -> Path:
        for old in self.folder.glob(pattern):
            old.unlink()
        try:
            run("apt-get", *self.options, *command, f"{pin.name}={pin.version}", cwd=self.folder)
        except NotMade as error:
            hint = f"where {pin.name} {pin.version} has been superseded, look at the newer one and write it into wheel/{PINS.name}"
            raise NotMade(f"{error}\n{hint}") from error
        [file] = self.folder.glob(pattern)
        return pin.require(file)


def take_openssl(package: Path, work: Path, target: Path) -> None:
    unpacked = work / "openssl"
    run("dpkg-deb", "-x", package, unpacked)
    for archive in unpacked.glob("usr/lib/*/lib*.a"):
        shutil.copy2(archive, target / "lib")
    for headers in unpacked.glob("usr/include/**/openssl"):  # some of them are the architecture's
        shutil.copytree(headers, target / "include" / "openssl", dirs_exist_ok=True)
    write_licence(target, "OpenSSL", unpacked / "usr/share/doc/libssl-dev/copyright", "Apache-2.0")


def build_curl(description: Path, work: Path, target: Path) -> None:
    source, build = work / "curl", work / "curl-build"
    run("dpkg-source", "-x", description, source)  # checks the digests of its parts
    options = [*CURL_OPTIONS, f"-DCMAKE_INSTALL_PREFIX={target}", f"-DOPENSSL_ROOT_DIR={target}"]
    configured = run("cmake", "-S", source, "-B", build, "-G", "Ninja", *options)
    for what, wanted in (("protocols", CURL_PROTOCOLS), ("features", CURL_FEATURES)):
        listed = re.search(f"Enabled {what}: (.*)", configured)
        if listed is None or (wanted - set(listed[1].split())) or (what == "protocols" and set(listed[1].split()) != wanted):
            raise NotMade(f"libcurl's {what} are {listed and listed[1]}, wanted are {' '.join(sorted(wanted))}")
    run("cmake", "--build", build, "--target", "install")
    write_licence(target, "curl", source / "COPYING")


def write_licence(target: Path, library: str, text: Path, *common: str) -> None:
    """`common` names the licences to which a package's own text only points."""
    texts = [text, *(COMMON_LICENCES / name for name in common)]
    (target / "licences" / f"{library}.txt").write_text("\n\n".join(path.read_text() for path in texts))


def versions_and_licences(target: Path, known: dict[str, Pin]) -> None:
    """Of what comes from the machine that builds: the compiler's library and the libraries of headers."""
    compiler = run("c++", "-dumpfullversion").strip()
    major = compiler.split(".")[0]
    write_licence(target, "libstdc++", DOCUMENTS / f"libstdc++-{major}-dev" / "copyright", "GPL-3")
    write_licence(target, "fmt", DOCUMENTS / "libfmt-dev" / "copyright")
    write_licence(target, "robin-map", DOCUMENTS / "robin-map-dev" / "copyright")
    nanobind = importlib.metadata.distribution("nanobind")
    [licence] = [file for file in nanobind.files or [] if file.name == "LICENSE"]
    write_licence(target, "nanobind", Path(str(licence.locate())))

    def installed(package: str) -> str:
        return run("dpkg-query", "-W", "-f", "${Version}", package)

    rows = {
        "curl": known["curl"].version,
        "OpenSSL": known["libssl-dev"].version,
        "libstdc++": installed(f"libstdc++-{major}-dev"),
        "fmt": installed("libfmt-dev"),
        "robin-map": installed("robin-map-dev"),
        "nanobind": nanobind.version,
    }
    lines = ["Compiled into brackenfen/sync.abi3.so; the licence of each stands beside this file.", ""]
    (target / "licences" / "LIBRARIES.txt").write_text("\n".join(lines + [f"{name:10} {version}" for name, version in rows.items()]) + "\n")


def make(target: Path) -> None:
    known = pins()
    key = hashlib.sha256(
        b"\0".join([Path(__file__).read_bytes(), PINS.read_bytes(), run("c++", "--version").encode(), platform.machine().encode()])
    ).hexdigest()
    stamp = target / "stamp"
    if stamp.exists() and stamp.read_text() == key:
        return
    work = target / "work"
    shutil.rmtree(target, ignore_errors=True)
    for needed in ("include", "lib", "licences", "work"):
        (target / needed).mkdir(parents=True)
    apt = Apt(work)
    take_openssl(apt.fetch(known["libssl-dev"], "download", pattern="libssl-dev_*.deb"), work, target)
    build_curl(apt.fetch(known["curl"], "source", "--download-only", pattern="curl_*.dsc"), work, target)
    versions_and_licences(target, known)
    shutil.rmtree(work)
    stamp.write_text(key)


def main() -> int:
    try:
        make(Path(sys.argv[1]).resolve())
    except NotMade as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
