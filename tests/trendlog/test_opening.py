"""A file that is looked at is not changed by one byte, and what is wrong with it is one line."""

import os
import shutil
import signal
import sqlite3
import subprocess
import sys
import time

import pytest

from conftest import TRENDLOG, digest, environment

LOOKS = [
    ["info", "{}"], ["devices", "{}"], ["params", "{}"], ["periods", "{}"], ["latest", "{}"],
    ["read", "{}", "house"], ["plot", "{}", "house", "voltage_v"], ["extremes", "{}", "house"],
    ["explain", "{}", "house", "voltage_v", "last-1h", "--period", "15"], ["export", "{}"],
    ["check", "{}"],
]


def look(shell, words, file):
    return shell.run(*[word.format(file) for word in words])


def wal(shell):
    """house.db in write-ahead mode, closed."""
    with sqlite3.connect(shell / "house.db") as db:
        db.execute("PRAGMA journal_mode = WAL")
    db.close()
    return "house.db"


def as_nobody(shell, *words):
    """Runs the command as a user without rights, which the tests as root need to see refusals."""
    if os.geteuid() != 0:
        return shell.run(*words)
    folder = shell.folder
    while folder != folder.parent:  # pytest's own folders are closed to others
        os.chmod(folder, folder.stat().st_mode | 0o055)
        folder = folder.parent
        if str(folder) == "/tmp":
            break
    return shell.run(*words, user=65534, group=65534, extra_groups=[])


@pytest.mark.parametrize("words", LOOKS, ids=lambda words: words[0])
@pytest.mark.parametrize("mode", ["rollback", "wal"])
def test_looking_changes_nothing_and_leaves_nothing(shell, words, mode):
    if mode == "wal":
        wal(shell)
    files, before = sorted(os.listdir(shell.folder)), digest(shell / "house.db")
    times = os.stat(shell / "house.db").st_mtime_ns
    result = look(shell, words, "house.db")
    assert result.code == 0 and result.out
    assert digest(shell / "house.db") == before
    assert os.stat(shell / "house.db").st_mtime_ns == times
    assert sorted(os.listdir(shell.folder)) == files


def refused(shell, file, code, text):
    """Each looking command says so and changes nothing."""
    before = {name: digest(shell / name) for name in os.listdir(shell.folder)
              if (shell / name).is_file()}
    for words in LOOKS:
        result = look(shell, words, file)
        assert (result.code, result.out) == (code, ""), words
        assert result.err == f"trendlog: {file}: {text}\n", words
    assert before == {name: digest(shell / name) for name in os.listdir(shell.folder)
                      if (shell / name).is_file()}


def test_no_file(shell):
    refused(shell, "none.db", 1, "there is no such file")
    assert not (shell / "none.db").exists()


def test_folder(shell):
    (shell / "folder").mkdir()
    refused(shell, "folder", 1, "a folder, not a file")


def test_not_sqlite(shell):
    (shell / "text").write_text("a text " * 100)
    refused(shell, "text", 4, "not a trend log: not an SQLite file")


def test_empty_file(shell):
    (shell / "empty").touch()
    refused(shell, "empty", 4, "not a trend log: not an SQLite file")


def test_pipe(shell):
    os.mkfifo(shell / "pipe")
    assert shell.fails(4, "info", "pipe") == "pipe: not a regular file"


def test_file_of_another_program(shell):
    with sqlite3.connect(shell / "other.db") as db:
        db.execute("CREATE TABLE notes (text)")
    refused(shell, "other.db", 4, "not a trend log: an SQLite file of another program")


@pytest.mark.parametrize("version", [0, 1])
def test_older_schema(shell, version):
    script = (shell.folder / "old.sql")
    shutil.copy(os.path.join(os.path.dirname(__file__), "..", "data", f"version_{version}.sql"), script)
    with sqlite3.connect(shell / "old.db") as db:
        db.executescript(script.read_text())
    refused(shell, "old.db", 1, f"made by an older version: its schema is {version}, this program "
            "reads 2; `trendlog upgrade` brings it up to date")


