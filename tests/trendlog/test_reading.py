"""What the looking commands give out, against the bare tables as Python's sqlite3 reads them."""

import collections
import csv
import datetime
import io
import json
import math
import sqlite3
import subprocess
import time
import zoneinfo

import pytest

from conftest import HOUSE_PERIODS, MAKE_LOG, TRENDLOG, environment, make_log

AGGREGATES = ["min", "max", "avg", "actual", "sum"]
PLANT, HOUSE = ("plant.db", "plant/steel"), ("house.db", "house")


def table(shell, file, period, device=1):
    """The rows of one table as the CSV of `read` has them, but with numbers for texts."""
    db = sqlite3.connect(shell / file)
    db.row_factory = sqlite3.Row
    names = dict(db.execute(f"SELECT idx, path FROM params_{device}").fetchall())
    rows = []
    for row in db.execute(f"SELECT * FROM trends_{device}_{period} ORDER BY time"):
        shown = {"start": row["time"] - 60 * period, "end": row["time"],
                 "time": utc(row["time"]), "period": period,
                 "percent_valid": row["percent_valid"]}
        for column in row.keys()[2:]:
            _, number, aggregate = column.split("_")
            shown[f"{names[int(number)]}.{aggregate}"] = row[column]
        rows.append(shown)
    db.close()
    return rows


