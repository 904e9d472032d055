"""A million rows: in constant memory, and without keeping others from the file."""

import os
import resource
import sqlite3
import subprocess

import pytest

from conftest import TRENDLOG, environment, make_log

ROWS = 1000000


@pytest.fixture(scope="module")
def large(tmp_path_factory):
    folder = tmp_path_factory.mktemp("large")
    (folder / "seed.csv").write_text("time,v\n60,1\n120,2\n")
    for name, rows in (("large.db", ROWS), ("small.db", ROWS // 10)):
        make_log(folder / name, "a", folder / "seed.csv", "1:2000000,15:100", keep="min,max,avg")
        with sqlite3.connect(folder / name) as db:
            db.execute(f"""WITH RECURSIVE n(i) AS (SELECT 3 UNION ALL SELECT i + 1 FROM n LIMIT {rows})
                           INSERT INTO trends_1_1 SELECT i * 60, 100.0, i / 7.0, i / 3.0, i / 5.0
                           FROM n""")
    return folder


def peak(folder, *words):
    """The program's largest memory in kilobytes as it is seen while its output is read, and how many
    lines it has written. (What wait() tells of it begins with the memory of who started it.)"""
    process = subprocess.Popen([TRENDLOG, *words], cwd=folder, env=environment(),
                               stdout=subprocess.PIPE)
    lines = most = 0
    for chunk in iter(lambda: process.stdout.read(1 << 20), b""):
        lines += chunk.count(b"\n")
        with open(f"/proc/{process.pid}/status") as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    most = max(most, int(line.split()[1]))
    assert process.wait() == 0
    return most, lines


@pytest.mark.parametrize("words", [
    ["export", "--format", "csv"], ["export", "--format", "json", "--snapshot"],
    ["read", "a", "--from", "first", "--format", "table"],
], ids=" ".join)
def test_memory_does_not_grow_with_the_rows(large, words):
    def run(file):
        return peak(large, words[0], file, *words[1:])
    small, few = run("small.db")
    large_, many = run("large.db")
    assert (few, many) == (ROWS // 10 + many - ROWS, many) and ROWS <= many <= ROWS + 5
    if "TREND_SANITIZED" not in os.environ:  # which keeps what was given back
        assert large_ < small + 2048
        assert 1024 < large_ < 32 * 1024


def write(folder, timeout):
    db = sqlite3.connect(folder / "large.db", timeout=timeout)
    try:
        with db:
            db.execute("UPDATE devices SET guid = guid")
    finally:
        db.close()


def test_an_export_keeps_nobody_from_writing(large):
    """The log has no write-ahead mode, and whoever reads the output is slow."""
    process = subprocess.Popen([TRENDLOG, "export", "large.db"], cwd=large, env=environment(),
                               stdout=subprocess.PIPE)
    process.stdout.read(1000)
    for _ in range(5):
        write(large, 2)
        process.stdout.read(1000000)
    assert process.poll() is None
    lines = process.stdout.read().splitlines()
    assert process.wait(timeout=60) == 0
    assert lines[-1].startswith(b"%d,%d," % (60 * ROWS + 60, 60 * ROWS + 120))


def test_a_snapshot_is_of_one_moment(large):
    process = subprocess.Popen([TRENDLOG, "export", "large.db", "--snapshot"], cwd=large,
                               env=environment(), stdout=subprocess.PIPE)
    process.stdout.read(1000)
    with pytest.raises(sqlite3.OperationalError):
        write(large, 0.3)
    process.stdout.close()
    process.wait(timeout=60)
    write(large, 2)


def test_nothing_is_read_beyond_the_limit(large):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    rows = subprocess.run([TRENDLOG, "read", "large.db", "a", "--limit", "3", "--reverse"], cwd=large,
                          env=environment(), capture_output=True, text=True, check=True).stdout
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    assert [line.split(",")[1] for line in rows.splitlines()[1:]] == [
        str(60 * (ROWS + 2 - n)) for n in range(3)]
    assert after.ru_utime - before.ru_utime < 0.5
