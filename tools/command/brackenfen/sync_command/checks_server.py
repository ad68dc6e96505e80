"""The doctor's checks of what lies between this machine and the data: server, TLS, token, era, settings and libraries."""

from __future__ import annotations

import importlib
import pkgutil
import platform
import socket
from collections.abc import Iterator
from urllib.parse import urlsplit
from urllib.request import getproxies

import brackenfen
from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.checks import Check, Finding, Patient, fault, fine, note
from brackenfen.sync_command.events import Heard, listening
from brackenfen.sync_command.telling import era_text

ADVICE = {
    "ConnectionRefusedError": "is the server up, is the port right, does a firewall refuse?",
    "TimeoutError": "does a firewall swallow the packets, is the server overloaded?",
    "URLError": "does the name resolve (getent hosts), is something else than HTTP at this port?",
    "SSLCertVerificationError": "the certificate must be valid for this name; an authority of your own goes into SSL_CERT_FILE",
    "SSLError": "is there TLS at this port, and one that both sides know?",
    "TrustStoreError": "correct SSL_CERT_FILE or SSL_CERT_DIR, or install ca-certificates",
    "RedirectRefusedError": "give the address that the redirect leads to as --server",
}


def name_lookup(patient: Patient) -> Iterator[Finding]:
    address = patient.session.settings.server
    host = urlsplit(address).hostname if address else None
    if not host or patient.refusal is not None or any(name in getproxies() for name in ("https", "all")):
        return  # a proxy looks names up itself
    try:
        found = {str(entry[4][0]) for entry in socket.getaddrinfo(host, None, type=socket.SOCK_STREAM)}
    except OSError as error:
        yield fault(f"{host} does not resolve: {error.strerror}", "is the name right, does /etc/resolv.conf name a server that answers?")
    else:
        yield fine(f"{host} is {', '.join(sorted(found)[:3])}")


def server(patient: Patient) -> Iterator[Finding]:
    if patient.refusal is not None:
        yield fault(f"{patient.refusal}", "correct --server, BRACKENFEN_SERVER, or server in the settings file")
        return
    probe = patient.version
    if probe is None:
        return  # the token's check says why
    if probe.failure is not None:
        reason = probe.failure.reason
        yield fault(
            f"no answer: {reason} ({probe.failure.text})", ADVICE.get(reason, probe.failure.next_action or "is the server in maintenance?")
        )
    elif probe.status == 404:
        yield fault(f"it answers, but has no {library.VERSION_PATH}", "is the address that of a data server, is anything published there?")
    elif probe.status == 200 and not probe.is_data:
        yield fault("it answers, but not as a data server: no JSON", "is the address right, does a login page or a proxy stand before it?")
    elif probe.status in (200, 401, 403):
        yield fine("it answers")
    else:
        yield fault(f"it answers HTTP {probe.status}", "ask whoever runs it")


def token(patient: Patient) -> Iterator[Finding]:
    if patient.asking is None:
        return
    probe, source = patient.version, patient.session.settings.token
    if patient.token_error is not None:
        yield fault(f"{patient.token_error}", "give --token-file or --token-command, BRACKENFEN_TOKEN, or token_file in the settings file")
    elif probe is None or probe.status is None:
        yield note("not tried, since the server does not answer")
    elif probe.status in (401, 403):
        given = f"the server refuses the token of {source}" if str(source) != "nowhere" else "the server wants a token, and none is given"
        yield fault(f"{given}: HTTP {probe.status}", "renew it; --token-file, --token-command or BRACKENFEN_TOKEN say where it comes from")
    elif not probe.is_data:
        yield note("not known to be taken, since no data server answers")
    else:
        yield fine("the server takes it" if str(source) != "nowhere" else "none is given, and the server wants none")


def era(patient: Patient) -> Iterator[Finding]:
    current, manifest = patient.era, patient.manifest
    if not patient.is_answered:
        return
    if current is None:
        yield fault(f"the server does not tell its era at {library.ERA_PATH}", "no transition can begin: ask whoever runs the server")
        return
    there = current.get("era_number")
    if manifest is not None and there is not None and there != manifest.era_number:
        yield fault(
            f"the directory is in era {manifest.era_number}, the server in era {there}",
            "brackenfen-sync sync goes there; a host that runs does so by itself",
        )
    else:
        yield fine(f"the server is {'' if there is None else 'in '}{era_text(current)}")
    if (needed := current.get("min_library_version")) not in (None, "0.0.0"):
        yield note(f"the era needs brackenfen-sync {needed} or newer; this is {sync.__version__}")


def variables(_patient: Patient) -> Iterator[Finding]:
    heard = Heard()
    with listening(heard):
        library.settings_in_force()
    for warning in heard.warnings:
        yield fault(warning, "correct the variable or unset it; docs/settings.md lists them")
    if not heard.warnings:
        yield fine("every BRACKENFEN_SYNC_ variable can be used")


def libraries(_patient: Patient) -> Iterator[Finding]:
    yield fine(f"brackenfen-sync {sync.__version__} on Python {platform.python_version()}, {sync.CURRENT_PLATFORM}")
    hosts = [module.name for module in pkgutil.iter_modules(brackenfen.__path__) if module.name in library.NEIGHBOURS]
    for name in hosts:
        try:
            importlib.import_module(f"brackenfen.{name}")
        except Exception as error:
            yield fault(
                f"the host's module brackenfen.{name} cannot be imported: {type(error).__name__}: {error}",
                "mend or remove it: passes fail with this error",
            )
    if hosts:
        yield note(f"modules of the host are in force: {', '.join(hosts)}")


SERVER_CHECKS: tuple[tuple[str, Check], ...] = (
    ("name look-up", name_lookup),
    ("server", server),
    ("token", token),
    ("era", era),
    ("settings", variables),
    ("libraries", libraries),
)
