"""Logs made from the real measurements, and the command as a process."""

import csv
import hashlib
import json
import os
import shutil
import subprocess
from pathlib import Path

import pytest

TRENDLOG = os.environ["TRENDLOG"]
MAKE_LOG = os.environ["MAKE_LOG"]
DATA = Path(__file__).parent.parent / "data" / "measurements"
STEEL = DATA / "steel_plant_2018_15min.csv"
HOUSE = DATA / "household_2007_1min.csv"

PLANT_PERIODS = "15:2976,60:4464,1440:3650"
HOUSE_PERIODS = "1:2880,15:2976"


class Result:
    def __init__(self, process):
        self.code = process.returncode
        self.bytes = process.stdout
        self.out = process.stdout.decode()
        self.err = process.stderr.decode()

    def rows(self, delimiter=","):
        """The output as CSV, a dictionary a row."""
        return list(csv.DictReader(self.out.splitlines(), delimiter=delimiter))

    def json(self):
        return json.loads(self.out)

    def objects(self):
        return [json.loads(line) for line in self.out.splitlines()]


def environment(**changes):
    env = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8"}
    for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
        if name in os.environ:
            env[name] = os.environ[name]
    env.update(changes)
    return env


def make_log(file, device, readings, periods, keep="min,max,avg,actual", mode="rollback"):
    subprocess.run([MAKE_LOG, file, device, readings, periods, keep, mode], check=True)
    return file


def digest(file):
    return hashlib.sha256(Path(file).read_bytes()).hexdigest()


def house_with_faults(target):
    """The household, with 100 minutes missing and 100 of 40 percent."""
    with open(HOUSE) as source:
        rows = list(csv.reader(source))
    with open(target, "w") as out:
        writer = csv.writer(out, lineterminator="\n")
        writer.writerow([rows[0][0], rows[0][1], rows[0][3], rows[0][8], "percent_valid"])
        for n, row in enumerate(rows[1:]):
            if not 2000 <= n < 2100:
                percent = "40" if 2300 <= n < 2400 else "100"
                writer.writerow([row[0], row[1], row[3], row[8], percent])
    return target


@pytest.fixture(scope="session")
def made(tmp_path_factory):
    """The logs as they were made; tests get copies."""
    folder = tmp_path_factory.mktemp("made")
    make_log(folder / "plant.db", "plant/steel", STEEL, PLANT_PERIODS, mode="wal")
    faulty = house_with_faults(folder / "house.csv")
    make_log(folder / "house.db", "house", faulty, HOUSE_PERIODS, keep="min,max,avg,sum")
    make_log(folder / "two.db", "house", faulty, HOUSE_PERIODS, keep="avg")
    make_log(folder / "two.db", "plant, \"2\"", faulty, HOUSE_PERIODS, keep="min,max")
    return folder


class Shell:
    """Runs commands in a folder with fresh copies of the logs."""

    def __init__(self, made, folder):
        self.folder = folder
        for name in ("plant.db", "house.db", "two.db"):
            shutil.copy(made / name, folder / name)

    def __truediv__(self, name):
        return self.folder / name

    def run(self, *words, env=None, **options):
        process = subprocess.run([TRENDLOG, *map(str, words)], cwd=self.folder,
                                 env=env or environment(), stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60,
                                 **options)
        return Result(process)

    def good(self, *words, **options):
        """Runs what must succeed without a word."""
        result = self.run(*words, **options)
        assert (result.code, result.err) == (0, ""), result.err
        return result

    def fails(self, code, *words, **options):
        """Runs what must fail in one line, and gives that."""
        result = self.run(*words, **options)
        assert result.code == code, (result.code, result.err)
        assert result.out == ""
        assert result.err.startswith("trendlog: ") and result.err.count("\n") == 1, result.err
        return result.err[len("trendlog: "):-1]


@pytest.fixture
def shell(made, tmp_path):
    return Shell(made, tmp_path)
