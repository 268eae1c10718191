#!/usr/bin/env python3
"""Runs the proofs, each in its own folder below proofs/, and writes their figures down.

A job is a program proofs/JOB/run that is called with --short or --minutes N. It prints its figures
as lines "figure: NAME: VALUE", ends with 0 when what it shows holds, with 77 when this machine cannot
run it (after a line "not run: WHY"), and with anything else when it found something."""

import argparse
import datetime
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
RESULTS = ROOT / "build/proofs/results"
REPORT = ROOT / "docs/reliability.md"
BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"
CANNOT_RUN = 77

# In the order in which they run, with the share of the minutes that each gets.
JOBS = {
    "simulate": 10, "torture": 8, "syscalls": 6, "hostile": 2, "fuzz": 8, "races": 6,
    "network": 3, "soak": 6, "browsers": 6, "clocks": 1, "mutants": 10,
}


def jobs_here() -> list[str]:
    return [job for job in JOBS if (ROOT / "proofs" / job / "run").exists()]


class Parser(argparse.ArgumentParser):
    def error(self, message: str):
        self.exit(2, f"prove: {message}, see ./prove --help\n")


def read_arguments() -> argparse.Namespace:
    here = jobs_here()
    parser = Parser(
        prog="./prove", description="Runs the long forms of the proofs; installs what is missing.",
        epilog="The jobs: " + ", ".join(here) + ".")
    parser.add_argument("jobs", nargs="*", metavar="JOB", help="only these (all, unless said)")
    parser.add_argument("--minutes", type=float, metavar="N",
                        help="for all jobs together, not counting what they build (60 unless said)")
    parser.add_argument("--short", action="store_true", help="the forms that ./check runs")
    parser.add_argument("--report", action="store_true",
                        help="write the figures of the last runs into docs/reliability.md")
    parser.add_argument("--list", action="store_true", help="list the jobs")
    parser.add_argument("--packages", action="store_true", help=argparse.SUPPRESS)
    given = parser.parse_args()
    for job in given.jobs:
        if job not in here:
            parser.error(f'no job "{job}"')
    if given.short and given.minutes is not None:
        parser.error("--short has no minutes")
    if given.minutes is not None and not 0 < given.minutes <= 100_000:
        parser.error(f"--minutes {given.minutes:g}: not above 0 and up to 100000")
    if given.report and (given.jobs or given.short or given.minutes is not None):
        parser.error("--report runs nothing; it stands alone")
    given.jobs = [job for job in here if not given.jobs or job in given.jobs]
    return given


def packages_of(jobs: list[str]) -> list[str]:
    names = set()
    for job in jobs:
        file = ROOT / "proofs" / job / "packages"
        if file.exists():
            names.update(file.read_text().split())
    return sorted(names)


# --- Running -------------------------------------------------------------------------------------


def run(job: str, form: list[str]) -> dict:
    """Runs one job, passing on what it prints; returns its outcome."""
    started = time.monotonic()
    figures, why = {}, ""
    # A group of its own, so that an interrupt reaches whatever it has started.
    process = subprocess.Popen([f"proofs/{job}/run", *form], cwd=ROOT, stdout=subprocess.PIPE,
                               text=True, errors="replace", start_new_session=True)
    try:
        for line in process.stdout:
            print(line, end="", flush=True)
            if match := re.match(r"figure: ([^:]+): (.*)", line):
                figures[match[1]] = match[2].strip()
            elif match := re.match(r"not run: (.*)", line):
                why = match[1]
        status = process.wait()
    except BaseException:
        end(process)
        raise
    return {
        "job": job, "date": datetime.date.today().isoformat(), "form": " ".join(form),
        "seconds": round(time.monotonic() - started), "status": status, "figures": figures,
        "why": why,
    }


def end(process: subprocess.Popen) -> None:
    """Lets a job tidy up, then makes sure that nothing of it is left."""
    for number, patience in ((signal.SIGTERM, 20), (signal.SIGKILL, 5)):
        try:
            os.killpg(process.pid, number)
            process.wait(patience)
        except ProcessLookupError:
            return
        except subprocess.TimeoutExpired:
            continue


def outcome(result: dict) -> str:
    return {0: "holds", CANNOT_RUN: "not run"}.get(result["status"], "DOES NOT HOLD")


def run_all(given: argparse.Namespace) -> int:
    RESULTS.mkdir(parents=True, exist_ok=True)
    weights = sum(JOBS[job] for job in given.jobs)
    minutes = given.minutes if given.minutes is not None else 60
    results = []
    for job in given.jobs:
        form = ["--short"] if given.short else ["--minutes", f"{minutes * JOBS[job] / weights:.3g}"]
        print(f"\n=== prove {job} {' '.join(form)}", flush=True)
        result = run(job, form)
        results.append(result)
        (RESULTS / f"{job}.json").write_text(json.dumps(result, indent=1))
    print("\nProofs:")
    for result in results:
        print(f"  {result['job']:10} {outcome(result):14} {result['seconds']:6} s  {result['why']}")
    return int(any(result["status"] not in (0, CANNOT_RUN) for result in results))


# --- The report ----------------------------------------------------------------------------------


def table() -> str:
    lines = ["| job | date | form | result | figures |", "|---|---|---|---|---|"]
    for job in JOBS:
        file = RESULTS / f"{job}.json"
        if not file.exists():
            lines.append(f"| {job} | | | not run here | |")
            continue
        result = json.loads(file.read_text())
        figures = "; ".join(f"{name}: {value}" for name, value in result["figures"].items())
        said = outcome(result) + (f": {result['why']}" if result["why"] else "")
        cells = [job, result["date"], f"`{result['form']}`, {result['seconds']} s", said, figures]
        lines.append("| " + " | ".join(cell.replace("|", "\\|") for cell in cells) + " |")
    return "\n".join(lines)


def write_report() -> int:
    text = REPORT.read_text()
    if text.count(BEGIN) != 1 or text.count(END) != 1:
        print(f"prove: {REPORT.name}: no place for the figures ({BEGIN} ... {END})", file=sys.stderr)
        return 1
    head, rest = text.split(BEGIN)
    REPORT.write_text(f"{head}{BEGIN}\n{table()}\n{END}{rest.split(END)[1]}")
    print(f"{REPORT.relative_to(ROOT)} has the figures of {len(list(RESULTS.glob('*.json')))} jobs")
    return 0


def main() -> int:
    given = read_arguments()
    if given.packages:
        print(*packages_of(given.jobs))
        return 0
    if given.list:
        print("\n".join(jobs_here()))
        return 0
    return write_report() if given.report else run_all(given)


if __name__ == "__main__":
    # Also asked to end by a signal, it tidies up.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
