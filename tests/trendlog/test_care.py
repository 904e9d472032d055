"""Copies, housekeeping, older schemas and damaged files."""

import os
import shutil
import signal
import sqlite3
import subprocess
import sys
from pathlib import Path

import pytest

from changes import change, dump, one, query, trend_tables
from conftest import digest

OLD = Path(__file__).parent.parent / "data"
PAGE = 4096


def journal(shell, mode):
    change(shell / "house.db", f"PRAGMA journal_mode = {mode}")


def crash(shell, mode):
    """Leaves what a program leaves that is killed in the midst of writing to house.db."""
    script = ("import os, signal, sqlite3, sys\n"
              "db = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
              "db.execute('PRAGMA journal_mode = ' + sys.argv[2])\n"
              "db.execute('PRAGMA cache_size = 1')\n"
              "db.execute('BEGIN')\n"
              "db.execute('UPDATE trends_1_1 SET param_1_min = 7')\n"
              "if sys.argv[2] == 'wal': db.execute('COMMIT')\n"
              "os.kill(os.getpid(), signal.SIGKILL)\n")
    process = subprocess.run([sys.executable, "-c", script, shell / "house.db", mode])
    assert process.returncode == -signal.SIGKILL


# Backup -------------------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["delete", "wal"])
def test_backup_is_a_whole_copy_that_needs_no_companions(shell, mode):
    journal(shell, mode)
    before = digest(shell / "house.db")
    out = shell.good("backup", "house.db", "copy.db").out
    size = os.path.getsize(shell / "copy.db")
    assert out == f"house.db: {size / 1000:.3g} KB copied to copy.db\n"
    assert dump(shell / "copy.db") == dump(shell / "house.db")
    assert one(shell / "copy.db", "PRAGMA journal_mode") == "delete"
    assert digest(shell / "house.db") == before
    assert sorted(p.name for p in shell.folder.glob("*house*")) == ["house.db"]
    assert sorted(p.name for p in shell.folder.glob("copy*")) == ["copy.db"]


@pytest.mark.parametrize("mode", ["delete", "wal"])
def test_backup_while_somebody_writes(shell, mode):
    """What is not committed is not in the copy, and does not keep it waiting."""
    journal(shell, mode)
    committed = dump(shell / "house.db")
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN IMMEDIATE")
    db.execute("UPDATE periods SET max_entries = 7")
    shell.good("backup", "house.db", "copy.db")
    db.execute("ROLLBACK")
    db.close()
    assert dump(shell / "copy.db") == committed


def test_backup_has_what_is_in_the_write_ahead_log(shell):
    journal(shell, "wal")
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("PRAGMA wal_autocheckpoint = 0")
    db.execute("UPDATE periods SET max_entries = 7")
    shell.good("backup", "house.db", "copy.db")
    assert query(shell / "copy.db", "SELECT DISTINCT max_entries FROM periods") == [(7,)]
    db.close()


def test_backup_never_writes_over_anything(shell):
    (shell / "copy.db").write_text("precious")
    assert shell.fails(1, "backup", "house.db", "copy.db") == (
        "copy.db: there is something of that name already, which stays as it is")
    assert (shell / "copy.db").read_text() == "precious"
    before = digest(shell / "house.db")
    assert "already" in shell.fails(1, "backup", "house.db", "house.db")
    assert digest(shell / "house.db") == before
    os.symlink("nowhere", shell / "link.db")
    assert "already" in shell.fails(1, "backup", "house.db", "link.db")
    (shell / "x.db.part").write_text("precious")
    assert "there already, another one is being made or was broken off" in shell.fails(
        1, "backup", "house.db", "x.db")
    assert (shell / "x.db.part").read_text() == "precious"


def test_backup_estimates(shell):
    out = shell.good("backup", "house.db", "copy.db", "--dry-run").out
    assert out.startswith("house.db: dry run, nothing done: ") and " would be copied to ./" in out
    assert not list(shell.folder.glob("copy*"))


