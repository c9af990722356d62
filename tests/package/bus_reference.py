"""The reference of the bus must hold every operation as the daemon's own tables do: its role, and the types and
names of its arguments and results.

bus_reference.py REFERENCE VIGILAD
"""

import difflib
import re
import subprocess
import sys

VALUE = re.compile(r"`([biusl])` ([a-z0-9_]+)")


def cells(line: str) -> list[str]:
    return [cell.strip() for cell in line.strip().strip("|").split("|")]


def values(cell: str) -> str:
    return "".join(f" {letter} {name}" for letter, name in VALUE.findall(cell))


def documented(text: str) -> list[str]:
    interface, header, found = "", [], []
    for line in text.splitlines():
        named = re.search(r"[Ii]nterface `([a-zA-Z0-9.]+)`\.", line)
        interface = named[1] if named else interface
        if not line.startswith("|"):
            header = []
        elif not header:
            header = cells(line)
        elif header[0] == "operation" and not line.startswith("|--"):
            row = dict(zip(header, cells(line)))
            # The administration: every operation takes a token first and answers one text.
            arguments = row.get("arguments") or row.get("arguments behind the token", "")
            is_administration = "arguments behind the token" in row
            token = " s token" if is_administration else ""
            results = " s answer" if is_administration else values(row["results"])
            role = row.get("role", "either")
            member = row["operation"].strip("`")
            found.append(f"{role} {interface} {member}{token}{values(arguments)} ->{results}")
    return sorted(found)


def main() -> int:
    reference, vigilad = sys.argv[1:]
    listed = subprocess.run([vigilad, "--list-operations"], check=True, capture_output=True, text=True)
    served = sorted(listed.stdout.splitlines())
    if len(served) < 30:
        print("the daemon's table was not found")
        return 1
    with open(reference, encoding="utf-8") as file:
        written = documented(file.read())
    difference = list(difflib.unified_diff(served, written, "the daemon", reference, n=0, lineterm=""))
    print("\n".join(difference) or f"{len(served)} operations, as the daemon has them")
    return 1 if difference else 0


sys.exit(main())
