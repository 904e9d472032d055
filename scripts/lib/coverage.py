"""Which of the library's lines and branches the tests have reached: coverage.py BUILD-FOLDER.

Works from gcov's own records, in which every instance of a template and every build of a source
counts. Two kinds of branches are left out:

- the edge that an exception takes out of a call, together with the edge that it takes otherwise:
  the compiler makes such a pair at every call that may throw;
- the failing side of an assertion that is listed as beyond reach. Any other assertion has to be
  seen failing, by a death test: a side of it that is not taken is an error.

What is not reached stands in tests/unreached.txt with the reason; see there. A line, a branch or an
assertion that is not reached and not listed fails, and so does one that is listed and reached or
that is not in the code any more.
"""

import json
import pathlib
import re
import subprocess
import sys
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor

LIST = pathlib.Path("tests/unreached.txt")
LINES_GOAL = 100.0
BRANCHES_GOAL = 98.0


def gcov(data):
    command = ["gcov", "--branch-probabilities", "--json-format", "--stdout", data]
    return json.loads(subprocess.run(command, check=True, capture_output=True).stdout)


def short_name(demangled):
    """`CLog::add_period` or `read_list` out of a whole signature."""
    name = demangled.replace("(anonymous namespace)::", "").replace("operator()", "operator")
    name = name.replace("operator<", "operator").replace("operator*", "operator")
    while "<" in name:
        shorter = re.sub(r"<[^<>]*>", "", name)
        if shorter == name:
            break
        name = shorter
    name = name.split("(")[0].split(" ")[-1]
    return name.replace("toolkit::", "").replace("trend::", "").replace("detail::", "")


def own_branches(branches):
    """The branches without the pairs of edges of calls that may throw."""
    kept = []
    for branch in branches:
        if branch["throw"]:
            if kept:
                kept.pop()
        else:
            kept.append(branch["count"])
    return kept


class Line:
    def __init__(self):
        self.count = 0
        self.function = ""
        self.branches = {}  # instances of one template may differ in how many they have

    def add(self, record, function):
        self.count += record["count"]
        self.function = self.function or function
        counts = own_branches(record["branches"])
        if counts:
            known = self.branches.setdefault(len(counts), [0] * len(counts))
            self.branches[len(counts)] = [a + b for a, b in zip(known, counts)]

    def sides(self):
        return [count for counts in self.branches.values() for count in counts]


def read(build, root):
    data = sorted(str(path) for path in build.rglob("*.gcda"))
    if not data:
        sys.exit("coverage: nothing has been counted in " + str(build))
    lines = defaultdict(Line)
    with ThreadPoolExecutor() as pool:
        for result in pool.map(gcov, data):
            for file in result["files"]:
                path = pathlib.Path(result["current_working_directory"], file["file"]).resolve()
                if root / "common" not in path.parents:
                    continue
                names = {f["name"]: short_name(f["demangled_name"]) for f in file["functions"]}
                for record in file["lines"]:
                    key = (str(path.relative_to(root)), record["line_number"])
                    lines[key].add(record, names.get(record.get("function_name"), ""))
    return lines


def read_list():
    """The entries of the list, (file, function, text), each with how often it stands there."""
    entries = defaultdict(int)
    for line in LIST.read_text().splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith(" "):
            continue  # the reason
        file, function, text = (part.strip() for part in line.split(" | ", 2))
        entries[(file, function, text)] += 1
    return entries


def main():
    root = pathlib.Path.cwd()
    lines = read(pathlib.Path(sys.argv[1]), root)
    listed = read_list()
    missed = defaultdict(list)
    reached_lines = all_lines = taken = sides = excused = 0
    proven = asserted = 0
    sources = {}
    for (file, number), line in sorted(lines.items()):
        if file not in sources:
            sources[file] = (root / file).read_text().splitlines()
        text = sources[file][number - 1].strip()
        key = (file, line.function, text)
        all_lines += 1
        reached_lines += line.count > 0
        untaken = line.sides().count(0) if line.count > 0 else 0
        is_assertion = "TREND_ASSERT(" in text
        asserted += is_assertion
        if line.count == 0 or untaken:
            missed[key].append(number)
        elif is_assertion:
            proven += 1
        sides += len(line.sides())
        taken += len(line.sides()) - line.sides().count(0)
        # One side of such a line is the failing one. Where more are not taken, those are missing.
        if is_assertion and untaken and key in listed:
            sides -= 1
            excused += 1

    failed = False
    for key, numbers in missed.items():
        if len(numbers) > listed.get(key, 0):
            failed = True
            for number in numbers:
                line = lines[(key[0], number)]
                marks = "".join("+" if count else "-" for count in line.sides())
                what = f"branches {marks}" if line.count else "line"
                print(f"not reached, {what}: {key[0]}:{number} | {key[1]} | {key[2]}")
    for key, times in listed.items():
        if times > len(missed.get(key, [])):
            failed = True
            print("listed in", LIST, "but reached or not there:", " | ".join(key))

    line_share = 100.0 * reached_lines / all_lines
    branch_share = 100.0 * taken / sides
    print(f"Lines: {reached_lines} of {all_lines} reached, {line_share:.2f} %")
    print(f"Branches: {taken} of {sides} taken, {branch_share:.2f} %, without the exceptions' edges")
    print(f"and the failing sides of {excused} assertions beyond reach")
    print(f"Assertions: {asserted}, of which {proven} have been seen failing")
    print(f"Listed in {LIST} with the reason: {sum(listed.values())}")
    if line_share < LINES_GOAL or branch_share < BRANCHES_GOAL:
        failed = True
        print(f"The goal is {LINES_GOAL:g} % of the lines and {BRANCHES_GOAL:g} % of the branches.")
    sys.exit(failed)


main()
