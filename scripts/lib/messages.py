"""Whether tests have met every text that the library prints: messages.py CAPTURED.

Each has to stand, word for word, as a literal in the source of a test; and to have been printed
while a test captured it, which is what the file CAPTURED has. Only the latter is left out for the
errors that the loadable module hands to SQLite, and what the recorder tells its host, instead of
printing them. A format counts as the
pieces between what is filled in. Which operation says what, and when, is for the tests themselves.
"""

import pathlib
import re
import sys

MODULE = "module.cpp"
PRINTERS = re.compile(r"\b(report|refuse|wrong_type|check|sqlite3_mprintf|tell)\(")
TOLD = "tell"  # handed to the host, which may print it
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
FILLED_IN = re.compile(r"%(?:s|d|jd|zu|lu|g|$)")  # "%" PRId64: the literal ends


def code(path):
    return re.sub(r"^\s*#.*|//.*", "", path.read_text(), flags=re.MULTILINE)


def texts(source):
    """The string constants, those of several literals put together."""
    for constant in re.finditer(LITERAL.pattern + r"(?:\s*" + LITERAL.pattern + ")*", source):
        yield "".join(LITERAL.findall(constant.group(0)))


def arguments(source, start):
    depth = 1
    for end in range(start, len(source)):
        depth += (source[end] == "(") - (source[end] == ")")
        if depth == 0:
            return source[start:end]
    return ""


def main():
    tests = pathlib.Path("tests")
    files = [*tests.glob("*.cpp"), *tests.glob("support/*"), *tests.glob("module/*.cpp")]
    seen = "\n".join(text for file in files for text in texts(code(file)))
    pieces, printed = set(), set()
    for file in sorted(pathlib.Path("common/source").rglob("*.cpp")):
        source = code(file)
        for call in PRINTERS.finditer(source):
            for text in texts(arguments(source, call.end())):
                found = {(piece.strip(), file) for piece in FILLED_IN.split(text)
                         if re.search("[a-z]", piece)}
                pieces |= found
                if call.group(1) != TOLD and file.name != MODULE:
                    printed |= found
    captured = pathlib.Path(sys.argv[1]).read_text(errors="replace")
    missing = sorted([f"no test has the text of {file}: {piece}" for piece, file in pieces
                      if piece not in seen] +
                     [f"no test has captured the text of {file}: {piece}"
                      for piece, file in printed if piece not in captured])
    print("\n".join(missing or [f"Messages: the {len(pieces)} texts all stand in a test, and tests "
                                f"have captured the {len(printed)} that are printed"]))
    sys.exit(bool(missing))


main()
