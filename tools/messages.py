#!/usr/bin/env python3
"""Every message the tool can print must show in some expected output.

Lists the format strings of the tool's output calls (src/, the checker
apart), and fails on each that no golden case's expected output and no
unit test's expectation contains, unless UNREACHABLE names it with the
reason no run can show it. A listed message that is gone, or that an
expected output now shows, fails too, so the list stays true.

    tools/messages.py [SOURCE_DIR]     (default: the folder above tools/)
"""
import pathlib
import re
import sys

# The calls whose string arguments reach the terminal, a transcript or
# trace.out (directly, or as a format or a piece of one).
OUTPUT_CALLS = {
    "printf", "fprintf", "fputs", "puts", "snprintf", "ttrace", "message",
    "ask", "ask_long", "ask_int", "ask_choice", "set_variable", "send",
    "report_record", "report_failure", "keyword_error", "timed_transfer",
    "random_transfer", "fprintf_trace_flag", "progress",
}

# Message (its literal text) -> why no run of a golden case can show it.
UNREACHABLE = {
    "Data transfer size is %ld \n":
        "a record is blocking factor x sector size, and neither can be 0 (set corrects the one, "
        "device_capacity refuses a block size of 0)",
    "\r\x1b[K": "the status line of a long transfer is drawn only on a terminal (tests/terminal/screen.sh)",
    "%s %ld of %ld records, %s, %s/s, %s left": "drawn only on a terminal (tests/terminal/screen.sh)",
    "Illegal Request": "a completion status the simulated driver never gives",
    "Unknown test platform,\n": "printed only when built for a platform other than Linux",
    "batch input longer than %d lines \n": "needs a script of more than 2^31 lines (the counter: unit test)",
    "errno was %d (%s)\n": "only when the shell cannot be started at all (fork failing)",
    "plimsor fail to malloc %lu bytes for raw buffer exiting\n": "only when its 266 KiB buffers cannot be allocated at start",
    "plimsor fail to malloc %lu bytes for cook buffer exiting\n": "only when its 266 KiB buffers cannot be allocated at start",
}

TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|[A-Za-z_]\w*|\S',
                   re.S)
CONVERSION = re.compile(r"%[-+ #0]*(\d+|\*)?(\.(\d+|\*))?(hh|h|ll|l|z|j|t|L)?[diouxXcsfeEgGp%]")


def c_string(literal):
    return bytes(literal[1:-1], "utf-8").decode("unicode_escape")


def formats(path):
    """(line, text) of each run of adjacent literals that is printed: those
    inside an output call, and those kept for printing elsewhere (message
    tables, constants: a literal of words with a blank between)."""
    source = path.read_text()
    tokens = [(m.group(), source.count("\n", 0, m.start()) + 1) for m in TOKEN.finditer(source)]
    tokens = [t for t in tokens if not t[0].startswith(("//", "/*"))]
    calls = []  # token index ranges of output calls' arguments
    for i, (word, _) in enumerate(tokens):
        if word in OUTPUT_CALLS and i + 1 < len(tokens) and tokens[i + 1][0] == "(":
            depth, j = 0, i + 1
            while j < len(tokens):
                depth += tokens[j][0] == "("
                depth -= tokens[j][0] == ")"
                if depth == 0:
                    break
                j += 1
            calls.append((i, j))
    found, text, line, start = [], None, 0, 0
    for i, (token, at) in enumerate(tokens + [("", 0)]):
        if token.startswith('"'):
            if text is None:
                text, line, start = "", at, i
            text += c_string(token)
            continue
        if text is not None:
            in_call = any(a < start < b for a, b in calls)
            if in_call or re.search(r"[A-Za-z]{3}", text) and " " in text.strip():
                found.append((line, text))
            text = None
    return found


def pattern(text):
    """A format as a regular expression: a string may hold line ends (a
    ctime date does), a number none."""
    pieces, at = [], 0
    for conversion in CONVERSION.finditer(text):
        pieces.append(re.escape(text[at:conversion.start()]))
        pieces.append(r"[\s\S]{0,300}?" if conversion.group().endswith("s") else r"[^\n]*?")
        at = conversion.end()
    pieces.append(re.escape(text[at:]))
    # A conversion at either end may match nothing: dropped, the search
    # starts at a literal, which keeps it fast.
    while pieces and pieces[0] in ("", r"[\s\S]{0,300}?", r"[^\n]*?"):
        pieces.pop(0)
    while pieces and pieces[-1] in ("", r"[\s\S]{0,300}?", r"[^\n]*?"):
        pieces.pop()
    return re.compile("".join(pieces))


def expected_outputs(top):
    """Decoded expect sections of every golden case, and unit tests' literals."""
    texts = []
    for case in sorted((top / "tests" / "golden").rglob("*.case")):
        body = None
        for line in case.read_text(errors="replace").split("\n"):
            if line.startswith("--- "):
                if body is not None:
                    texts.append("\n".join(body))
                body = [] if line.startswith("--- expect ") else None
            elif body is not None:
                if line.endswith(" (no-eol)"):
                    line = line[: -len(" (no-eol)")]
                body.append(re.sub(r"\\(\\|x[0-9a-f]{2})",
                                   lambda m: "\\" if m.group(1) == "\\" else chr(int(m.group(1)[1:], 16)), line))
        if body is not None:
            texts.append("\n".join(body))
    for test in sorted((top / "tests" / "unit").glob("*.cpp")):
        for raw, literal in re.findall(r'R"\((.*?)\)"|("(?:\\.|[^"\\\n])*")', test.read_text(), re.S):
            texts.append(raw or c_string(literal))
    return "\n".join(texts)


def main():
    top = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parent.parent)
    sources = [p for p in sorted((top / "src").rglob("*.[ch]*")) if "check" not in p.relative_to(top / "src").parts]
    corpus = expected_outputs(top)
    seen, missing, shown = set(), [], []
    for path in sources:
        for line, text in formats(path):
            if not re.search(r"[A-Za-z]", CONVERSION.sub("", text)) or text in seen:
                continue  # no words of its own: only what it formats
            seen.add(text)
            # Line by line: a screen shown as its difference from another
            # marks each line it shows.
            covered = all(pattern(piece).search(corpus) for piece in text.split("\n") if piece.strip())
            where = "%s:%d: %r" % (path.relative_to(top), line, text)
            if text in UNREACHABLE:
                if covered:
                    shown.append(where)
            elif not covered:
                missing.append(where)
    stale = sorted(set(UNREACHABLE) - seen)
    for where in missing:
        print("no expected output shows", where)
    for where in shown:
        print("listed as unreachable but shown:", where)
    for text in stale:
        print("listed as unreachable but no longer printed: %r" % text)
    print("%d messages, %d unreachable, %d not shown" % (len(seen), len(UNREACHABLE), len(missing)))
    return 1 if missing or shown or stale else 0


if __name__ == "__main__":
    sys.exit(main())
