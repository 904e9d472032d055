"""Rows from elsewhere."""

import csv
import json
import sqlite3
import subprocess

import pytest

from changes import change, done, dump, one, query, rows_in
from conftest import HOUSE, TRENDLOG, environment

MINUTE = 1170400000 // 60 * 60  # within the household's two days, on the second of them


def plain(file):
    """The content without labels, which no export has."""
    return [line for line in dump(file).splitlines() if "trend_labels" not in line]


def write(shell, name, *lines):
    (shell / name).write_text("".join(line + "\n" for line in lines))
    return name


def piped(shell, text, *words):
    process = subprocess.run([TRENDLOG, *words], cwd=shell.folder, input=text, text=True,
                             capture_output=True, env=environment(), timeout=60)
    return process.returncode, process.stdout, process.stderr


def empty_copy(shell):
    """A log with the household's periods and nothing else."""
    shell.good("init", "new.db", "--periods", "1:2880,15:2976")
    return shell / "new.db"


@pytest.mark.parametrize("format", ["csv", "jsonl", "influx"])
def test_import_of_an_export_gives_an_equal_log(shell, format):
    rows = shell.good("export", "house.db", "house", "--period", "1", "--format", format).out
    (shell / "rows").write_text(rows)
    new = empty_copy(shell)
    keep = ["--keep", "min,max,avg,sum"] if format == "influx" else []  # it has no absent values
    text = done(shell, "new.db", "import", "new.db", "house", "rows", "--add", "--kind",
                "power_factor=pf", *keep)
    fine = rows_in(shell / "house.db", "trends_1_1")
    assert text == f"{fine} lines: {fine} rows recorded; 3 parameters added"
    if format == "influx":  # nor does it say in which order parameters come first
        assert query(new, "SELECT time, percent_valid FROM trends_1_15") == query(
            shell / "house.db", "SELECT time, percent_valid FROM trends_1_15")
    assert plain(new) == plain(shell / "house.db")


def test_import_again_changes_nothing(shell):
    (shell / "rows.csv").write_text(shell.good("export", "house.db", "--period", "1").out)
    before = dump(shell / "house.db")
    rows = rows_in(shell / "house.db", "trends_1_1")
    blank = one(shell / "house.db", "SELECT count(*) FROM trends_1_1 WHERE percent_valid = 0")
    text = done(shell, "house.db", "import", "house.db", "house", "rows.csv")
    assert f"{rows} lines: 0 rows recorded, " in text
    assert blank > 0 and dump(shell / "house.db") == before


def test_import_of_real_measurements(shell):
    """A table of plain columns: each value is minimum, maximum and average of its minute."""
    new = empty_copy(shell)
    done(shell, "new.db", "import", "new.db", "house", HOUSE, "--add", "--kind", "power_factor=pf")
    with open(HOUSE) as source:
        rows = list(csv.DictReader(source))
    stored = query(new, "SELECT time, percent_valid, param_3_min, param_3_max, param_3_avg FROM "
                   "trends_1_1 WHERE percent_valid > 0 ORDER BY time")
    expected = [(int(row["time"]), 100.0, *[float(row["voltage_v"])] * 3) for row in rows]
    assert one(new, "SELECT path FROM params_1 WHERE idx = 3") == "voltage_v"
    assert stored == expected[-len(stored):] and len(stored) > 2800
    quarter = query(new, "SELECT time, param_3_min, param_3_max, param_3_avg FROM trends_1_15 "
                    "WHERE percent_valid = 100 ORDER BY time")
    assert len(quarter) > 180
    for end, least, most, mean in quarter:
        values = [float(row["voltage_v"]) for row in rows if end - 900 < int(row["time"]) <= end]
        assert len(values) == 15
        assert (least, most) == (min(values), max(values))
        assert mean == pytest.approx(sum(values) / 15)
    shell.good("check", "new.db")