def utc(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime(
        "%Y-%m-%dT%H:%M:%SZ")


def numbers(rows):
    """CSV rows with numbers for texts, exactly as they are written."""
    whole = {"start", "end", "period"}
    return [{name: text if name in ("time", "device") else None if text == ""
             else int(text) if name in whole else float(text)
             for name, text in row.items()} for row in rows]


def nested(row):
    """A CSV row as the JSON formats have it."""
    out = {name: value for name, value in row.items() if "." not in name}
    out["values"] = {}
    for name, value in row.items():
        if "." in name:
            param, aggregate = name.rsplit(".", 1)
            out["values"].setdefault(param, {})[aggregate] = value
    return out


def best(tables):
    """Every moment once, of tables without holes on one grid, finest first: where the finer rows
    begin, the coarser row that begins before them takes the place of those inside it."""
    chosen = collections.deque(tables[0])
    for rows in tables[1:]:
        for row in reversed(rows):
            if row["start"] >= chosen[0]["start"]:
                continue
            while chosen[0]["end"] <= row["end"]:
                chosen.popleft()
            chosen.appendleft(row)
    return list(chosen)


# Rows -----------------------------------------------------------------------------------------


@pytest.mark.parametrize("file,device,period",
                         [(*PLANT, 15), (*PLANT, 60), (*PLANT, 1440), (*HOUSE, 1), (*HOUSE, 15)])
def test_rows_of_a_period_are_those_of_its_table(shell, file, device, period):
    expected = table(shell, file, period)
    result = shell.good("read", file, device, "--period", period, "--from", "first")
    assert numbers(result.rows()) == expected
    assert list(result.rows()[0]) == list(expected[0])
    backwards = shell.good("read", file, device, "--period", period, "--from", "first", "--reverse")
    assert numbers(backwards.rows()) == expected[::-1]


def test_rows_of_several_periods_stand_in_the_order_of_time(shell):
    rows = numbers(shell.good("read", *HOUSE, "--period", "1,15m", "--from", "first").rows())
    assert [row["end"] for row in rows] == sorted(row["end"] for row in rows)
    for period in (1, 15):
        assert [row for row in rows if row["period"] == period] == table(shell, "house.db", period)


def test_best_rows_give_every_moment_once(shell):
    expected = best([table(shell, "plant.db", period) for period in (15, 60, 1440)])
    rows = numbers(shell.good("read", *PLANT, "--from", "first").rows())
    assert rows == expected
    assert {row["period"] for row in rows} == {15, 60, 1440}
    assert all(a["end"] == b["start"] for a, b in zip(rows, rows[1:]))
    assert numbers(shell.good("export", "plant.db").rows()) == expected
    assert numbers(shell.good("export", "plant.db", "--snapshot").rows()) == expected
    reverse = shell.good("read", *PLANT, "--from", "first", "--reverse")
    assert numbers(reverse.rows()) == expected[::-1]


def test_the_newest_day_without_a_window(shell):
    last = table(shell, "plant.db", 15)[-1]["end"]
    rows = numbers(shell.good("read", *PLANT).rows())
    assert rows == [row for row in table(shell, "plant.db", 15) if row["end"] > last - 86400]
    assert len(rows) == 96


def test_a_window_is_after_its_first_moment_up_to_its_last(shell):
    rows = numbers(shell.good("read", *PLANT, "--from", "2018-12-24", "--to", "2018-12-25").rows())
    assert (rows[0]["time"], rows[-1]["time"], len(rows)) == (
        "2018-12-24T00:15:00Z", "2018-12-25T00:00:00Z", 96)


def test_choices(shell):
    all_rows = numbers(shell.good("read", *HOUSE, "--period", "1", "--from", "first").rows())
    some = shell.good("read", *HOUSE, "voltage_v", "--period", "1", "--from", "first", "--agg",
                      "min,avg")
    assert list(some.rows()[0])[5:] == ["voltage_v.min", "voltage_v.avg"]
    valid = shell.good("read", *HOUSE, "--period", "1", "--from", "first", "--min-valid", "41")
    assert numbers(valid.rows()) == [row for row in all_rows if row["percent_valid"] >= 41]
    assert 0 < len(valid.rows()) < len(all_rows)
    limited = shell.good("read", *HOUSE, "--period", "1", "--limit", "7", "--min-valid", "100")
    assert numbers(limited.rows()) == [row for row in all_rows if row["percent_valid"] == 100][:7]
    newest = shell.good("read", *HOUSE, "--limit", "3", "--reverse")
    assert numbers(newest.rows()) == all_rows[:-4:-1]


def test_nothing_there(shell):
    result = shell.run("read", *HOUSE, "--from", "2030-01-01")
    assert (result.code, result.err) == (0, "trendlog: house.db: no rows there\n")
    assert result.out.count("\n") == 1
    assert shell.good("read", *HOUSE, "--from", "2030-01-01", "--quiet").rows() == []


# Points ---------------------------------------------------------------------------------------


def scale(factor):
    return factor + 2 if factor < 0 else factor


def factor(value):
    return value - 2 if value > 1 else value


def summary(rows, param):
    """What a point is made of its rows."""
    key = scale if param == "power_factor" else float
    back = factor if param == "power_factor" else float
    known = [row for row in rows if row[param + ".avg"] is not None]
    weight = math.fsum(row["percent_valid"] for row in known)
    return {"min": back(min(key(row[param + ".min"]) for row in known)),
            "max": back(max(key(row[param + ".max"]) for row in known)),
            "avg": back(math.fsum(key(row[param + ".avg"]) * row["percent_valid"]
                                  for row in known) / weight)}


def close(one, other):
    return all(math.isclose(one[name], other[name], rel_tol=1e-12, abs_tol=1e-12) for name in other)


@pytest.mark.parametrize("param", ["active_energy_kwh", "power_factor"])
def test_days_of_a_zone(shell, param):
    """Local days, over the change to winter time: the day of 25 hours too."""
    zone = zoneinfo.ZoneInfo("Europe/Berlin")
    result = shell.good("read", *PLANT, param, "--every", "1d", "--from", "2018-10-20", "--to",
                        "2018-11-05", "--tz", "Europe/Berlin", "--format", "jsonl")
    points = result.objects()
    fine = table(shell, "plant.db", 60)
    assert len(points) == 16
    day = datetime.datetime(2018, 10, 20, tzinfo=zone)
    for point in points:
        next_day = (day.replace(tzinfo=None) + datetime.timedelta(days=1)).replace(tzinfo=zone)
        assert (point["start"], point["end"]) == (day.timestamp(), next_day.timestamp())
        assert point["time"] == next_day.isoformat()
        assert point["period"] == 60
        rows = [row for row in fine if point["start"] < row["end"] <= point["end"]]
        assert len(rows) == (25 if day.date() == datetime.date(2018, 10, 28) else 24)
        assert close(point["values"][param], summary(rows, param))
        day = next_day


def test_months(shell):
    points = shell.good("read", *PLANT, "--every", "month", "--from", "first", "--format",
                        "json").json()
    assert [point["time"] for point in points] == (
        [f"2018-{month:02}-01T00:00:00Z" for month in range(2, 13)] + ["2019-01-01T00:00:00Z"])
    days = table(shell, "plant.db", 1440)
    for point in points:
        rows = [row for row in days if point["start"] < row["end"] <= point["end"]]
        for param in ("active_energy_kwh", "power_factor"):
            assert close(point["values"][param], summary(rows, param))


@pytest.mark.parametrize("most", [1, 2, 7, 100, 5000])
def test_points_are_at_most_as_many_as_asked(shell, most):
    points = numbers(shell.good("read", *PLANT, "--points", most, "--from", "first").rows())
    assert 1 <= len(points) <= most
    assert max(p["active_energy_kwh.max"] for p in points) == max(
        row["active_energy_kwh.max"] for row in table(shell, "plant.db", 1440))


# Times ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("text,seconds", [
    ("1545609600", 1545609600),
    ("2018-12-24", 1545609600),
    ("2018-12-24T00:00", 1545609600),
    ("2018-12-24 00:00:00", 1545609600),
    ("2018-12-24T00:00:00Z", 1545609600),
    ("2018-12-24T01:00:00+01:00", 1545609600),
    ("2018-12-23T16:00:00.999-0800", 1545609600),
    ("last-8d", 1545609600),
    ("first+356d", 1545523200),
    ("last-1w1d", 1545609600),
])
def test_times(shell, text, seconds):
    rows = numbers(shell.good("read", *PLANT, "--from", text, "--limit", "1", "--best").rows())
    assert rows[0]["start"] == seconds