def test_backup_refuses(shell):
    assert "cannot be made: No such file" in shell.fails(1, "backup", "house.db", "no/copy.db")
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN EXCLUSIVE")
    assert "locked by another program" in shell.fails(
        4, "backup", "house.db", "copy.db", "--timeout", "1s")
    db.close()
    assert not list(shell.folder.glob("copy*"))


def test_backup_of_a_damaged_file_says_so(shell):
    damage(shell / "house.db", 60)
    assert "it is damaged, and so is the copy (" in shell.fails(1, "backup", "house.db", "copy.db")
    assert (shell / "copy.db").read_bytes()[PAGE:] == (shell / "house.db").read_bytes()[PAGE:]


@pytest.mark.skipif(os.geteuid() != 0, reason="a small disk is made by root")
@pytest.mark.parametrize("words", [["backup", "house.db", "small/copy.db"],
                                   ["salvage", "house.db", "small/copy.db"],
                                   ["vacuum", "small/house.db"]], ids=lambda words: words[0])
def test_there_must_be_room(shell, words):
    (shell / "small").mkdir()
    size = os.path.getsize(shell / "house.db") * 3 // 2
    if subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", shell / "small"],
                      capture_output=True).returncode != 0:
        pytest.skip("no disk can be mounted here")
    try:
        shutil.copy(shell / "house.db", shell / "small" / "house.db")
        before = digest(shell / "small" / "house.db")
        line = shell.fails(1, *words)
        assert line.startswith("small/: ") and " takes up to " in line
        assert line.endswith(" are free there")
        assert os.listdir(shell / "small") == ["house.db"]
        assert digest(shell / "small" / "house.db") == before
    finally:
        subprocess.run(["umount", shell / "small"], check=True)


# Housekeeping -------------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", ["delete", "wal"])
def test_vacuum_gives_free_space_back(shell, mode):
    journal(shell, mode)
    shell.good("clear", "house.db", "house", "--to", "last-1h", "-y")
    content, size = dump(shell / "house.db"), os.path.getsize(shell / "house.db")
    free = one(shell / "house.db", "PRAGMA freelist_count")
    out = shell.good("vacuum", "house.db", "--dry-run").out
    assert f": about {free * PAGE / 1000:.3g} KB of {size / 1000:.3g} KB would be given back; " in out
    assert os.path.getsize(shell / "house.db") == size
    out = shell.good("vacuum", "house.db").out
    now = os.path.getsize(shell / "house.db")
    assert out == f"house.db: {size / 1000:.3g} KB before, {now / 1000:.3g} KB now\n"
    assert now <= size - free * PAGE and free > 50
    assert dump(shell / "house.db") == content
    assert one(shell / "house.db", "PRAGMA journal_mode") == mode
    assert not list(shell.folder.glob("house.db-*"))


@pytest.mark.parametrize("command", ["vacuum", "upgrade"])
def test_a_locked_file_is_waited_for_and_said(shell, command):
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN IMMEDIATE")
    assert "locked by another program for more than 1s" in shell.fails(
        4, command, "house.db", "--timeout", "1s")
    db.close()


def test_checkpoint_takes_over_a_write_ahead_log(shell):
    crash(shell, "wal")
    size = os.path.getsize(shell / "house.db-wal")
    assert "`trendlog checkpoint` takes it over" in shell.fails(1, "info", "house.db")
    files = {p.name: digest(p) for p in shell.folder.glob("house.db*")}
    shell.good("checkpoint", "house.db", "--dry-run")
    assert {p.name: digest(p) for p in shell.folder.glob("house.db*")} == files
    out = shell.good("checkpoint", "house.db").out
    assert out == f"house.db: the write-ahead log of {size / 1000:.3g} KB is in the file\n"
    assert not list(shell.folder.glob("house.db-*"))
    assert query(shell / "house.db", "SELECT DISTINCT param_1_min FROM trends_1_1") == [(7,)]
    shell.good("info", "house.db")


