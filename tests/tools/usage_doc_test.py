#!/usr/bin/env python3
"""docs/usage.md, followed from the top as a new user follows it.

Every `$ ` line of the page's code blocks runs in order, with bash, in one
scratch directory (beside a link to the sample data, so that the page's
`../shared/data` resolves), with the built tarn first on PATH and two cores
allowed, as on the machine the page was written on, and one LZMA thread
(TARN_LZMA_THREADS=1): whether the writer compresses a block in pieces
depends on how fast the events came, so only one thread makes the sizes on
the page repeatable. What it prints (standard
output and error together) must be the lines the page shows below it, with
times, rates and the scratch path masked. A line `...` stands for any number
of lines, `...` inside a line for any text.

Comments on the page steer what a reader does not see typed:
  <!-- doc-test: setup CMD -->   CMD runs (and must succeed) before the next command
  <!-- doc-test: prefix CMD -->  the next command runs as `CMD <command>`
  <!-- doc-test: skip WHY -->    the next code block is not run
  <!-- doc-test: clock WHY -->   the next block's output depends on today's date:
                                 only its lines without digits are compared

  usage_doc_test.py --doc docs/usage.md --tarn build/bin/tarn --shared ../shared
  add --rewrite to write what the commands print into the page (lines with
  `...` are left for a person to cut down).
"""

import argparse
import difflib
import os
import re
import shutil
import subprocess
import sys
import tempfile

PAGE_SCRATCH = "/tmp/usage"
DIRECTIVE = re.compile(r"^<!-- doc-test: (setup|prefix|skip|clock) ?(.*?) -->$")
MASKS = [
    (re.compile(r"/tmp/tarn-demo-[A-Za-z0-9]+"), "/tmp/tarn-demo-<dir>"),
    (re.compile(r"\b\d+(?:\.\d+)? (?:ms|s)\b"), "<time>"),
    (re.compile(r"[\d,]+ events/s"), "<rate> events/s"),
    (re.compile(r"Run Time: real .*"), "Run Time: <time>"),
    # Telemetry figures of real time (the last block goes when the store stops).
    (re.compile(r'("(?:\w*duration\w*|uptime_ms|block_dump_occurence_avg_ms)": )[\d.]+'),
     r"\1<time>"),
    # The source line of a log record: compilers count a macro spread over
    # several lines differently.
    (re.compile(r"^(log: .* )line \d+$"), r"\1line <n>"),
]


class Command:
    def __init__(self, line_no, text, expected, setup, prefix, clock):
        self.line_no = line_no  # 1-based line of the `$ ` line
        self.text = text
        self.expected = expected  # the lines the page shows
        self.setup = setup
        self.prefix = prefix
        self.clock = clock


def read_commands(page_lines):
    commands = []
    setup, prefix, skip, clock = [], None, False, False
    in_block = False
    current = None
    for index, line in enumerate(page_lines):
        if line.startswith("```"):
            if in_block and current:
                commands.append(current)
            if in_block:
                skip, clock = False, False
            in_block, current = not in_block, None
            continue
        if not in_block:
            found = DIRECTIVE.match(line.strip())
            if found:
                kind, argument = found.groups()
                if kind == "setup":
                    setup.append(argument)
                elif kind == "prefix":
                    prefix = argument
                elif kind == "skip":
                    skip = True
                else:
                    clock = True
            continue
        if skip:
            continue
        if line.startswith("$ "):
            if current:
                commands.append(current)
            current = Command(index + 1, line[2:], [], setup, prefix, clock)
            setup, prefix = [], None
        elif current:
            current.expected.append(line)
    return commands


def mask(line):
    for pattern, replacement in MASKS:
        line = pattern.sub(replacement, line)
    return line


def line_matches(expected, actual):
    if "..." not in expected:
        return expected == actual
    pieces = [re.escape(piece) for piece in expected.split("...")]
    return re.fullmatch(".*".join(pieces), actual, re.S) is not None


def lines_match(expected, actual):
    """True when `actual` is `expected` with each `...` line standing for any run of lines."""
    memo = {}

    def match(e, a):
        if (e, a) in memo:
            return memo[(e, a)]
        if e == len(expected):
            result = a == len(actual)
        elif expected[e].strip() == "...":
            result = any(match(e + 1, k) for k in range(a, len(actual) + 1))
        else:
            result = (a < len(actual) and line_matches(expected[e], actual[a])
                      and match(e + 1, a + 1))
        memo[(e, a)] = result
        return result

    return match(0, 0)