def test_dates_are_meant_in_the_zone(shell):
    for zone, offset in (("Europe/Berlin", "+01:00"), ("America/St_Johns", "-03:30")):
        row = shell.good("read", *PLANT, "--from", "2018-12-24", "--limit", "1", "--tz", zone).rows()[0]
        start = datetime.datetime(2018, 12, 24, tzinfo=zoneinfo.ZoneInfo(zone)).timestamp()
        assert int(row["start"]) == start
        assert row["time"] == "2018-12-24T00:15:00" + offset


def test_times_of_the_present(shell, tmp_path):
    minute = int(time.time()) // 60 * 60
    with open(tmp_path / "now.csv", "w") as out:
        out.write("time,level\n")
        for n in range(1500, 0, -1):
            out.write(f"{minute - 60 * n},{n}\n")
    make_log(shell / "now.db", "tank", tmp_path / "now.csv", HOUSE_PERIODS)
    rows = numbers(shell.good("read", "now.db", "tank", "--period", "1", "--from", "now-2h").rows())
    assert 118 <= len(rows) <= 120 and rows[-1]["level.avg"] == 1
    midnight = int(time.time()) // 86400 * 86400
    rows = numbers(shell.good("read", "now.db", "tank", "--period", "1", "--to", "today").rows())
    assert rows[-1]["end"] == midnight


# Formats --------------------------------------------------------------------------------------


def test_every_format_reads_back_the_same(shell):
    expected = table(shell, "house.db", 1)
    read = ["read", *HOUSE, "--period", "1", "--from", "first", "--format"]
    assert numbers(shell.good(*read, "csv").rows()) == expected
    assert numbers(shell.good(*read, "tsv").rows("\t")) == expected
    assert shell.good(*read, "json").json() == [nested(row) for row in expected]
    assert shell.good(*read, "jsonl").objects() == [nested(row) for row in expected]


def test_export_of_several_devices(shell):
    rows = numbers(shell.good("export", "two.db", "--period", "15").rows())
    house, plant = table(shell, "two.db", 15, 1), table(shell, "two.db", 15, 2)
    params = ["active_power_kw", "voltage_v", "power_factor"]
    names = [f"{param}.{aggregate}" for param in params for aggregate in ("min", "max", "avg")]
    empty = {name: None for name in names}
    assert set(rows[0]) == {"device", "start", "end", "time", "period", "percent_valid", *names}
    assert rows == ([{"device": "house", **empty, **row} for row in house]
                    + [{"device": 'plant, "2"', **empty, **row} for row in plant])
    objects = shell.good("export", "two.db", "--period", "15", "--format", "jsonl").objects()
    assert objects == ([{"device": "house", **nested(row)} for row in house]
                       + [{"device": 'plant, "2"', **nested(row)} for row in plant])
    one = shell.good("export", "two.db", "house", "--period", "15", "--param", "voltage_v")
    assert list(one.rows()[0])[-1] == "voltage_v.avg" and "device" not in one.rows()[0]


def line_of(row, device):
    fields = [f"percent_valid={row['percent_valid']}"]
    for name, value in row.items():
        if "." in name and value is not None:
            fields.append(f"{name}={value}")
    return device, row["period"], row["end"] * 10**9, fields


