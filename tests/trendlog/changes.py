"""What tests of commands that change a log ask of the file, by SQLite alone."""

import os
import pty
import select
import sqlite3
import subprocess
import time

from conftest import TRENDLOG, environment


def query(file, sql, *values):
    db = sqlite3.connect(file)
    try:
        return db.execute(sql, values).fetchall()
    finally:
        db.close()


def one(file, sql, *values):
    return query(file, sql, *values)[0][0]


def change(file, sql):
    db = sqlite3.connect(file)
    try:
        db.executescript(sql)
        db.commit()
    finally:
        db.close()


def dump(file):
    db = sqlite3.connect(file)
    try:
        return "\n".join(db.iterdump()) + f"\n{db.execute('PRAGMA user_version').fetchone()}"
    finally:
        db.close()


def trend_tables(file):
    return [name for (name,) in query(
        file, "SELECT name FROM sqlite_master WHERE name LIKE 'trends!_%' ESCAPE '!' ORDER BY 1")]


def rows_in(file, *tables):
    return sum(one(file, f"SELECT count(*) FROM {table}") for table in tables)


def tried(shell, file, *words):
    """A dry run: its line, having seen that the content of the file is what it was."""
    before = dump(shell / file)
    out = shell.good(*words, "--dry-run").out
    assert dump(shell / file) == before
    assert out.startswith(f"{file}: dry run, nothing done: ") and out.count("\n") == 1
    return out[len(f"{file}: dry run, nothing done: "):-1]


def done(shell, file, *words):
    """A change: its line, which is that of the dry run before."""
    would = tried(shell, file, *words)
    out = shell.good(*words, "-y") if needs_consent(shell, words) else shell.good(*words)
    assert out.out == f"{file}: {would}\n"
    return would


def needs_consent(shell, words):
    return "--yes" in shell.good(*[word for word in words[:2] if " " not in str(word)
                                   and "." not in str(word)], "--help").out


def refused(shell, file, *words):
    """What would drop something is not done without an answer."""
    before = dump(shell / file)
    line = shell.fails(1, *words)
    assert dump(shell / file) == before
    assert line.startswith(f"{file}: nothing done, since this would be: ")
    assert line.endswith("; -y agrees to that, and there is no terminal to ask at")


def on_a_terminal(shell, *words, answer):
    """The command on a terminal of its own, answered when it asks: exit code, what was shown."""
    main, other = pty.openpty()
    process = subprocess.Popen([TRENDLOG, *map(str, words)], cwd=shell.folder, stdin=other,
                               stdout=other, stderr=other, env=environment(TERM="xterm"))
    os.close(other)
    shown, ends = b"", time.monotonic() + 20
    while time.monotonic() < ends:
        if not select.select([main], [], [], 0.1)[0]:
            if process.poll() is not None:
                break
            continue
        try:
            shown += os.read(main, 4096)
        except OSError:  # the other end is closed
            break
        if answer and shown.endswith(b"[y/N] "):
            os.write(main, answer)
            answer = None
    process.wait(10)
    os.close(main)
    return process.returncode, shown.decode().replace("\r\n", "\n")
