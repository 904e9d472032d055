"""Which of the library's lines and branches the tests have reached: coverage.py BUILD-FOLDER.

Two kinds of branches are left out, and nothing else:

- at a call that may throw, the edge of the exception and the edge of the return, of which the
  compiler makes a pair at every such call: neither is a decision in the source;
- the failing side of an assertion that nobody can make fail. Any other assertion counts with both
  sides, so a death test has to have seen it fail.

Every line has to be reached. A side of a branch or a failing assertion that is not has to stand in
tests/unreached.txt with the reason; an entry of what is reached, or is not in the code any more, is
an error as well.
"""

import json
import pathlib
import re
import subprocess
import sys
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor

LIST = pathlib.Path("tests/unreached.txt")
BRANCHES_GOAL = 97.0  # %; of the lines it is all


def gcov(data):
    command = ["gcov", "--branch-probabilities", "--json-format", "--stdout", data]
    return json.loads(subprocess.run(command, check=True, capture_output=True).stdout)


def short_name(demangled):
    """`CLog::add_period` or `read_list` out of a whole signature."""
    name = demangled.replace("(anonymous namespace)::", "").replace("[abi:cxx11]", "")
    name = name.replace("operator()", "operator")
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
    """The entries, (file, function, text), each with how often it stands there, and those among
    them that chance may reach."""
    entries = defaultdict(int)
    by_chance = set()
    reason = ""
    for line in LIST.read_text().splitlines():
        if line.startswith("#"):
            reason += line
            continue
        if not line:
            reason = ""
            continue
        if not reason:
            sys.exit(f"{LIST}: no reason for {line}")
        entry = tuple(part.strip() for part in line.split(" | ", 2))
        entries[entry] += 1
        if reason.startswith("# By chance:"):
            by_chance.add(entry)
    return entries, by_chance


class Report:
    def __init__(self, listed, by_chance):
        self.listed = listed
        self.by_chance = by_chance
        self.missed = defaultdict(list)  # by entry, the descriptions
        self.lines = self.reached = self.sides = self.taken = 0
        self.assertions = self.seen_failing = 0
        self.errors = []

    def add(self, file, number, line, text):
        entry = (file, line.function, text)
        untaken = line.sides().count(0) if line.count else 0
        self.lines += 1
        self.reached += line.count > 0
        self.sides += len(line.sides())
        self.taken += len(line.sides()) - line.sides().count(0)
        if line.count == 0:
            self.errors.append(f"not reached: line {file}:{number} | {line.function} | {text}")
        elif untaken:
            sides = "".join("+" if count else "-" for count in line.sides())
            self.missed[entry].append(f"not reached: sides {sides} of {file}:{number} | " +
                                      entry[1] + " | " + text)
        if "TREND_ASSERT(" in text:
            self.assertions += 1
            self.seen_failing += line.count > 0 and untaken == 0
            if untaken and entry in self.listed:
                self.sides -= untaken
                if untaken > len(line.branches):
                    self.errors.append(f"not only failing is beyond reach: {file}:{number} {text}")

    def compare(self):
        for entry, descriptions in self.missed.items():
            if len(descriptions) > self.listed.get(entry, 0):
                self.errors.extend(descriptions)
        for entry, times in self.listed.items():
            if times > len(self.missed.get(entry, [])) and entry not in self.by_chance:
                self.errors.append(
                    f"in {LIST}, but reached or not there: " + " | ".join(entry))
        if self.taken < BRANCHES_GOAL / 100 * self.sides:
            self.errors.append(f"fewer than {BRANCHES_GOAL:g} % of the branches are taken")

    def show(self):
        for error in self.errors:
            print(error)
        hidden = self.assertions - self.seen_failing
        print(f"Lines: {100 * self.reached / self.lines:.2f} %, {self.reached} of {self.lines}")
        print(f"Branches: {100 * self.taken / self.sides:.2f} %, {self.taken} of {self.sides}, without")
        print(f"  the edges of exceptions and the failing sides of {hidden} assertions")
        print(f"Assertions: {self.assertions}, of which {self.seen_failing} have been seen failing")
        print(f"The {sum(self.listed.values())} entries of {LIST} say why the rest is not reached.")


def main():
    root = pathlib.Path.cwd()
    lines = read(pathlib.Path(sys.argv[1]), root)
    report = Report(*read_list())
    sources = {}
    for (file, number), line in sorted(lines.items()):
        if file not in sources:
            sources[file] = (root / file).read_text().splitlines()
        report.add(file, number, line, sources[file][number - 1].strip())
    report.compare()
    report.show()
    sys.exit(bool(report.errors))


main()