def test_line_protocol(shell):
    """Read back by the rules of the protocol: what is escaped, what is a field."""
    lines = shell.good("export", "two.db", "--period", "15", "--format", "influx").out.splitlines()
    expected = [line_of(row, "house") for row in table(shell, "two.db", 15, 1)]
    expected += [line_of(row, 'plant\\,\\ "2"') for row in table(shell, "two.db", 15, 2)]
    assert len(lines) == len(expected)
    for line, (device, period, end, fields) in zip(lines, expected):
        head = f"trend,device={device},period={period} "
        assert line.startswith(head) and line.endswith(f" {end}")
        got = dict(field.split("=") for field in line[len(head):-len(str(end)) - 1].split(","))
        assert {name: float(text) for name, text in got.items()} == {
            field.split("=")[0]: float(field.split("=")[1]) for field in fields}


def test_odd_values_and_names(shell, tmp_path):
    values = [1e308, -1e-308, 0.1, 1e22, float("inf"), 5e-324, 1 / 3]
    (tmp_path / "odd.csv").write_text("time,v\n" + "".join(
        f"{60 * n},1\n" for n in range(1, len(values) + 1)))
    make_log(shell / "odd.db", "a", tmp_path / "odd.csv", "1:100,15:100", keep="avg")
    name = 'new\nline, "quoted"\\\tü'
    with sqlite3.connect(shell / "odd.db") as db:
        db.execute("UPDATE params_1 SET path = ?", (name,))
        for n, value in enumerate(values):
            db.execute("UPDATE trends_1_1 SET param_1_avg = ? WHERE time = ?", (value, 60 * (n + 1)))
    read = ["read", "odd.db", "a", "--period", "1", "--from", "first", "--format"]
    rows = list(csv.DictReader(io.StringIO(shell.good(*read, "csv").out, newline="")))
    assert [float(row[name + ".avg"]) for row in rows] == values
    objects = shell.good(*read, "json").json()
    assert [row["values"][name]["avg"] for row in objects] == values
    influx = shell.run("export", "odd.db", "--period", "1", "--format", "influx")
    assert influx.err == "trendlog: 1 infinite value left out, line protocol has none\n"
    assert len(influx.out.splitlines()) == len(values)


def test_a_table_names_what_it_leaves_out(shell):
    """On a terminal of 80 columns."""
    script = f"stty cols 80; {TRENDLOG} read plant.db plant/steel --limit 3"
    out = subprocess.run(["script", "-qec", script, "/dev/null"], cwd=shell.folder, check=True,
                         capture_output=True, text=True, env=environment(TERM="dumb")).stdout
    lines = out.replace("\r", "").splitlines()
    assert max(len(line) for line in lines[:-1]) <= 80
    assert lines[0].split() == ["active_energy_kwh", "kW"]
    assert lines[-1].startswith("Left out, for 80 columns are too few: reactive_lagging_kvarh.min")
    assert "power_factor.actual" in lines[-1]
    assert "\033" not in out


def test_a_table_elsewhere_is_whole(shell):
    out = shell.good("read", *PLANT, "--limit", "2", "--format", "table").out
    assert out.splitlines()[1].split()[-4:] == ["min", "max", "avg", "actual"]
    assert out.splitlines()[1].split().count("actual") == 4


def test_colour_is_for_terminals_that_want_it(shell):
    command = f"{TRENDLOG} plot house.db house voltage_v"
    for env, coloured in (({"TERM": "xterm"}, True), ({"TERM": "xterm", "NO_COLOR": "1"}, False),
                          ({"TERM": "dumb"}, False)):
        out = subprocess.run(["script", "-qec", command, "/dev/null"], cwd=shell.folder, check=True,
                             capture_output=True, text=True, env=environment(**env)).stdout
        assert ("\033[" in out) == coloured
    assert "\033" not in shell.good("plot", *HOUSE, "voltage_v").out


# Lists and summaries --------------------------------------------------------------------------


