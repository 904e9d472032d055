"""Commands that change the configuration and the rows of a log."""

import sqlite3
import subprocess

import pytest

from changes import (change, done, dump, on_a_terminal, one, query, refused, rows_in, trend_tables,
                     tried)
from conftest import TRENDLOG, environment

# Making -------------------------------------------------------------------------------------------

def test_init_makes_a_log_with_these_periods(shell):
    out = shell.good("init", "new.db", "--periods", "1:2880,15m:2976,1d:3650").out
    assert out == "new.db: log made, with the periods 1m for 2d, 15m for 31d, 1d for 3650d\n"
    assert query(shell / "new.db", "SELECT * FROM periods") == [(1, 2880), (15, 2976), (1440, 3650)]
    assert one(shell / "new.db", "PRAGMA user_version") == 2
    assert one(shell / "new.db", "PRAGMA journal_mode") == "wal"
    assert not (shell / "new.db-wal").exists()
    shell.good("check", "new.db")


def test_init_has_periods_of_its_own(shell):
    shell.good("init", "new.db")
    assert query(shell / "new.db", "SELECT * FROM periods") == [(1, 2880), (15, 2976), (1440, 3650)]


def test_init_tries_without_a_file(shell):
    shell.good("init", "new.db", "--dry-run")
    assert not (shell / "new.db").exists() and not (shell / ":memory:").exists()


@pytest.mark.parametrize("periods,cause", [
    ("1", "'1' is no period with its number of rows"),
    ("1:0", "'1:0' is no period with its number of rows"),
    ("0:5", "'0' is no period"),
    ("15:100,20:100", "a period of 20m cannot be made of rows of 15m"),
    ("15:100,15:100", "a period of 15m cannot be made of rows of 15m"),
    ("1:29,15:100", "period 1m keeps too few rows: two rows of 15m are made of 30"),
])
def test_init_refuses_periods(shell, periods, cause):
    assert cause in shell.fails(2, "init", "new.db", "--periods", periods)
    assert not (shell / "new.db").exists()


def test_init_takes_nothing_that_is_there(shell):
    before = dump(shell / "house.db")
    line = shell.fails(1, "init", "house.db")
    assert line == ("house.db: there is something of that name already; `trendlog period` changes "
                    "a log")
    assert dump(shell / "house.db") == before
    assert "cannot be made: No such file or directory" in shell.fails(1, "init", "no/where.db")


# Periods ------------------------------------------------------------------------------------------

