"""The command doctor: every check of the table, and what to do about what it found."""

from __future__ import annotations

from brackenfen.sync_command.checks import FAULT, FINE, NOTE, Finding, Patient
from brackenfen.sync_command.checks_directory import DIRECTORY_CHECKS
from brackenfen.sync_command.checks_server import SERVER_CHECKS
from brackenfen.sync_command.exits import Exit
from brackenfen.sync_command.output import Output
from brackenfen.sync_command.session import Outcome, Session
from brackenfen.sync_command.texts import clean, counted

STYLES = {FINE: "green", NOTE: "yellow", FAULT: "red"}


def examined(patient: Patient) -> list[Finding]:
    findings = []
    for name, check in (*DIRECTORY_CHECKS, *SERVER_CHECKS):
        try:
            found = list(check(patient))
        except Exception as error:  # one check that cannot be made hides no other
            found = [Finding(FAULT, f"this check failed: {type(error).__name__}: {error}", "tell the authors of brackenfen-sync")]
        findings += [finding.of(name) for finding in found]
    return findings


def doctor(session: Session) -> Outcome:
    """Look at directory, files, locks, disk, clock, server, token and libraries, and say what to do.

    Changes nothing. Exit code 1 where something is at fault; what is merely worth knowing is a note.
    """
    with Patient.of(session) as patient:
        findings = examined(patient)
    faults = sum(finding.level == FAULT for finding in findings)
    document = {"faults": faults, "findings": [finding.document() for finding in findings]}

    def tell(output: Output) -> None:
        for finding in findings:
            output.line(clean(f"{finding.level:<5}  {finding.check}: {finding.what}"), STYLES[finding.level], hanging=7)
            if finding.do:
                output.line(clean(f"       -> {finding.do}"), hanging=10)
        output.line(f"{counted(faults, 'fault')}" if faults else "nothing is at fault", "red" if faults else "green")

    return Outcome(document, tell, Exit.FAILED if faults else Exit.FINE)
