#!/usr/bin/env python3
"""exported_coverage.py BUILD: fails when an operation that the library exports never ran.

Compares the symbols that BUILD/lib/libkiroweb.so exports with what its objects recorded in a
coverage build, and prints each operation that no test executed.
"""

import json
import pathlib
import re
import subprocess
import sys


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def operation(symbol):
    """One name for the several symbols of a constructor or a destructor."""
    return re.sub(r"([CD])[0-9](?=[EI])", r"\1", symbol)


def exported_operations(library):
    """Mangled to readable name. Functions only: tables and type information are data."""
    functions = []
    for line in run("nm", "--dynamic", "--defined-only", library).splitlines():
        _, kind, symbol = line.split()
        if kind in "TW" and symbol.startswith(("_ZN4kiro", "_ZNK4kiro")):
            functions.append(symbol)
    readable = run("c++filt", input="\n".join(functions)).splitlines()
    return {operation(symbol): name for symbol, name in zip(functions, readable)}


def executed_operations(objects):
    executed = set()
    for record in objects.rglob("*.gcda"):
        report = run("gcov", "--json-format", "--stdout", record, cwd=objects)
        for unit in map(json.loads, report.splitlines()):
            for source in unit["files"]:
                executed.update(operation(function["name"]) for function in source["functions"]
                                if function["execution_count"] > 0)
    return executed


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    build = pathlib.Path(sys.argv[1]).resolve()
    exported = exported_operations(build / "lib" / "libkiroweb.so")
    if not exported:
        sys.exit("exported_coverage: the library exports nothing")
    never = sorted(exported[symbol] for symbol in exported.keys() -
                   executed_operations(build / "src"))
    for name in never:
        print(f"never executed: {name}")
    print(f"{len(exported) - len(never)} of {len(exported)} exported operations were executed")
    return 1 if never else 0


if __name__ == "__main__":
    sys.exit(main())