def test_period_add_makes_it_of_finer_rows_on_the_clock(shell):
    file = shell / "house.db"
    first = one(file, "SELECT min(time) FROM trends_1_15") - 900
    minutes = query(file, "SELECT time, percent_valid, param_1_min FROM trends_1_15")
    text = done(shell, "house.db", "period", "add", "house.db", "1h", "--keep-rows", "2400")
    rows = query(file, "SELECT time, percent_valid, param_1_min FROM trends_1_60 ORDER BY time")
    assert text == (f"period 1h added, {len(rows)} rows made, 1 finer row dropped before its first "
                    "boundary or beyond what is kept")
    assert first % 3600 != 0 and rows[0][0] == -(-first // 3600) * 3600 + 3600
    assert len(rows) > 40
    for end, percent, least in rows:
        assert end % 3600 == 0
        group = [row for row in minutes if end - 3600 < row[0] <= end]
        assert percent == pytest.approx(sum(row[1] for row in group) / 4)
        assert least == min((row[2] for row in group if row[2] is not None), default=None)
    assert one(file, "SELECT max_entries FROM periods WHERE period = 60") == 2400


def test_period_add_drops_only_after_a_word(shell):
    refused(shell, "house.db", "period", "add", "house.db", "1h", "--keep-rows", "2400")


def test_period_add_refuses(shell):
    assert "there is a period of 15m already" in shell.fails(
        1, "period", "add", "house.db", "15", "--keep-rows", "5")
    assert "a period of 20m cannot be made of rows of 15m" in shell.fails(
        1, "period", "add", "house.db", "20", "--keep-rows", "5")
    assert "--keep-rows says how many rows are kept" in shell.fails(2, "period", "add", "house.db", "60")
    assert "'0' is no whole number of 1 or more" in shell.fails(
        2, "period", "add", "house.db", "60", "--keep-rows", "0")
    line = shell.fails(1, "period", "add", "house.db", "10d", "--keep-rows", "100")
    assert line == ("house.db: too early: device 'house' has no row of 15m yet that begins a row of "
                    "10d; there is one from 2007-02-06T00:15:00Z on")


def test_period_set_drops_what_is_beyond(shell):
    file = shell / "house.db"
    newest = one(file, "SELECT max(time) FROM trends_1_1")
    kept = one(file, "SELECT count(*) FROM trends_1_1 WHERE time > ?", newest - 100 * 60)
    had = rows_in(file, "trends_1_1")
    refused(shell, "house.db", "period", "set", "house.db", "1", "--keep-rows", "100")
    text = done(shell, "house.db", "period", "set", "house.db", "1", "--keep-rows", "100")
    assert text == f"period 1m keeps 100 rows (1h40m) instead of 2880, {had - kept} rows dropped"
    assert rows_in(file, "trends_1_1") == kept == 100
    assert one(file, "SELECT max_entries FROM periods WHERE period = 1") == 100


def test_period_set_that_drops_nothing_needs_no_word(shell):
    out = shell.good("period", "set", "house.db", "1", "--keep-rows", "5000").out
    assert out == "house.db: period 1m keeps 5000 rows (3d11h20m) instead of 2880\n"


def test_period_set_says_what_is_too_few(shell):
    assert tried(shell, "house.db", "period", "set", "house.db", "1", "--keep-rows", "29").endswith(
        "; beware: period 1m keeps too few rows, two of 15m are made of 30")


def test_period_remove_takes_every_device_with_it(shell):
    file = shell / "two.db"
    rows = rows_in(file, "trends_1_15", "trends_2_15")
    refused(shell, "two.db", "period", "remove", "two.db", "15")
    text = done(shell, "two.db", "period", "remove", "two.db", "15")
    assert text == f"period 15m removed, {rows} rows dropped"
    assert trend_tables(file) == ["trends_1_1", "trends_2_1"]
    assert query(file, "SELECT period FROM periods") == [(1,)]
    assert shell.fails(1, "period", "remove", "two.db", "15") == (
        "two.db: there is no period of 15m; it has 1m")


# Devices ------------------------------------------------------------------------------------------

def test_device_add(shell):
    done(shell, "house.db", "device", "add", "house.db", "plant/pump", "--guid", "G7", "--label", "Pump")
    assert query(shell / "house.db", "SELECT * FROM devices WHERE idx = 2") == [(2, "plant/pump", "G7")]
    assert one(shell / "house.db", "SELECT label FROM trend_labels WHERE device = 'plant/pump'") == "Pump"
    assert "there is a device 'plant/pump' already" in shell.fails(
        1, "device", "add", "house.db", "plant/pump")
    assert "device 'plant/pump' has the GUID 'G7'" in shell.fails(
        1, "device", "add", "house.db", "x", "--guid", "G7")
    assert "the path of a device is not empty" in shell.fails(1, "device", "add", "house.db", "")


def test_device_rename_carries_its_labels(shell):
    file = shell / "two.db"
    before = query(file, "SELECT param, unit, label FROM trend_labels WHERE device = 'house'")
    others = query(file, "SELECT * FROM trend_labels WHERE device <> 'house'")
    assert len(before) == 2
    text = done(shell, "two.db", "device", "rename", "two.db", "house", "home/main", "--guid", "7")
    assert text == "device 'house' is now 'home/main', with the GUID '7'"
    assert query(file, "SELECT path, guid FROM devices WHERE idx = 1") == [("home/main", "7")]
    assert query(file, "SELECT param, unit, label FROM trend_labels WHERE device = 'home/main'") == before
    assert query(file, "SELECT * FROM trend_labels WHERE device NOT IN ('home/main')") == others


def test_device_rename_refuses_a_path_that_is_taken(shell):
    before = dump(shell / "two.db")
    assert "there is a device 'plant, \"2\"' already" in shell.fails(
        1, "device", "rename", "two.db", "house", 'plant, "2"')
    assert shell.fails(1, "device", "rename", "two.db", "x", "y") == (
        "two.db: there is no device 'x'; it has 'house', 'plant, \"2\"'")
    assert dump(shell / "two.db") == before


def test_device_remove(shell):
    file = shell / "two.db"
    rows = rows_in(file, "trends_1_1", "trends_1_15")
    refused(shell, "two.db", "device", "remove", "two.db", "house")
    text = done(shell, "two.db", "device", "remove", "two.db", "house")
    assert text == f"device 'house' removed with its 3 parameters, {rows} rows dropped"
    assert trend_tables(file) == ["trends_2_1", "trends_2_15"]
    assert query(file, "SELECT DISTINCT device FROM trend_labels") == [('plant, "2"',)]
    shell.good("check", "two.db")


# Parameters ---------------------------------------------------------------------------------------

def test_param_add_by_kind(shell):
    text = done(shell, "house.db", "param", "add", "house.db", "house", "cos_phi", "water", "t",
                "--kind", "cos_phi=pf,water=counter")
    assert text == "3 parameters added to 'house', keeping min, max, avg; of 'water' sum"
    assert query(shell / "house.db",
                 "SELECT path, type, has_min, has_max, has_avg, has_actual, has_sum FROM params_1 "
                 "WHERE idx > 3") == [("cos_phi", 1, 1, 1, 1, 0, 0), ("water", 0, 0, 0, 0, 0, 1),
                                      ("t", 0, 1, 1, 1, 0, 0)]


def test_param_add_keeps_what_is_said(shell):
    done(shell, "house.db", "param", "add", "house.db", "house", "t", "--keep", "actual,avg")
    assert query(shell / "house.db", "SELECT has_min, has_max, has_avg, has_actual, has_sum "
                 "FROM params_1 WHERE path = 't'") == [(0, 0, 1, 1, 0)]


@pytest.mark.parametrize("words,code,cause", [
    (["voltage_v"], 1, "device 'house' has a parameter 'voltage_v' already"),
    (["x", "x"], 1, "device 'house' has a parameter 'x' already"),
    (["x", "--keep", "median"], 2, "--keep: 'median' is none of min, max, avg, actual, sum"),
    (["x", "--keep", ","], 2, "--keep: nothing is kept"),
    (["x", "--kind", "x=meter"], 2, "--kind: 'meter' is none of gauge, pf, counter, total"),
])
def test_param_add_refuses(shell, words, code, cause):
    before = dump(shell / "house.db")
    assert cause in shell.fails(code, "param", "add", "house.db", "house", *words)
    assert dump(shell / "house.db") == before


def test_param_set_changes_what_is_kept(shell):
    file = shell / "house.db"
    lost = sum(one(file, f"SELECT count(*) FROM {table} WHERE param_2_avg IS NOT NULL")
               for table in trend_tables(file))
    least = query(file, "SELECT time, param_2_min FROM trends_1_15")
    refused(shell, "house.db", "param", "set", "house.db", "house", "voltage_v", "--keep", "min,actual")
    text = done(shell, "house.db", "param", "set", "house.db", "house", "voltage_v", "--keep",
                "min,actual")
    assert text == ("parameter 'voltage_v' keeps min, actual, max, avg, sum dropped from "
                    f"{lost} rows")
    assert query(file, "SELECT has_min, has_max, has_avg, has_actual, has_sum FROM params_1 "
                 "WHERE idx = 2") == [(1, 0, 0, 1, 0)]
    assert query(file, "SELECT time, param_2_min FROM trends_1_15") == least
    assert "param_2_avg" not in dump(file)


def test_param_set_that_drops_nothing_needs_no_word(shell):
    shell.good("param", "set", "house.db", "house", "voltage_v", "--keep", "min,max,avg,actual,sum")


def test_param_set_carries_its_label(shell):
    file = shell / "house.db"
    done(shell, "house.db", "param", "set", "house.db", "house", "active_power_kw", "--name", "power")
    assert query(file, "SELECT path FROM params_1 WHERE idx = 1") == [("power",)]
    assert query(file, "SELECT unit, label FROM trend_labels WHERE param = 'power'") == [
        ("kW", "First quantity")]
    assert query(file, "SELECT * FROM trend_labels WHERE param = 'active_power_kw'") == []


def test_param_set_refuses(shell):
    before = dump(shell / "house.db")
    base = ["param", "set", "house.db", "house"]
    assert "--keep or --name says what to change" in shell.fails(2, *base, "voltage_v")
    assert "has a parameter 'voltage_v' already" in shell.fails(
        1, *base, "active_power_kw", "--name", "voltage_v")
    assert "device 'house' has no parameter 'x'; it has 'active_power_kw', " in shell.fails(
        1, *base, "x", "--name", "y")
    assert dump(shell / "house.db") == before


def test_param_remove(shell):
    file = shell / "house.db"
    rows = sum(one(file, f"SELECT count(*) FROM {table} WHERE param_1_avg IS NOT NULL OR "
                   "param_3_avg IS NOT NULL") for table in trend_tables(file))
    refused(shell, "house.db", "param", "remove", "house.db", "house", "active_power_kw")
    text = done(shell, "house.db", "param", "remove", "house.db", "house", "active_power_kw",
                "power_factor")
    assert text == (f"removed 'active_power_kw', 'power_factor' of 'house', {rows} rows with values "
                    "of them lost those")
    assert query(file, "SELECT path FROM params_1") == [("voltage_v",)]
    assert query(file, "SELECT param FROM trend_labels") == [("",)]
    shell.good("check", "house.db")


# Labels -------------------------------------------------------------------------------------------

def test_unit_and_label(shell):
    file = shell / "house.db"
    done(shell, "house.db", "unit", "house.db", "house", "voltage_v", "--unit", "V")
    done(shell, "house.db", "unit", "house.db", "house", "voltage_v", "--label", "Mains")
    done(shell, "house.db", "unit", "house.db", "house", "--label", "Home")
    assert query(file, "SELECT param, unit, label FROM trend_labels ORDER BY 1") == [
        ("", None, "Home"), ("active_power_kw", "kW", "First quantity"), ("voltage_v", "V", "Mains")]
    done(shell, "house.db", "unit", "house.db", "house", "voltage_v", "--unit", "", "--label", "")
    assert query(file, "SELECT * FROM trend_labels WHERE param = 'voltage_v'") == []


def test_unit_makes_its_table_when_first_used(shell):
    shell.good("init", "new.db")
    shell.good("device", "add", "new.db", "pump")
    assert "trend_labels" not in dump(shell / "new.db")
    done(shell, "new.db", "unit", "new.db", "pump", "--label", "Pump")
    assert query(shell / "new.db", "SELECT * FROM trend_labels") == [("pump", "", None, "Pump")]


def test_unit_refuses(shell):
    assert "--unit or --label says what to change" in shell.fails(2, "unit", "house.db", "house")
    assert "--unit is of a parameter" in shell.fails(2, "unit", "house.db", "house", "--unit", "V")
    assert "no parameter 'x'" in shell.fails(1, "unit", "house.db", "house", "x", "--unit", "V")


# Rows ---------------------------------------------------------------------------------------------

def test_clear_a_window(shell):
    file = shell / "house.db"
    newest = one(file, "SELECT max(time) FROM trends_1_1")
    begin, end = newest - 7200, newest - 3600
    counts = [one(file, f"SELECT count(*) FROM {table} WHERE time > ? AND time <= ?", begin, end)
              for table in ("trends_1_1", "trends_1_15")]
    rest = query(file, "SELECT * FROM trends_1_1 WHERE time <= ? OR time > ?", begin, end)
    refused(shell, "house.db", "clear", "house.db", "house", "--from", "last-2h", "--to", "last-1h")
    text = done(shell, "house.db", "clear", "house.db", "house", "--from", "last-2h", "--to", "last-1h")
    assert text.startswith(f"{sum(counts)} rows of 'house' dropped: {counts[0]} of 1m, {counts[1]} of 15m, ")
    assert query(file, "SELECT * FROM trends_1_1") == rest


def test_clear_all_of_one_device(shell):
    file = shell / "two.db"
    other = dump(file).count('INSERT INTO "trends_2_')
    done(shell, "two.db", "clear", "two.db", "house")
    assert rows_in(file, "trends_1_1", "trends_1_15") == 0
    assert dump(file).count('INSERT INTO "trends_2_') == other > 1000
    out = shell.good("clear", "two.db", "house").out  # nothing is dropped, so nothing is asked
    assert out == "two.db: 0 rows of 'house' dropped\n"


def test_clear_on_a_terminal_asks(shell):
    before = dump(shell / "house.db")
    words = ["clear", "house.db", "house", "--from", "last-1h"]
    code, shown = on_a_terminal(shell, *words, answer=b"n\n")
    assert code == 1 and "rows of 'house' dropped" in shown
    assert shown.endswith("Go on? [y/N] n\ntrendlog: house.db: nothing done\n")
    assert dump(shell / "house.db") == before
    code, shown = on_a_terminal(shell, *words, answer=b"y\n")
    assert code == 0 and shown.count("64 rows of 'house' dropped") == 2
    assert dump(shell / "house.db") != before


def test_rebuild_makes_coarse_rows_anew(shell):
    file = shell / "house.db"
    good = dump(file)
    change(file, "UPDATE trends_1_15 SET param_1_max = 99 WHERE time % 3600 = 0")
    assert dump(file) != good
    text = done(shell, "house.db", "rebuild", "house.db", "house")
    rows = rows_in(file, "trends_1_15")
    assert f": {rows} coarse rows made anew, 0 left as they are" in text
    assert dump(file) == good


def test_rebuild_a_window_of_all_devices(shell):
    file = shell / "two.db"
    change(file, "UPDATE trends_1_15 SET param_1_avg = 99")
    change(file, "UPDATE trends_2_15 SET param_1_max = 99")
    out = shell.good("rebuild", "two.db", "--from", "last-1h").out.splitlines()
    assert [line.split(" from ")[0] for line in out] == ["two.db: 'house'", "two.db: 'plant, \"2\"'"]
    assert one(file, "SELECT param_1_avg FROM trends_1_15 ORDER BY time DESC LIMIT 1") < 99
    assert one(file, "SELECT param_1_max FROM trends_2_15 ORDER BY time DESC LIMIT 1") < 99
    assert one(file, "SELECT param_1_avg FROM trends_1_15 LIMIT 1") == 99


def test_rebuild_off_the_grid_wants_a_word(shell):
    file = shell / "house.db"
    change(file, "UPDATE trends_1_15 SET time = time - 60")
    assert "coarse rows do not end on the clock there; `trendlog rebuild --extend` puts them on it" in shell.fails(
        1, "rebuild", "house.db", "house", "--from", "last-2h")
    assert "further than asked for" in shell.good(
        "rebuild", "house.db", "house", "--from", "last-2h", "--extend").out


# All of them --------------------------------------------------------------------------------------

CHANGES = [
    ["period", "add", "{}", "60", "--keep-rows", "100", "-y"],
    ["period", "set", "{}", "15", "--keep-rows", "3000"],
    ["period", "remove", "{}", "15", "-y"],
    ["device", "add", "{}", "x"], ["device", "rename", "{}", "house", "x"],
    ["device", "remove", "{}", "house", "-y"],
    ["param", "add", "{}", "house", "x"], ["param", "remove", "{}", "house", "voltage_v", "-y"],
    ["param", "set", "{}", "house", "voltage_v", "--name", "x"],
    ["unit", "{}", "house", "--label", "x"], ["clear", "{}", "house", "-y"],
    ["rebuild", "{}", "house"],
]


def named(words):
    return " ".join(word for word in words[:2] if word != "{}")


def filled(words, file):
    return [word.format(file) for word in words]


@pytest.mark.parametrize("mode", ["delete", "wal"])
def test_a_locked_file_is_waited_for_and_said(shell, mode):
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute(f"PRAGMA journal_mode = {mode}")
    db.execute("BEGIN IMMEDIATE")
    processes = [subprocess.Popen([TRENDLOG, *filled(words, "house.db"), "--timeout", "1s"],
                                  cwd=shell.folder, stdin=subprocess.DEVNULL, env=environment(),
                                  stderr=subprocess.PIPE, text=True) for words in CHANGES]
    for process in processes:
        assert process.communicate(timeout=20)[1] == (
            "trendlog: house.db: locked by another program for more than 1s; try again, or wait "
            "longer with --timeout\n")
        assert process.returncode == 4
    db.execute("ROLLBACK")
    db.close()


def test_a_reader_in_the_way_is_waited_for(shell):
    db = sqlite3.connect(shell / "house.db", isolation_level=None)
    db.execute("BEGIN")
    db.execute("SELECT count(*) FROM trends_1_1").fetchone()
    assert "locked" in shell.fails(4, "clear", "house.db", "house", "-y", "--timeout", "1s")
    db.close()
    shell.good("clear", "house.db", "house", "-y")


@pytest.mark.parametrize("words", CHANGES, ids=named)
def test_what_is_no_log_is_refused(shell, words):
    (shell / "text.db").write_text("Not a log, not at all. " * 20)
    assert shell.fails(4, *filled(words, "text.db")) == "text.db: not a trend log: not an SQLite file"
    change(shell / "other.db", "CREATE TABLE t (a)")
    before = (shell / "other.db").read_bytes()
    assert "an SQLite file of another program" in shell.fails(4, *filled(words, "other.db"))
    assert (shell / "other.db").read_bytes() == before
    assert shell.fails(1, *filled(words, "none.db")) == "none.db: there is no such file"
    assert not (shell / "none.db").exists()
    change(shell / "house.db", "PRAGMA user_version = 3")
    assert "made by a newer version" in shell.fails(1, *filled(words, "house.db"))
    change(shell / "house.db", "PRAGMA user_version = 1")
    assert "`trendlog upgrade` brings it up to date" in shell.fails(1, *filled(words, "house.db"))


@pytest.mark.parametrize("words", CHANGES, ids=named)
@pytest.mark.parametrize("mode", ["delete", "wal"])
def test_the_journal_mode_stays_and_nothing_is_left(shell, words, mode):
    change(shell / "house.db", f"PRAGMA journal_mode = {mode}")
    shell.good(*filled(words, "house.db"))
    assert not list(shell.folder.glob("house.db-*"))
    assert one(shell / "house.db", "PRAGMA journal_mode") == mode
    assert one(shell / "house.db", "PRAGMA integrity_check") == "ok"
