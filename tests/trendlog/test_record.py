"""Readings from standard input, through the recorder."""

import json
import signal
import sqlite3
import subprocess
import time

import pytest

from changes import change, dump, one, query
from conftest import TRENDLOG, environment

BEGIN = 1500000000 // 900 * 900  # a quarter of an hour, long ago


def record(shell, text, *words, code=0):
    """Runs it on a text: what was said, line by line."""
    process = subprocess.run([TRENDLOG, "record", *words], cwd=shell.folder, input=text, text=True,
                             capture_output=True, env=environment(), timeout=60)
    assert (process.returncode, process.stdout) == (code, ""), process.stderr
    return [line.removeprefix("trendlog: ") for line in process.stderr.splitlines()]


def replay(shell, readings, *words, code=0):
    text = "".join(json.dumps({"time": t, "device": device, "values": values}) + "\n"
                   for t, device, values in readings)
    return record(shell, text, "new.db", "--replay", "--periods", "1:2880,15:2976", *words, code=code)


def minutes(file, columns, table="trends_1_1"):
    return query(file, f"SELECT time, percent_valid, {columns} FROM {table} WHERE percent_valid > 0 "
                 "ORDER BY time")


def test_gauges_become_rows_on_the_clock(shell):
    readings = [(BEGIN + 10 * n, "plant/pump", {"power": (n * 7) % 11}) for n in range(1, 400)]
    said = replay(shell, readings)
    assert said == ["new.db: 399 readings taken, 0 refused, 67 rows stored"]
    assert query(shell / "new.db", "SELECT path FROM devices") == [("plant/pump",)]
    rows = minutes(shell / "new.db", "param_1_min, param_1_max, param_1_avg")
    assert [row[0] for row in rows] == [BEGIN + 60 * n for n in range(1, 68)]
    at = {t - BEGIN: values["power"] for t, _, values in readings}
    for end, percent, least, most, mean in rows[1:66]:
        end -= BEGIN
        held = [at[second // 10 * 10] for second in range(end - 60, end)]
        seen = held + [at[end]]
        assert (percent, least, most) == (100, min(seen), max(seen))
        assert mean == pytest.approx(sum(held) / 60)
    assert rows[0][1] == pytest.approx(100 * 50 / 60)  # known from the tenth second on
    assert len(minutes(shell / "new.db", "param_1_avg", "trends_1_15")) == 4
    shell.good("check", "new.db")


def test_kinds(shell):
    readings = [(BEGIN + 15 * n, "m", {"water": 100 + 2 * n, "rain": 0.25, "pf": -0.5, "t": n})
                for n in range(0, 9)]
    replay(shell, readings, "--kind", "water=counter,rain=total,pf=pf", "--hold", "20s")
    file = shell / "new.db"
    assert query(file, "SELECT path, type, has_min, has_max, has_avg, has_actual, has_sum FROM "
                 "params_1") == [("water", 0, 0, 0, 0, 0, 1), ("rain", 0, 0, 0, 0, 0, 1),
                                 ("pf", 1, 1, 1, 1, 0, 0), ("t", 0, 1, 1, 1, 0, 0)]
    rows = minutes(file, "param_1_sum, param_2_sum, param_3_avg, param_4_max")
    assert [row[2:] for row in rows if row[0] == BEGIN + 60] == [(8.0, 1.0, -0.5, 4.0)]
    assert [row[2:] for row in rows if row[0] == BEGIN + 120] == [(8.0, 1.0, -0.5, 8.0)]


def test_hold_is_how_long_a_value_is_believed(shell):
    replay(shell, [(BEGIN, "m", {"t": 1}), (BEGIN + 600, "m", {"t": 1})], "--hold", "90s")
    assert [(row[0] - BEGIN, row[1]) for row in minutes(shell / "new.db", "param_1_avg")
            if row[0] <= BEGIN + 600] == [(60, 100), (120, 50)]


def test_keep_says_what_is_kept(shell):
    replay(shell, [(BEGIN + n, "m", {"t": n}) for n in (1, 2, 61)], "--keep", "actual")
    assert [row[2] for row in minutes(shell / "new.db", "param_1_actual")][0] == 2
    assert "param_1_min" not in dump(shell / "new.db")


@pytest.mark.parametrize("words,text", [
    ([], "time,device,param,value\n{0},m,t,3\n{1},m,t,4\n"),
    (["--device", "m"], "time,t\n{0},3\n{1},4\n"),
    (["--device", "m", "--map", "When=time,T1=t"], "When;T1\n{0};3\n{1};4\n"),
    ([], "m t=3 {0}000000000\nm t=4 {1}000000000\n"),
    ([], "x,device=m t=3i {0}000000000\nx,device=m t=4i {1}000000000\n"),
    ([], '{{"time": "2017-07-14T02:30:10Z", "device": "m", "values": {{"t": 3}}}}\n'
         '{{"time": "2017-07-14T04:31:10+02:00", "device": "m", "values": {{"t": 4}}}}'),
], ids=["long csv", "wide csv", "mapped csv", "influx", "influx tag", "jsonl"])
def test_the_same_readings_in_each_format(shell, words, text):
    assert BEGIN == 1499999400  # 2017-07-14T02:30:00Z
    said = record(shell, text.format(BEGIN + 10, BEGIN + 70), "new.db", "--replay", *words)
    assert said == ["new.db: 2 readings taken, 0 refused, 2 rows stored"]
    assert query(shell / "new.db", "SELECT path FROM devices") == [("m",)]
    assert query(shell / "new.db", "SELECT path FROM params_1") == [("t",)]
    assert [row[2] for row in minutes(shell / "new.db", "param_1_max")] == [3, 4]


@pytest.mark.parametrize("pad", [0, 8192], ids=["seen before", "seen too late"])
def test_a_parameter_that_comes_later(shell, pad):
    """Nothing that comes is lost by it or counted twice. Where the device is recorded already, what
    held from before the open interval is not known in that one any more."""
    readings = [(BEGIN + 10 * n, "m", {"t": n}) for n in range(1, 20)]
    readings += [(BEGIN + 200, "m", {"t": 20, "u": 7}), (BEGIN + 230, "m", {"t": 21, "u": 8})]
    readings += [(BEGIN + 240 + n, "n", {"v": n}) for n in range(1, 3)]
    text = "".join(json.dumps({"time": t, "device": device, "values": values}).ljust(pad) + "\n"
                   for t, device, values in readings)
    said = record(shell, text, "new.db", "--replay")
    assert said == ["new.db: 25 readings taken, 0 refused, 6 rows stored"]
    rows = minutes(shell / "new.db", "param_1_min, param_1_max, param_2_max")
    assert [row[2:] for row in rows if row[0] == BEGIN + 180] == [(12, 18, None)]
    late = [row[1:] for row in rows if row[0] == BEGIN + 240]
    assert late == [(pytest.approx(100 * 50 / 60), 19, 21, 8) if pad else (100, 18, 21, 8)]


def test_going_on_after_a_stop(shell):
    first = [(BEGIN + 10 * n, "m", {"t": 1}) for n in range(1, 31)]
    replay(shell, first)
    second = [(BEGIN + 10 * n, "m", {"t": 2}) for n in range(60, 121)]
    record(shell, "".join(json.dumps({"time": t, "device": d, "values": v}) + "\n" for t, d, v in second),
           "new.db", "--replay")
    times = [row[0] for row in query(shell / "new.db", "SELECT time FROM trends_1_1")]
    assert times == list(range(times[0], times[-1] + 60, 60))  # the gap is blank rows
    assert {row[2] for row in minutes(shell / "new.db", "param_1_max")} == {1, 2}
    shell.good("check", "new.db")


def test_what_is_refused_is_counted_and_told_at_the_end(shell):
    text = "\n".join(["time,device,param,value", f"{BEGIN + 10},m,t,1", f"{BEGIN + 20},m,t,2",
                      f"{BEGIN + 20},m,t,3", f"{BEGIN + 5},m,t,3", "x,m,t,1", f"{BEGIN + 30},m,t,inf",
                      f"{BEGIN + 30},,t,1", f"{BEGIN + 30},m,t", f"{BEGIN + 80},m,t,4", '1,"'])
    said = record(shell, text, "new.db", "--replay")
    assert said[:4] == [
        "standard input, line 6: 'x' is no time",
        "standard input, line 8: no device; --device names it for all lines",
        "standard input, line 9: 3 fields, the header has 4",
        "standard input, line 11: a quote that is not closed"]
    assert [line.split(", the first one")[0] for line in said[4:]] == [
        "new.db: 1 refused (late)", "new.db: 1 refused (duplicate)", "new.db: 1 refused (not_finite)",
        "new.db: 4 lines did not fit", "new.db: 3 readings taken, 3 refused, 2 rows stored"]


def test_many_misfits_are_counted_only(shell):
    said = record(shell, '{"values": {"t": 1}}\n' * 50, "new.db")
    assert len(said) == 12
    assert said[9] == "standard input, line 10: no device; --device names it for all lines"
    assert said[10:] == ["lines that do not fit are only counted from here on",
                         "new.db: no readings have come"]
    assert not (shell / "new.db").exists()


def test_stored_parameters_are_what_they_are(shell):
    replay(shell, [(BEGIN + n, "m", {"t": 1, "pf": 0.5, "w": n}) for n in (1, 2, 61)],
           "--kind", "pf=pf,w=counter", "--keep", "min,max,avg,actual,sum", code=0)
    config = query(shell / "new.db", "SELECT * FROM params_1")
    said = replay(shell, [(BEGIN + n, "m", {"t": 1, "pf": 0.5}) for n in (121, 122, 181)])
    assert said == ["new.db: 6 readings taken, 0 refused, 2 rows stored"]
    assert query(shell / "new.db", "SELECT * FROM params_1") == config
    replay(shell, [(BEGIN + n, "m", {"w": n}) for n in (301, 302)])
    assert query(shell / "new.db", "SELECT * FROM params_1") == config


def test_a_sum_without_a_kind_is_refused(shell):
    readings = [(BEGIN + n, "m", {"w": n}) for n in (1, 2, 61)]
    replay(shell, readings, "--kind", "counter")
    said = replay(shell, [(t + 300, d, v) for t, d, v in readings])
    assert said[0] == "new.db: 'm' is not recorded: 'w': no aggregate is kept; --kind says what it is"
    assert "new.db: 3 readings of devices that are not recorded" in said


def test_readings_of_now_until_sigterm(shell):
    process = subprocess.Popen([TRENDLOG, "record", "new.db"], cwd=shell.folder, text=True,
                               stdin=subprocess.PIPE, stderr=subprocess.PIPE, env=environment())
    for n in (1, 2):
        process.stdin.write('{"device": "m", "values": {"t": %d}}\n' % n)
        process.stdin.flush()
        time.sleep(0.1)  # two readings of one moment are one too many
    ends = time.monotonic() + 20
    while not (shell / "new.db").exists() and time.monotonic() < ends:
        time.sleep(0.02)
    process.send_signal(signal.SIGTERM)
    said = process.communicate(timeout=20)[1].splitlines()
    assert process.returncode == 0
    assert said[-1].startswith("trendlog: new.db: 2 readings taken, 0 refused, ")
    assert query(shell / "new.db", "SELECT path FROM params_1") == [("t",)]
    assert query(shell / "new.db", "SELECT * FROM periods") == [(1, 2880), (15, 2976), (1440, 3650)]
    assert not list(shell.folder.glob("new.db-*"))


def test_one_reading_of_now(shell):
    said = record(shell, '{"device": "m", "values": {"t": 1}}', "new.db")
    assert said[-1].startswith("new.db: 1 reading taken, 0 refused, ")


def test_record_refuses(shell):
    reading = '{"device": "m", "values": {"t": 1}}'
    before = dump(shell / "house.db")
    assert record(shell, reading, "house.db", "--periods", "1:2880,60:100", code=1)[-1].startswith(
        "house.db: ")
    assert dump(shell / "house.db") == before
    (shell / "text.db").write_text("Not a log, not at all. " * 20)
    assert record(shell, reading, "text.db", code=4) == ["text.db: not a trend log: not an SQLite file"]
    change(shell / "other.db", "CREATE TABLE t (a)")
    assert "of another program" in record(shell, reading, "other.db", code=4)[0]
    assert "the first line of CSV" in record(shell, "a,b\n", "new.db", code=1)[0]
    assert "--kind: 'x' is none of" in record(shell, reading, "new.db", "--kind", "x", code=2)[0]
    assert record(shell, reading, "no/where.db", code=1)


def test_a_locked_file_is_waited_for_and_said(shell):
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN IMMEDIATE")
    assert record(shell, "", "house.db", "--timeout", "1s", code=4) == [
        "house.db: locked by another program for more than 1s; try again, or wait longer with "
        "--timeout"]
    db.close()


def test_what_cannot_be_stored_at_the_end_is_said(shell):
    readings = [(BEGIN + 10 * n, "m", {"t": 1}) for n in range(1, 20)]
    replay(shell, readings)
    process = subprocess.Popen([TRENDLOG, "record", "new.db", "--replay", "--timeout", "1s"],
                               cwd=shell.folder, text=True, stdin=subprocess.PIPE,
                               stderr=subprocess.PIPE, env=environment())
    line = '{"time": %d, "device": "m", "values": {"t": 1}}\n'
    process.stdin.write(line % (BEGIN + 600) + line % (BEGIN + 610))
    process.stdin.flush()
    ends = time.monotonic() + 20
    while not (shell / "new.db-wal").exists() and time.monotonic() < ends:
        time.sleep(0.02)
    time.sleep(0.2)
    db = sqlite3.connect(shell / "new.db", isolation_level=None)
    db.execute("BEGIN IMMEDIATE")
    said = process.communicate(timeout=20)[1].splitlines()
    assert process.returncode == 4
    assert "trendlog: new.db: 2 rows could not be stored" in said
    db.close()


def test_the_journal_mode_stays(shell):
    reading = '{"device": "house", "values": {"voltage_v": 1}}'
    record(shell, reading, "house.db")
    assert one(shell / "house.db", "PRAGMA journal_mode") == "delete"
    assert len(query(shell / "house.db", "SELECT * FROM params_1")) == 3
