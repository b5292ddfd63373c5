#!/usr/bin/env python3
"""Prints line and branch coverage from gcovr's JSON, and what is missed.

  coverage_report.py COVERAGE.json EXCEPTIONS

An exception is a line "FILE: TEXT: REASON". It leaves out the lines of FILE
that contain TEXT, each with the block that it opens or, inside an "if", the
block that it is in. One that fits no line is an error, so that the list does
not outlive the code.

The branch that a log macro adds (is the level on?) is not counted: it is on
every line that begins with VVLAN_LOG and there alone.
"""
import json
import sys


def read_exceptions(path):
    rows = []
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            parts = line.split(": ", 2)
            if len(parts) != 3:
                sys.exit(f"{path}:{number}: not FILE: TEXT: REASON")
            rows.append({"file": parts[0], "text": parts[1], "line": number, "used": False})
    return rows


def indent(text):
    return len(text) - len(text.lstrip())


def block_of(source, index):
    """The lines (from 0) to leave out for a match at this line."""
    first = index
    if not source[index].endswith("{"):
        while first > 0 and (not source[first].strip() or indent(source[first]) >= indent(source[index])):
            first -= 1
        if not source[first].strip().startswith(("if (", "} else")):
            return [index]
    last = first + 1
    while last < len(source) and (not source[last].strip() or indent(source[last]) > indent(source[first])):
        last += 1
    return list(range(first, last))


def excepted_lines(exceptions, name, source):
    lines = set()
    for row in exceptions:
        if row["file"] == name:
            for index in (i for i, text in enumerate(source) if row["text"] in text):
                row["used"] = True
                lines.update(number + 1 for number in block_of(source, index))
    return lines


def measure(entry, exceptions):
    name = entry["file"]
    with open(name, encoding="utf-8") as file:
        source = file.read().split("\n")
    excepted = excepted_lines(exceptions, name, source)
    count = {"lines": 0, "hit": 0, "branches": 0, "taken": 0, "excepted": 0, "logs": 0, "logs_both": 0}
    missed = []
    for line in entry["lines"]:
        if line.get("gcovr/noncode"):
            continue
        text = source[line["line_number"] - 1].strip()
        if line["line_number"] in excepted:
            count["excepted"] += 1
            continue
        branches = line["branches"]
        taken = sum(1 for branch in branches if branch["count"] > 0)
        if text.startswith("VVLAN_LOG"):
            count["logs"] += len(branches) > 0
            count["logs_both"] += len(branches) > 0 and taken == len(branches)
            branches, taken = [], 0
        count["lines"] += 1
        count["hit"] += line["count"] > 0
        count["branches"] += len(branches)
        count["taken"] += taken
        if line["count"] == 0:
            missed.append((line["line_number"], "line    ", text))
        elif taken < len(branches):
            missed.append((line["line_number"], f"{taken} of {len(branches)}".ljust(8), text))
    return count, missed


def percent(part, whole):
    return "  100 %" if part == whole else f"{100 * part / whole:5.1f} %"


def print_row(name, count):
    print(f"{name:38} {count['hit']:5} of {count['lines']:5} {percent(count['hit'], count['lines'])}"
          f" {count['taken']:7} of {count['branches']:5} {percent(count['taken'], count['branches'])}")


def main():
    exceptions = read_exceptions(sys.argv[2])
    with open(sys.argv[1], encoding="utf-8") as file:
        files = json.load(file)["files"]
    total = {}
    misses = []
    print(f"{'':38} {'lines':>22} {'branches':>24}")
    for entry in sorted(files, key=lambda entry: entry["file"]):
        count, missed = measure(entry, exceptions)
        print_row(entry["file"], count)
        misses += [(entry["file"], *row) for row in missed]
        for key, value in count.items():
            total[key] = total.get(key, 0) + value
    print_row("total", total)
    print(f"left out: {total['excepted']} lines as exceptions, and whether a log level is on"
          f" ({total['logs_both']} of {total['logs']} log places ran with it on and off)")
    if misses:
        print("missed (a whole line, or some of its branches):")
    for name, number, what, text in misses:
        print(f"  {name}:{number}: {what} {text}")
    unused = [str(row["line"]) for row in exceptions if not row["used"]]
    if unused:
        sys.exit(f"{sys.argv[2]}: fits no line any more: line {', '.join(unused)}")


main()