def test_checkpoint_undoes_what_was_not_finished(shell):
    before = dump(shell / "house.db")
    crash(shell, "delete")
    assert "`trendlog checkpoint` does that" in shell.fails(1, "info", "house.db")
    out = shell.good("checkpoint", "house.db").out
    assert out == ("house.db: an unfinished transaction of a program that has crashed was undone; it "
                   "has no write-ahead log\n")
    assert dump(shell / "house.db") == before


def test_checkpoint_with_a_reader_in_the_way(shell):
    journal(shell, "wal")
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN")
    db.execute("SELECT count(*) FROM periods").fetchone()
    change(shell / "house.db", "UPDATE periods SET max_entries = 7")
    assert "somebody reads or writes it" in shell.fails(4, "checkpoint", "house.db", "--timeout", "1s")
    db.close()


def test_checkpoint_of_nothing(shell):
    assert shell.good("checkpoint", "house.db").out == "house.db: it has no write-ahead log\n"
    journal(shell, "wal")
    assert shell.good("checkpoint", "house.db").out == "house.db: its write-ahead log is empty\n"
    for words in (["checkpoint", "no.db"], ["checkpoint", "no.db", "--dry-run"], ["vacuum", "no.db"],
                  ["upgrade", "no.db"], ["backup", "no.db", "x.db"], ["salvage", "no.db", "x.db"]):
        assert shell.fails(1, *words) == "no.db: there is no such file"
        assert not (shell / "no.db").exists()


# Older schemas ------------------------------------------------------------------------------------

@pytest.mark.parametrize("version", [0, 1])
def test_upgrade(shell, version):
    change(shell / "old.db", (OLD / f"version_{version}.sql").read_text())
    file = shell / "old.db"
    devices = query(file, "SELECT idx, path FROM devices ORDER BY idx")
    rows = {table: query(file, f"SELECT * FROM {table}") for table in trend_tables(file)}
    assert one(file, "PRAGMA user_version") == version and devices and rows
    assert "`trendlog upgrade` brings it up to date" in shell.fails(1, "info", "old.db")
    before = digest(file)
    text = f"its schema was {version} and is 2 now\n"
    assert shell.good("upgrade", "old.db", "--dry-run").out == (
        "old.db: dry run, nothing done: " + text)
    assert digest(file) == before
    assert shell.good("upgrade", "old.db").out == "old.db: " + text
    assert one(file, "PRAGMA user_version") == 2
    assert query(file, "SELECT idx, path FROM devices ORDER BY idx") == devices
    assert {table: query(file, f"SELECT * FROM {table}") for table in trend_tables(file)} == rows
    assert query(file, "SELECT DISTINCT has_sum FROM params_1") == [(0,)]
    shell.good("info", "old.db")
    assert "nothing to do" in shell.good("upgrade", "old.db").out


def test_upgrade_that_would_fail_says_so_before(shell):
    change(shell / "old.db", (OLD / "version_1.sql").read_text() + ";DROP TABLE params_1;")
    before = dump(shell / "old.db")
    shell.fails(1, "upgrade", "old.db", "--dry-run")
    shell.fails(1, "upgrade", "old.db")
    assert dump(shell / "old.db") == before


def test_upgrade_refuses_what_is_newer_or_no_log(shell):
    change(shell / "house.db", "PRAGMA user_version = 3")
    assert "made by a newer version" in shell.fails(1, "upgrade", "house.db")
    change(shell / "other.db", "CREATE TABLE t (a)")
    before = digest(shell / "other.db")
    assert "of another program" in shell.fails(4, "upgrade", "other.db")
    assert digest(shell / "other.db") == before


# Damage -------------------------------------------------------------------------------------------

def damage(file, *pages):
    with open(file, "r+b") as out:
        for page in pages:
            out.seek(page * PAGE)
            out.write(b"\xa5" * PAGE)


def contents(file):
    return {table: {row[0]: row for row in query(file, f"SELECT * FROM {table}")}
            for table in trend_tables(file)}


def test_salvage_of_a_good_file_loses_nothing(shell):
    before = digest(shell / "two.db")
    out = shell.good("salvage", "two.db", "new.db").out
    rows = sum(len(rows) for rows in contents(shell / "two.db").values())
    assert out == f"two.db: {rows} rows of 2 devices saved into new.db, nothing lost\n"
    assert dump(shell / "new.db") == dump(shell / "two.db")
    assert digest(shell / "two.db") == before


