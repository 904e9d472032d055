"""Help, manual page and completion are made from the table of commands, and say what is true."""

import re
import shlex
import shutil
import subprocess

import pytest

from conftest import TRENDLOG, environment


def ask(*words):
    return subprocess.run([TRENDLOG, *words], check=True, capture_output=True, text=True,
                          env=environment()).stdout


def commands():
    return re.findall(r"^  (\S+(?: \S+)?)  +\S", ask("--help"), re.MULTILINE)


def examples(command):
    return re.findall(r"^  \$ (trendlog .*)$", ask(*command.split(), "--help"), re.MULTILINE)


def options(command):
    return set(re.findall(r"^  (?:-\w, )?(--[a-z-]+)", ask(*command.split(), "--help"),
                          re.MULTILINE))


def test_there_are_commands():
    assert {"info", "devices", "params", "periods", "read", "plot", "latest", "extremes", "explain",
            "export", "check"} <= set(commands())


@pytest.mark.parametrize("command", commands())
def test_help_fits_a_screen(command):
    lines = ask(*command.split(), "--help").splitlines()
    assert len(lines) <= 24
    assert max(map(len, lines)) <= 80
    assert len(examples(command)) == 2


@pytest.mark.parametrize("command,example",
                         [(name, line) for name in commands() for line in examples(name)])
def test_example_runs(shell, command, example):
    words = shlex.split(example)
    assert " ".join(words[1:]).startswith(command)
    result = subprocess.run(["bash", "-c", f'trendlog() {{ "{TRENDLOG}" "$@"; }}; {example}'],
                            cwd=shell.folder, capture_output=True, text=True, env=environment())
    assert (result.returncode, result.stderr) == (0, "")


def test_help_of_a_command_in_two_ways():
    assert ask("help", "read") == ask("read", "--help") == ask("read", "x.db", "-h")


def test_overview_fits_a_terminal():
    assert max(map(len, ask("--help").splitlines())) <= 100
    assert ask() == ask("--help") == ask("help")


def test_manual_page_passes_lint(tmp_path):
    if not shutil.which("mandoc"):
        pytest.skip("install mandoc")
    page = tmp_path / "trendlog.1"
    page.write_text(ask("--generate", "manual"))
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "style", page], capture_output=True, text=True)
    assert (lint.returncode, lint.stdout) == (0, "")


def test_manual_page_has_every_command_and_option(tmp_path):
    page = tmp_path / "trendlog.1"
    page.write_text(ask("--generate", "manual"))
    text = subprocess.run(["mandoc", "-T", "utf8", "-O", "width=200", page], check=True,
                          capture_output=True, text=True).stdout
    text = re.sub(".\b", "", text).replace("−", "-").replace("‐", "-")
    for command in commands():
        assert re.search(rf"^ +{command} ", text, re.MULTILINE), command
        for option in options(command):
            assert option[1:] in text, option
        for example in examples(command):
            assert example in text, example


def complete(*words):
    script = ("eval \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _trendlog; "
              "printf '%s\\n' \"${COMPREPLY[@]}\"")
    result = subprocess.run(["bash", "-c", script, "bash", ask("--generate", "completion"),
                             "trendlog", *words], check=True, capture_output=True, text=True)
    return set(result.stdout.split())


def test_completion_of_commands():
    assert complete("") == {name.split()[0] for name in commands()}
    assert complete("ex") == {"explain", "export", "extremes"}


@pytest.mark.parametrize("command", commands())
def test_completion_of_options(command):
    assert complete(*command.split(), "x.db", "--") == options(command)


def test_completion_of_values():
    assert complete("read", "x.db", "--format", "") == {"table", "csv", "tsv", "json", "jsonl"}
    assert complete("export", "x.db", "--format", "i") == {"influx"}


def test_completion_of_files(tmp_path, monkeypatch):
    (tmp_path / "here.db").touch()
    monkeypatch.chdir(tmp_path)
    assert complete("info", "he") == {"here.db"}
