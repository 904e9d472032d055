"""Loads the module trend.so into the sqlite3 shell and into Python's sqlite3, and compares both with
the library's own results: module_hosts.py MODULE REFERENCE, where REFERENCE is the program of
module_reference.cpp."""

import os
import random
import sqlite3
import subprocess
import sys
import tempfile
import unittest

MODULE = os.path.abspath(sys.argv.pop(1))
REFERENCE = os.path.abspath(sys.argv.pop(1))

CALLS = ["pfmin(x)", "pfmax(x)", "pfavg(x)", "pfpctavg(x, w)", "pctavg(x, w)"]


def digits(expression):
    """SQL for a value with every digit and its type."""
    return f"typeof({expression}) || ' ' || coalesce(printf('%!.20g', {expression}), '')"


def in_library(database, sql):
    run = subprocess.run([REFERENCE, database, sql], capture_output=True, text=True, check=True)
    return run.stdout


def in_shell(database, *statements):
    """What the shell prints, and what it says about errors, one statement after the other."""
    script = f".load {MODULE.removesuffix('.so')}\n" + ";\n".join(statements) + ";\n"
    run = subprocess.run(["sqlite3", "-readonly", database], input=script,
                         capture_output=True, text=True)
    if run.returncode not in (0, 1):
        raise AssertionError(f"the shell ended with {run.returncode}: {run.stderr}")
    return run.stdout, run.stderr


def in_python(database, sql):
    connection = sqlite3.connect(f"file:{database}?mode=ro", uri=True)
    try:
        connection.enable_load_extension(True)
        connection.load_extension(MODULE.removesuffix(".so"))
        rows = connection.execute(sql).fetchall()
        return "".join("|".join(map(str, row)) + "\n" for row in rows)
    finally:
        connection.close()


class ModuleHosts(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.database = os.path.join(folder.name, "values.db")

    def make_values(self):
        rng = random.Random(7)
        with sqlite3.connect(self.database) as connection:
            connection.execute("CREATE TABLE t (g INTEGER, x, w)")
            for row in range(2000):
                x = rng.choice([None, rng.uniform(-1.2, 1.2), rng.randint(-1, 1)])
                w = rng.choice([rng.uniform(-20, 120), rng.randint(0, 100)])
                connection.execute("INSERT INTO t VALUES (?, ?, ?)", (row % 50, x, w))
        connection.close()

    def test_all_hosts_agree_to_the_last_digit(self):
        self.make_values()
        for call in CALLS:
            sql = f"SELECT g, {digits(call)} FROM t GROUP BY g ORDER BY g"
            expected = in_library(self.database, sql)
            self.assertEqual(50, expected.count(" "), call)
            self.assertEqual((expected, ""), in_shell(self.database, sql), call)
            self.assertEqual(expected, in_python(self.database, sql), call)

    def test_fine_rows_of_a_log_give_its_coarse_rows(self):
        subprocess.run([REFERENCE, "--record", self.database], check=True)
        columns = ["param_1_min", "param_1_max", "param_1_avg",
                   "param_2_min", "param_2_max", "param_2_avg"]
        stored = "SELECT time, " + ", ".join(map(digits, columns)) + " FROM trends_1_15"
        calls = ["min(param_1_min)", "max(param_1_max)", "pctavg(param_1_avg, percent_valid)",
                 "pfmin(param_2_min)", "pfmax(param_2_max)", "pfpctavg(param_2_avg, percent_valid)"]
        rolled_up = ("SELECT max(time), " + ", ".join(map(digits, calls)) +
                     " FROM trends_1_1 GROUP BY (time - 1) / 900 ORDER BY 1")
        expected = in_library(self.database, stored)
        self.assertEqual(96, expected.count("\n"))
        self.assertEqual((expected, ""), in_shell(self.database, rolled_up))
        self.assertEqual(expected, in_python(self.database, rolled_up))

    def test_hand_worked_values(self):
        weighted = "(VALUES (10, 100), (20, 50), (NULL, 100), (30, 0))"
        factors = "(VALUES (0.75, 100), (-0.5, 50))"
        for sql, expected in [
            (f"SELECT round(pctavg(column1, column2), 9) FROM {weighted}", "13.333333333\n"),
            (f"SELECT pfmin(column1) FROM {factors}", "0.75\n"),
            (f"SELECT pfmax(column1) FROM {factors}", "-0.5\n"),
            (f"SELECT pfavg(column1) FROM {factors}", "-0.875\n"),
            (f"SELECT pfpctavg(column1, column2) FROM {factors}", "1.0\n"),
        ]:
            self.assertEqual((expected, ""), in_shell(":memory:", sql), sql)
            self.assertEqual(expected, in_python("", sql), sql)

    def test_bad_arguments_are_errors_and_the_host_lives_on(self):
        value = "the value must be a number or NULL"
        weight = "the weight must be a number"
        count = "wrong number of arguments to function"
        for call, message in [
            ("pfmin('0.5')", f"pfmin: {value}"),
            ("pfmax('')", f"pfmax: {value}"),
            ("pfavg(x'00')", f"pfavg: {value}"),
            ("pfpctavg('a', 1)", f"pfpctavg: {value}"),
            ("pctavg('1', 1)", f"pctavg: {value}"),
            ("pfpctavg(1, NULL)", f"pfpctavg: {weight}"),
            ("pctavg(1, NULL)", f"pctavg: {weight}"),
            ("pctavg(1, '1')", f"pctavg: {weight}"),
            ("pfmin()", f"{count} pfmin()"),
            ("pfmax(1, 2)", f"{count} pfmax()"),
            ("pfavg(1, 2)", f"{count} pfavg()"),
            ("pfpctavg(1)", f"{count} pfpctavg()"),
            ("pctavg(1, 2, 3)", f"{count} pctavg()"),
        ]:
            shown, said = in_shell(":memory:", f"SELECT {call}", "SELECT pfavg(0.5)")
            self.assertEqual("0.5\n", shown, call)
            self.assertIn(message, said, call)
            with self.assertRaises(sqlite3.OperationalError) as caught:
                in_python("", f"SELECT {call}")
            self.assertEqual(message, str(caught.exception))


if __name__ == "__main__":
    unittest.main()