def test_lists(shell):
    assert shell.good("devices", "two.db", "--format", "json").json() == [
        {"device": "house", "params": 3, "guid": None, "label": "Label of house"},
        {"device": 'plant, "2"', "params": 3, "guid": None, "label": 'Label of plant, "2"'}]
    assert shell.good("periods", "plant.db").rows() == [
        {"period": "15", "keep_rows": "2976", "reach": "44640"},
        {"period": "60", "keep_rows": "4464", "reach": "267840"},
        {"period": "1440", "keep_rows": "3650", "reach": "5256000"}]
    params = shell.good("params", "house.db", "house").rows()
    assert params[0] == {"device": "house", "param": "active_power_kw", "type": "value",
                         "keeps": "min,max,avg,sum", "unit": "kW", "label": "First quantity"}
    assert [row["type"] for row in params] == ["value", "value", "pf"]
    assert len(shell.good("params", "two.db").rows()) == 6


def test_latest(shell):
    for file, period, device in (("plant.db", 15, "plant/steel"), ("house.db", 1, "house")):
        newest = nested(table(shell, file, period)[-1])
        for row in shell.good("latest", file, "--format", "jsonl").objects():
            values = newest["values"][row["param"]]
            assert {name: row[name] for name in values} == values
            assert (row["device"], row["end"], row["period"]) == (device, newest["end"], period)


def test_extremes(shell):
    days = table(shell, "plant.db", 1440)
    rows = {(row["param"], row["extreme"]): row
            for row in shell.good("extremes", "plant.db", "plant/steel", "--format", "jsonl").objects()}
    assert len(rows) == 8
    for param in ("active_energy_kwh", "reactive_lagging_kvarh", "power_factor"):
        key = scale if param == "power_factor" else float
        largest = max((row[param + ".max"] for row in days), key=key)
        row = rows[(param, "max")]
        assert row["value"] == largest
        holder = [one for one in table(shell, "plant.db", row["period"]) if one["end"] == row["end"]]
        assert holder[0][param + ".max"] == largest
    window = shell.good("extremes", "plant.db", "plant/steel", "active_energy_kwh", "--from",
                        "2018-12-24", "--to", "2018-12-25", "--format", "jsonl").objects()
    rows = [row for row in table(shell, "plant.db", 15) if 1545609600 < row["end"] <= 1545696000]
    assert window[1]["value"] == max(row["active_energy_kwh.max"] for row in rows)
    assert 1545609600 < window[1]["end"] <= 1545696000


def test_info(shell):
    info = shell.good("info", "house.db", "--json").json()
    db = sqlite3.connect(shell / "house.db")
    assert info["bytes"] == (shell / "house.db").stat().st_size
    for name, pragma in (("pages", "page_count"), ("free_pages", "freelist_count"),
                         ("page_size", "page_size"), ("schema", "user_version")):
        assert info[name] == db.execute(f"PRAGMA {pragma}").fetchone()[0]
    for shown in info["devices"][0]["tables"]:
        rows = table(shell, "house.db", shown["period"])
        assert (shown["rows"], shown["first"], shown["last"]) == (
            len(rows), rows[0]["end"], rows[-1]["end"])
        assert math.isclose(shown["percent_valid"], sum(r["percent_valid"] for r in rows) / len(rows))
    assert info["warnings"] == []
    assert info["devices"][0]["newest"]["values"] == nested(table(shell, "house.db", 1)[-1])["values"]
    db.close()


def test_info_warns_of_what_is_seen_cheaply(shell):
    with sqlite3.connect(shell / "house.db") as db:
        db.execute("UPDATE periods SET max_entries = 20 WHERE period = 1")
        db.execute("UPDATE trends_1_15 SET time = 4000000000 WHERE time = "
                   "(SELECT max(time) FROM trends_1_15)")
        db.execute("DELETE FROM trends_1_1 WHERE time < (SELECT max(time) FROM trends_1_1) - 600")
    warnings = shell.good("info", "house.db", "--json").json()["warnings"]
    assert len(warnings) == 3
    assert warnings[0].startswith("periods 15m and 1m: the finer one keeps fewer rows than two")
    assert "pages of" in warnings[1] and "trendlog vacuum" in warnings[1]
    assert warnings[2] == "house: rows of 15m end in the future, at 2096-10-02T07:06:40Z"
    text = shell.good("info", "house.db").out
    assert all("warning: " + warning in text for warning in warnings)


# Explaining and checking ----------------------------------------------------------------------


def verdicts(out):
    return [line.strip() for line in out.splitlines() if line.strip() in ("agrees", "DIFFERS")]