def without_digits(lines):
    """The lines of a clock-dependent output that do not change with the date, spacing folded."""
    kept = []
    for line in lines:
        if line.strip() == "..." or re.search(r"\d", line):
            continue
        kept.append(re.sub(r"-{2,}", "--", " ".join(line.split())))
    return kept


def run(command_text, scratch, env):
    done = subprocess.run(["bash", "-c", command_text], cwd=scratch, env=env,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=600)
    text = done.stdout.decode("utf-8", "replace").replace(scratch, PAGE_SCRATCH)
    lines = text.split("\n")
    if lines and lines[-1] == "":
        lines.pop()
    return done.returncode, lines


def compare(command, actual):
    expected = [mask(line) for line in command.expected]
    masked = [mask(line) for line in actual]
    if command.clock:
        return without_digits(expected) == without_digits(masked)
    return lines_match(expected, masked)


def scratch_beside_shared(shared):
    """A directory `usage` whose `../shared` is the sample data's tree."""
    root = tempfile.mkdtemp(prefix="tarn-usage-doc-")
    os.symlink(os.path.abspath(shared), os.path.join(root, "shared"))
    scratch = os.path.join(root, "usage")
    os.mkdir(scratch)
    return root, scratch


def pin_two_cores():
    """The page was written on two cores; the default thread count, and so some figures, follow."""
    allowed = sorted(os.sched_getaffinity(0))
    if len(allowed) < 2:
        sys.exit("usage doc: needs two cores to run on, this process has %d" % len(allowed))
    os.sched_setaffinity(0, allowed[:2])


def rewrite(page_path, page_lines, commands, outputs):
    """Puts each command's output in place of the page's, where the page shows all of it."""
    left = []
    for command in reversed(commands):
        actual = outputs.get(command.line_no)
        if actual is None or compare(command, actual):
            continue
        if command.clock or any("..." in line for line in command.expected):
            left.append(command.line_no)
            continue
        start = command.line_no  # 0-based index of the first output line
        page_lines[start:start + len(command.expected)] = actual
    with open(page_path, "w") as page:
        page.write("\n".join(page_lines) + "\n")
    for line_no in sorted(left):
        print("usage doc: line %d shows part of its output; cut the new one down by hand" % line_no)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--doc", required=True)
    parser.add_argument("--tarn", required=True)
    parser.add_argument("--shared", required=True)
    parser.add_argument("--rewrite", action="store_true")
    args = parser.parse_args()

    with open(args.doc) as page:
        page_lines = page.read().split("\n")
    if page_lines and page_lines[-1] == "":
        page_lines.pop()
    commands = read_commands(page_lines)
    if not commands:
        sys.exit("usage doc: no commands found in %s" % args.doc)

    pin_two_cores()
    root, scratch = scratch_beside_shared(args.shared)
    env = dict(os.environ)
    env["PATH"] = os.path.dirname(os.path.abspath(args.tarn)) + os.pathsep + env.get("PATH", "")
    env["TARN_HISTORY"] = ""
    env["TARN_LZMA_THREADS"] = "1"
    failures, outputs = 0, {}
    try:
        for command in commands:
            for step in command.setup:
                status, lines = run(step, scratch, env)
                if status != 0:
                    sys.exit("usage doc: line %d: setup `%s` failed (%d):\n%s"
                             % (command.line_no, step, status, "\n".join(lines)))
            text = command.text if command.prefix is None else command.prefix + " " + command.text
            _, actual = run(text, scratch, env)
            outputs[command.line_no] = actual
            if compare(command, actual):
                continue
            failures += 1
            print("usage doc: line %d: `%s` prints what the page does not show:" % (command.line_no,
                                                                                    command.text))
            sys.stdout.writelines(difflib.unified_diff(
                [mask(line) + "\n" for line in command.expected],
                [mask(line) + "\n" for line in actual], "page", "tarn", n=2))
    finally:
        shutil.rmtree(root, ignore_errors=True)
    if args.rewrite:
        rewrite(args.doc, page_lines, commands, outputs)
    print("usage doc: %d commands run, %d print what the page shows, %d differ"
          % (len(commands), len(commands) - failures, failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