def test_newer_schema(shell):
    with sqlite3.connect(shell / "house.db") as db:
        db.execute("PRAGMA user_version = 3")
    refused(shell, "house.db", 1, "made by a newer version: its schema is 3, this program knows 2; "
            "look for a newer trendlog")


def test_damaged(shell):
    with open(shell / "house.db", "r+b") as file:
        file.seek(100)
        file.write(b"\xff" * 3000)
    refused(shell, "house.db", 1, "damaged (SQLite: database disk image is malformed); "
            "`trendlog salvage` saves what can be read")


def test_damage_met_while_reading(shell):
    size = os.path.getsize(shell / "house.db")
    with open(shell / "house.db", "r+b") as file:
        file.seek(size // 2)
        file.write(b"\xff" * (size // 4))
    line = shell.run("export", "house.db", "--period", "all").err
    assert line == ("trendlog: house.db: damaged (SQLite: database disk image is malformed); "
                    "`trendlog salvage` saves what can be read\n")
    result = shell.run("check", "house.db")
    assert result.code == 3 and "damage" in result.out


def test_not_readable(shell):
    os.chmod(shell / "house.db", 0)
    result = as_nobody(shell, "info", "house.db")
    assert result.code == 1
    assert result.err == ("trendlog: house.db: cannot be read: Permission denied; ask its owner, or "
                          "be another user\n")


def test_write_ahead_log_left_over(shell):
    wal(shell)
    crash = ("import sqlite3, os, sys; db = sqlite3.connect(sys.argv[1]); "
             "db.execute('UPDATE devices SET guid = 1'); db.commit(); os._exit(0)")
    subprocess.run([sys.executable, "-c", crash, shell / "house.db"], check=True)
    size = os.path.getsize(shell / "house.db-wal")
    assert size > 0
    refused(shell, "house.db", 1, f"nobody has it open, but its write-ahead log ({size} bytes) was "
            "left over by a crash; `trendlog checkpoint` takes it over, or the program that writes "
            "the file")


def test_journal_left_over(shell):
    crash = ("import sqlite3, os, sys; db = sqlite3.connect(sys.argv[1], isolation_level=None); "
             "db.execute('PRAGMA cache_size = 1'); db.execute('PRAGMA cache_spill = 1'); "
             "db.execute('BEGIN'); "
             "db.execute('UPDATE trends_1_1 SET percent_valid = percent_valid + 1'); os._exit(0)")
    subprocess.run([sys.executable, "-c", crash, shell / "house.db"], check=True)
    assert os.path.getsize(shell / "house.db-journal") > 512
    refused(shell, "house.db", 1, "a program that was writing it has ended without finishing, and "
            "what it left over cannot be taken over by looking; `trendlog checkpoint` does that, or "
            "the program that writes it")


def test_write_ahead_mode_where_nothing_may_be_written(shell):
    wal(shell)
    os.chmod(shell / "house.db", 0o644)
    result = as_nobody(shell, "info", "house.db")
    assert result.code == 1
    assert result.err == ("trendlog: house.db: in write-ahead mode, nobody has it open, and this "
                          "user may not write here, as reading it takes; copy it into a folder of "
                          "your own\n")
    assert not (shell / "house.db-shm").exists()


def test_write_ahead_mode_while_somebody_has_it_open(shell):
    wal(shell)
    db = sqlite3.connect(shell / "house.db")
    db.execute("UPDATE devices SET guid = 'open'")
    db.commit()
    os.chmod(shell / "house.db", 0o644)
    assert as_nobody(shell, "devices", "house.db").rows()[0]["guid"] == "open"
    assert shell.good("devices", "house.db").rows()[0]["guid"] == "open"
    db.execute("UPDATE devices SET guid = 'still'")  # companions are where they were
    db.commit()
    assert shell.good("devices", "house.db").rows()[0]["guid"] == "still"
    db.close()
    assert not (shell / "house.db-wal").exists()


@pytest.mark.parametrize("words", [LOOKS[0], LOOKS[-1]], ids=lambda words: words[0])
def test_locked(shell, words):
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN EXCLUSIVE")
    began = time.monotonic()
    result = look(shell, words + ["--timeout", "1s"], "house.db")
    assert 1 <= time.monotonic() - began < 5
    assert (result.code, result.out) == (4, "")
    assert result.err == ("trendlog: house.db: locked by another program for more than 1s; try "
                          "again, or wait longer with --timeout\n")
    db.close()


def test_locked_for_a_moment(shell):
    db = sqlite3.connect(shell / "house.db", isolation_level=None, check_same_thread=False)
    db.execute("BEGIN EXCLUSIVE")
    process = subprocess.Popen([TRENDLOG, "devices", "house.db"], cwd=shell.folder,
                               env=environment(), stdout=subprocess.PIPE)
    time.sleep(0.3)
    assert process.poll() is None
    db.execute("ROLLBACK")
    assert b"house" in process.communicate(timeout=10)[0]
    assert process.returncode == 0


def test_closed_pipe_ends_it_quietly(shell):
    for words in (["export", "house.db"], ["read", "house.db", "house"]):
        process = subprocess.Popen([TRENDLOG, *words], cwd=shell.folder, env=environment(),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdout.close()
        assert process.stderr.read() == b""
        assert process.wait(timeout=10) == 0


def test_full_disk(shell):
    with open("/dev/full", "w") as full:
        process = subprocess.run([TRENDLOG, "export", "house.db"], cwd=shell.folder,
                                 env=environment(), stdout=full, stderr=subprocess.PIPE, text=True)
    assert process.returncode == 1
    assert process.stderr == "trendlog: standard output: No space left on device\n"


def test_interrupted_leaves_nothing(shell):
    """In write-ahead mode, where the companions are its own: they go with it."""
    wal(shell)
    process = subprocess.Popen([TRENDLOG, "export", "house.db"], cwd=shell.folder,
                               env=environment(), stdout=subprocess.PIPE)
    while not (shell / "house.db-shm").exists():
        assert process.poll() is None
        time.sleep(0.001)
    process.send_signal(signal.SIGTERM)  # it waits for us to read
    process.communicate(timeout=10)
    assert process.returncode == -signal.SIGTERM
    assert not (shell / "house.db-shm").exists() and not (shell / "house.db-wal").exists()


def test_usage(shell):
    assert shell.fails(2, "nothing") == "there is no command 'nothing'; see trendlog --help"
    assert shell.fails(2, "read", "house.db", "house", "--nothing").endswith(
        "; see trendlog read --help")
    assert shell.fails(2, "read", "house.db") == "DEVICE is required; see trendlog read --help"
    assert "is none of table, csv" in shell.fails(2, "devices", "house.db", "--format", "xml")
    assert "exclude one another" in shell.fails(2, "read", "house.db", "house", "--best",
                                                "--points", "3")
    for words in (["--points", "0"], ["--points", "x"], ["--limit", "-1"], ["--min-valid", "101"],
                  ["--agg", "mean"], ["--every", "0m"], ["--every", "90s"], ["--tz", "Mars/Base"],
                  ["--from", "yesterday"], ["--from", "2018-02-30"], ["--timeout", "5"],
                  ["--period", "0"], ["--from", "5", "--to", "5"]):
        shell.fails(2, "read", "house.db", "house", *words)


def test_what_there_is_not(shell):
    assert shell.fails(1, "read", "house.db", "nix") == (
        "house.db: there is no device 'nix'; it has 'house'")
    assert shell.fails(1, "read", "house.db", "house", "nix") == (
        "house.db: device 'house' has no parameter 'nix'; it has 'active_power_kw', 'voltage_v', "
        "'power_factor'")
    assert shell.fails(1, "read", "house.db", "house", "--period", "7") == (
        "house.db: there is no period of 7m; `trendlog periods` lists them")
    assert shell.fails(1, "read", "two.db", "house", "--agg", "sum") == (
        "two.db: none of these parameters keeps what --agg asks for")
    assert shell.fails(1, "export", "two.db", "--param", "nix") == (
        "two.db: no device has a parameter 'nix'; `trendlog params` lists them")