def test_late_rows_reach_the_coarse_ones(shell):
    """The 100 minutes that the household has lost, in any order, are as if they had been there."""
    file = shell / "house.db"
    with open(HOUSE) as source:
        rows = list(csv.DictReader(source))[2000:2100]
    write(shell, "late.csv", "time,active_power_kw,voltage_v,power_factor",
          *[f"{row['time']},{row['active_power_kw']},{row['voltage_v']},{row['power_factor']}"
            for row in reversed(rows)])
    text = done(shell, "house.db", "import", "house.db", "house", "late.csv")
    assert text.startswith("100 lines: 0 rows recorded, 100 merged late; ")
    ends = {int(row["time"]) for row in rows}
    values = query(file, "SELECT time, percent_valid, param_2_avg FROM trends_1_1 WHERE time BETWEEN ? "
                   "AND ? ORDER BY time", min(ends), max(ends))
    assert values == [(int(row["time"]), 100.0, float(row["voltage_v"])) for row in rows]
    end = -(-min(ends) // 900) * 900 + 900  # a quarter that was all blank
    quarter = query(file, "SELECT percent_valid, param_2_max FROM trends_1_15 WHERE time = ?", end)
    assert quarter == [(100.0, max(float(row["voltage_v"]) for row in rows
                                   if end - 900 < int(row["time"]) <= end))]
    shell.good("check", "house.db")


def test_history_longer_than_what_is_kept_reaches_the_coarse_rows(shell):
    shell.good("init", "new.db", "--periods", "1:60,15:2976")
    lines = [f"{60 * n},{n % 7}" for n in range(1, 25001)]  # three batches
    write(shell, "long.csv", "time,x", *lines)
    text = done(shell, "new.db", "import", "new.db", "d", "long.csv", "--add")
    assert text == "25000 lines: 25000 rows recorded; 1 parameter added"
    coarse = query(shell / "new.db", "SELECT time, param_1_min, param_1_max, param_1_avg FROM "
                   "trends_1_15 ORDER BY time")
    assert len(coarse) == 25000 // 15
    for end, *values in coarse:
        group = [n % 7 for n in range(end // 60 - 14, end // 60 + 1)]
        assert values == pytest.approx([min(group), max(group), sum(group) / 15])


def test_values_of_aggregates_and_of_all(shell):
    new = empty_copy(shell)
    shell.good("device", "add", "new.db", "d")
    shell.good("param", "add", "new.db", "d", "p", "q.min", "--keep", "min,max,avg")
    write(shell, "x.csv", "time,p,p.max,q.min,percent_valid", "60000,1,5,7,40")
    done(shell, "new.db", "import", "new.db", "d", "x.csv")
    assert query(new, "SELECT percent_valid, param_1_min, param_1_max, param_1_avg, param_2_min, "
                 "param_2_max FROM trends_1_1 WHERE time = 60000") == [(40.0, 1, 5, 1, 7, 7)]


def test_rows_that_have_values_stay_unless_said(shell):
    file = shell / "house.db"
    sql = "SELECT param_2_min, param_2_avg, param_1_min FROM trends_1_1 WHERE time = ?"
    old = query(file, sql, MINUTE)[0]
    write(shell, "x.csv", "time,voltage_v.min", f"{MINUTE},7")
    assert "1 there already" in done(shell, "house.db", "import", "house.db", "house", "x.csv")
    assert query(file, sql, MINUTE) == [old]
    assert "1 replaced" in done(shell, "house.db", "import", "house.db", "house", "x.csv", "--replace")
    assert query(file, sql, MINUTE)[0][0] == 7
    end = -(-MINUTE // 900) * 900
    assert one(file, "SELECT param_2_min FROM trends_1_15 WHERE time = ?", end) == 7


def test_what_is_left_out_of_a_line_stays_when_replacing(shell):
    file = shell / "house.db"
    sql = "SELECT param_2_min, param_2_avg, param_1_min FROM trends_1_1 WHERE time = ?"
    old = query(file, sql, MINUTE)[0]
    write(shell, "x.csv", "time,voltage_v", f"{MINUTE},7")
    shell.good("import", "house.db", "house", "x.csv", "--replace")
    assert query(file, sql, MINUTE) == [(7, 7, old[2])]


def test_columns_of_other_names(shell):
    file = empty_copy(shell)
    write(shell, "x.csv", "\ufeffWhen;kW;\"Cos phi\"", "2018-01-01 00:01;3.5;0.9")
    done(shell, "new.db", "import", "new.db", "d", "x.csv", "--add", "--map",
         "When=time,kW=power,Cos phi=pf", "--kind", "pf=pf", "--tz", "Europe/Berlin")
    assert query(file, "SELECT path, type FROM params_1") == [("power", 0), ("pf", 1)]
    assert query(file, "SELECT param_1_avg, param_2_avg FROM trends_1_1 WHERE time = 1514761260") == [
        (3.5, 0.9)]


def test_quotes_newlines_and_comments(shell):
    file = empty_copy(shell)
    write(shell, "x.csv", 'time,"a, ""b""",c', "", '"60000",1,2', '"120000",,"3"', "")
    done(shell, "new.db", "import", "new.db", "d", "x.csv", "--add")
    assert query(file, "SELECT path FROM params_1") == [('a, "b"',), ("c",)]
    assert query(file, "SELECT param_1_avg, param_2_avg FROM trends_1_1 WHERE param_2_avg > 0") == [
        (1, 2), (None, 3)]


def test_line_protocol_of_others(shell):
    file = empty_copy(shell)
    write(shell, "x", "# comment", "",
          r'pump\ 1,site=a a\,b=3i,on=true,note="x, \"y\" z" 60000000000000')
    done(shell, "new.db", "import", "new.db", "pump 1", "x", "--add")
    assert query(file, "SELECT path FROM params_1") == [("a,b",), ("on",)]
    assert query(file, "SELECT param_1_avg, param_2_avg FROM trends_1_1 WHERE time = 60000") == [(3, 1)]


def test_lines_of_other_devices(shell):
    rows = shell.good("export", "two.db", "--period", "1").out
    empty_copy(shell)
    (shell / "rows.csv").write_text(rows)
    text = done(shell, "new.db", "import", "new.db", "house", "rows.csv", "--add", "--kind", "power_factor=pf",
                "--keep", "avg")
    mine, others = (rows_in(shell / "two.db", f"trends_{n}_1") for n in (1, 2))
    assert text == (f"{mine + others} lines: {mine} rows recorded, {others} of other devices; "
                    "3 parameters added")
    write(shell, "x.jsonl", '{"time": 1170999960, "device": "y", "values": {"voltage_v": 1}}')
    assert "1 row recorded" in done(shell, "new.db", "import", "new.db", "house", "x.jsonl",
                                    "--any-device")


MISFITS = {
    "1170400030,1": "no interval of 1m ends at 2007-02-02T07:07:10Z",
    "0,1": "no interval of 1m ends at 1970-01-01T00:00:00Z",
    "yesterday,1": "'yesterday' is no time",
    ",1": "no time",
    "-60,1": "a time that is out of range",
    "4102444800,1": "2100-01-01T00:00:00Z is in the future",
    "1136073600,1": "2006-01-01T00:00:00Z is older than what is kept of 1m",
    f"{MINUTE},a": "voltage_v: 'a' is no number",
    f"{MINUTE},1 2": "voltage_v: '1 2' is no number",
    f"{MINUTE}": "1 field, the header has 2",
    f"{MINUTE},1,2": "3 fields, the header has 2",
}


def test_misfits_are_shown_counted_and_skipped(shell):
    lines = list(MISFITS)
    write(shell, "x.csv", "time,voltage_v", *lines, f"{MINUTE + 60},1", f"{MINUTE + 60},2", '60,"')
    result = shell.run("import", "house.db", "house", "x.csv", "--on-error", "skip", "--dry-run")
    assert result.code == 0
    assert result.out == ("house.db: dry run, nothing done: 13 lines: 0 rows recorded, "
                          "1 there already, 13 did not fit\n")
    expected = [f"trendlog: x.csv, line {n}: {cause}" for n, cause in enumerate(MISFITS.values(), 2)]
    assert result.err.splitlines() == expected[:10] + [
        "trendlog: x.csv: more lines do not fit; they are counted"]


@pytest.mark.parametrize("line", MISFITS)
def test_a_misfit_stops_it_unless_said(shell, line):
    before = dump(shell / "house.db")
    write(shell, "x.csv", "time,voltage_v", f"{MINUTE},1", line)
    assert shell.fails(1, "import", "house.db", "house", "x.csv") == (
        f"x.csv, line 3: {MISFITS[line]}; nothing is stored, --on-error skip goes on")
    assert dump(shell / "house.db") == before


def test_batches_before_a_misfit_are_stored(shell):
    file = empty_copy(shell)
    write(shell, "x.csv", "time,x", *[f"{60 * n},1" for n in range(1, 12001)], "x,1")
    assert shell.fails(1, "import", "new.db", "d", "x.csv", "--add") == (
        "x.csv, line 12002: 'x' is no time; what is before line 10002 is stored, --on-error skip "
        "goes on")
    assert one(file, "SELECT max(time) FROM trends_1_1") == 600000
    text = shell.good("import", "new.db", "d", "x.csv", "--on-error", "skip", "--quiet").out
    assert "2000 rows recorded" in text and "1 did not fit" in text


JSON_MISFITS = {
    "{": "not JSON",
    "[]": "not a JSON object",
    '{"time": 60}': 'no "values"',
    '{"time": 60, "values": 3}': '"values" is no object',
    '{"time": 60, "values": {}, "valeus": {}}': '"valeus" is not known',
    '{"time": [], "values": {}}': "a time that is neither a number nor a text",
    '{"values": {"x": 1}}': "no time",
    '{"time": 60, "device": 3, "values": {}}': "device: not a text",
    '{"time": 60, "values": {"x": "1"}}': "x: not a number",
    '{"time": 60, "values": {"x": {"p95": 1}}}': '"p95" is none of min, max, avg, actual, sum',
    '{"time": 60, "values": {"x": {"sum": 1}}}': "'x' does not keep sum",
    '{"time": 60, "values": {"z": 1}}':
        "'z' is no parameter of 'd'; --add adds it, --map names another",
    '{"time": 60, "percent_valid": 101, "values": {"x": 1}}': "percent_valid is not within 0 and 100",
    '{"time": 900, "period": 15, "values": {"x": 1}}': "a row of 15m, the finest period is 1m",
    '{"time": 900, "period": 0, "values": {"x": 1}}': "no such period",
}
INFLUX_MISFITS = {
    "d": "no fields: not line protocol",
    "d x": "no field: not line protocol",
    "d,tag x=1": "tag 'tag' has no value",
    "d x=": "x: no value",
    "d x=abc": "x: 'abc' is no number",
    'd x="abc': "x: a quote that is not closed",
    "d x=1 soon": "'soon' is no time in nanoseconds",
    "d x=1": "no time",
}


@pytest.mark.parametrize("format,misfits", [("jsonl", JSON_MISFITS), ("influx", INFLUX_MISFITS)])
def test_misfits_of_other_formats(shell, format, misfits):
    empty_copy(shell)
    shell.good("device", "add", "new.db", "d")
    shell.good("param", "add", "new.db", "d", "x")
    for line, cause in misfits.items():
        write(shell, "x", line)
        assert shell.fails(1, "import", "new.db", "d", "x", "--format", format).startswith(
            f"x, line 1: {cause}; "), line


def test_a_line_without_end_does_not_fill_the_memory(shell):
    code, out, err = piped(shell, '{"time": 60, "values": {' + '"x": 1, ' * 300000,
                           "import", "house.db", "house", "-", "--on-error", "skip", "--format", "jsonl")
    assert (code, err) == (0, "trendlog: standard input, line 1: longer than a line can be\n")


def test_import_refuses(shell):
    before = dump(shell / "house.db")
    write(shell, "x.csv", "power,t", "1,2")
    write(shell, "y.csv", "time,x", "60,2")
    fails = shell.fails
    assert fails(1, "import", "house.db", "house", "x.csv") == (
        "x.csv: the first line of CSV names its columns, and one of them is `time`; it begins with "
        "'power'")
    assert fails(1, "import", "house.db", "house", "no.csv") == "no.csv: No such file or directory"
    assert fails(1, "import", "house.db", "house", ".") == ".: a folder, not a file"
    assert fails(1, "import", "house.db", "x", "y.csv") == (
        "house.db: there is no device 'x'; --add adds it")
    assert "--map: 'a' is not like column=parameter" in fails(
        2, "import", "house.db", "house", "y.csv", "--map", "a")
    assert dump(shell / "house.db") == before
    change(shell / "house.db", "UPDATE trends_1_15 SET time = time - 60")
    write(shell, "z.csv", "time,voltage_v", f"{MINUTE},2")
    assert fails(1, "import", "house.db", "house", "z.csv") == (
        "house.db: coarse rows do not end on the clock there; `trendlog rebuild --extend` puts them on "
        "it")


def test_import_waits_for_a_lock(shell):
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN IMMEDIATE")
    write(shell, "x.csv", "time,voltage_v", f"{MINUTE},2")
    assert "locked by another program for more than 1s" in shell.fails(
        4, "import", "house.db", "house", "x.csv", "--timeout", "1s")
    db.close()


def test_import_from_standard_input(shell):
    code, out, err = piped(shell, json.dumps({"time": "1970-01-01T00:01:00Z", "values": {"x": 1.5}}),
                           "import", empty_copy(shell).name, "d", "-", "--add")
    assert (code, out, err) == (0, "new.db: 1 line: 1 row recorded; 1 parameter added\n", "")
    assert one(shell / "new.db", "SELECT param_1_avg FROM trends_1_1 WHERE time = 60") == 1.5