@pytest.mark.parametrize("pages", [(30,), (45, 46, 47), (20, 60, 100), (70,), (12,)], ids=str)
def test_salvage_saves_all_rows_beside_the_damage(shell, pages):
    whole = contents(shell / "house.db")
    damage(shell / "house.db", *pages)
    before = digest(shell / "house.db")
    result = shell.run("salvage", "house.db", "new.db")
    assert digest(shell / "house.db") == before
    saved = contents(shell / "new.db")
    missing = 0
    for table, rows in whole.items():
        assert saved[table].items() <= rows.items()  # nothing that was not there
        missing += len(rows) - len(saved[table])
    assert 0 < missing <= 60 * len(pages)  # what is on a page, and little around it
    assert result.code == 3
    told = int(result.out.split(", up to ")[1].split()[0])
    assert missing <= told <= missing * 2 + 10 * len(pages)
    assert "cannot be read" in result.err
    assert one(shell / "new.db", "PRAGMA integrity_check") == "ok"
    shell.run("rebuild", "new.db")
    assert query(shell / "new.db", "SELECT path FROM params_1") == query(
        shell / "two.db", "SELECT path FROM params_1")


def test_salvage_without_the_names(shell):
    """What devices and parameters were called can be lost, and their rows are not."""
    file = shell / "house.db"
    whole = contents(file)
    roots = [one(file, "SELECT rootpage FROM sqlite_master WHERE name = ?", name) - 1
             for name in ("devices", "params_1", "periods")]
    damage(file, *roots)
    result = shell.run("salvage", "house.db", "new.db")
    assert result.code == 3
    assert "a device has lost its path; it is 'device_1' now" in result.err
    assert "have lost their paths and types" in result.err
    assert "`trendlog period set` says it anew" in result.err
    assert contents(shell / "new.db") == whole
    assert query(shell / "new.db", "SELECT path FROM params_1") == [
        ("param_1",), ("param_2",), ("param_3",)]


def test_salvage_of_a_cut_file(shell):
    whole = contents(shell / "house.db")
    os.truncate(shell / "house.db", os.path.getsize(shell / "house.db") // 2 // PAGE * PAGE)
    result = shell.run("salvage", "house.db", "new.db")
    assert result.code == 3
    saved = contents(shell / "new.db")
    assert all(saved[table].items() <= rows.items() for table, rows in whole.items())
    missing = sum(map(len, whole.values())) - sum(map(len, saved.values()))
    assert 1000 < missing <= int(result.out.split(", up to ")[1].split()[0])
    assert sum(map(len, saved.values())) > 1000


def test_salvage_leaves_out_what_no_log_has_written(shell):
    change(shell / "house.db", "UPDATE trends_1_1 SET param_1_min = 'x' WHERE time % 3600 = 0")
    n = one(shell / "house.db", "SELECT count(*) FROM trends_1_1 WHERE param_1_min = 'x'")
    result = shell.run("salvage", "house.db", "new.db")
    assert result.code == 3 and f", {n} invalid" in result.out


def test_salvage_refuses(shell):
    (shell / "text.db").write_text("Not a log, not at all. " * 20)
    assert "not an SQLite file" in shell.fails(4, "salvage", "text.db", "new.db")
    change(shell / "other.db", "CREATE TABLE t (a)")
    assert "no tables of a trend log" in shell.fails(4, "salvage", "other.db", "new.db")
    (shell / "taken.db").write_text("precious")
    assert "stays as it is" in shell.fails(1, "salvage", "house.db", "taken.db")
    assert (shell / "taken.db").read_text() == "precious"
    assert not list(shell.folder.glob("new.db*"))
    damage(shell / "house.db", 0)
    with open(shell / "house.db", "r+b") as out:
        out.write(b"SQLite format 3\0")
    assert shell.run("salvage", "house.db", "new.db").code in (1, 4)
    assert not list(shell.folder.glob("new.db*"))