@pytest.mark.parametrize("param", ["active_power_kw", "power_factor"])
def test_every_quarter_is_what_its_minutes_give(shell, param):
    for row in table(shell, "house.db", 15)[1::40]:
        out = shell.good("explain", *HOUSE, param, row["end"], "--period", "15").out
        assert verdicts(out) == ["agrees"] * 5
        assert "15 of 15 rows of 1m are stored" in out


def test_a_row_that_was_changed_differs(shell):
    row = table(shell, "house.db", 15)[100]
    with sqlite3.connect(shell / "house.db") as db:
        db.execute("UPDATE trends_1_15 SET param_2_avg = param_2_avg + 0.001 WHERE time = ?",
                   (row["end"],))
    result = shell.run("explain", *HOUSE, "voltage_v", row["end"] - 30, "--period", "15m")
    assert (result.code, result.err) == (3, "")
    assert verdicts(result.out) == ["agrees", "agrees", "agrees", "DIFFERS", "agrees"]
    check = shell.run("check", "house.db", "--json")
    assert check.code == 3
    found = check.json()[0]
    assert (found["severity"], found["kind"], found["device"], found["period"]) == (
        "warning", "coarse_rows", "house", 15)
    assert (found["first"], found["last"], found["count"]) == (row["end"], row["end"], 1)
    text = shell.run("check", "house.db", "--format", "table")
    assert text.code == 3 and text.out.endswith("house.db: 0 errors, 1 warning, 0 remarks\n")


def test_a_row_whose_finer_rows_are_gone(shell):
    out = shell.good("explain", *PLANT, "active_energy_kwh", "2018-11-30T22:00:00Z", "--period",
                     "1h").out
    assert "whether it agrees cannot be said" in out and verdicts(out) == []


def test_explain_says_what_it_cannot(shell):
    assert shell.fails(1, "explain", *HOUSE, "voltage_v", "last", "--period", "1") == (
        "house.db: rows of 1m are recorded, not made of others: it is the finest period")
    assert shell.fails(1, "explain", *HOUSE, "voltage_v", "2030-01-01", "--period", "15") == (
        "house.db: there is no row of 15m that holds 2030-01-01T00:00:00Z")
    shell.fails(2, "explain", *HOUSE, "voltage_v", "last")


# Pictures -------------------------------------------------------------------------------------


def test_plot_leaves_holes_blank(shell):
    out = shell.good("plot", *HOUSE, "voltage_v", "--from", "2007-02-02T09:00:00Z", "--to",
                     "2007-02-02T13:00:00Z", "--width", "66").out.splitlines()
    assert out[0] == "house voltage_v"
    # A column is four minutes; those after 09:19 up to 10:59 are missing.
    picture = [line[6:].ljust(60) for line in out[1:] if line[5:6] in "│┤"]
    drawn = [any(line[c] != " " for line in picture) for c in range(60)]
    assert drawn == [c < 5 or c >= 29 for c in range(60)]
    valid = [line for line in out if line.startswith("valid ")][0][6:].ljust(60)
    assert [c != " " for c in valid] == drawn


def test_plot_in_ascii(shell):
    for out in (shell.good("plot", *HOUSE, "voltage_v", env=environment(LC_ALL="C")).out,
                shell.good("plot", *HOUSE, "voltage_v", "--ascii").out):
        assert out.isascii() and "*" in out and ":" in out


def test_plot_as_a_picture(shell, tmp_path):
    import xml.etree.ElementTree as tree
    shell.good("plot", *HOUSE, "voltage_v", "power_factor", "--from", "first", "--out", "a.svg")
    root = tree.parse(shell / "a.svg").getroot()
    svg = "{http://www.w3.org/2000/svg}"
    texts = [text.text for text in root.iter(svg + "text")]
    assert "house voltage_v" in texts and "house power_factor" in texts
    paths = [path for path in root.iter(svg + "path")]
    styles = [path.get("class") for path in paths]
    assert all(styles.count(style) == 2 for style in ("band", "partial", "unknown"))
    assert styles.count("middle") == 3  # one is in the legend
    # The line is broken where the minutes are missing, and at the seed of blank rows.
    line = [path.get("d") for path in paths if path.get("class") == "middle"][0]
    assert line.count("M") == 2
    assert shell.fails(2, "plot", *HOUSE, "voltage_v", "--out", "a.png").startswith(
        "--out: the name must end in .svg")
    assert shell.fails(1, "plot", *HOUSE, "voltage_v", "--out", "none/a.svg") == (
        "none/a.svg: cannot be written: No such file or directory")
