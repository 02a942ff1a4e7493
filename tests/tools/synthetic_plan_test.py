#!/usr/bin/env python3
"""The synthetic plan's generator refuses a plan that no longer fits the schema.

Each case changes one thing in a copy of the proto or of tables.toml, as a
rename or a slip would, runs generate_plan.py on the copies and expects it to
fail with a message naming what is wrong. The untouched files must pass.
"""

import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.normpath(os.path.join(os.path.dirname(__file__), "..", ".."))
SCHEMA_DIR = os.path.join(ROOT, "libtarn_storage", "schema")
PROTO = os.path.join(SCHEMA_DIR, "tarn_osquery_schema.proto")
TABLES = os.path.join(ROOT, "tools", "tarn", "synthetic", "tables.toml")
GENERATOR = os.path.join(ROOT, "tools", "tarn", "synthetic", "generate_plan.py")


def rename_field(proto, message, old, new):
    start = proto.index("message %s {" % message)
    end = proto.index("}", start)
    body = re.sub(r"\b%s\b" % old, new, proto[start:end], count=1)
    return proto[:start] + body + proto[end:]


# (what is changed, the file, how, a text the message must hold)
CASES = [
    ("a column renamed in one table", "proto",
     lambda p: rename_field(p, "edr_process_create", "command_line", "cmdline"),
     "edr_process_create.cmdline has no rule"),
    ("a column renamed in every table", "proto",
     lambda p: re.sub(r"\bdata_source\b", "source_of_data", p),
     "no table has a column \"data_source\""),
    ("a rule that does not exist", "toml",
     lambda t: t.replace('pid = "pid"', 'pid = "process_id"', 1),
     "columns.pid: unknown rule \"process_id\""),
    ("a text rule on a number column", "toml",
     lambda t: t.replace('pid = "pid"', 'pid = "process_name"', 1),
     "edr_amsi_buffer.pid is a number column: \"process_name\" is not a rule for numbers"),
    ("a story that does not exist", "toml",
     lambda t: t.replace('edr_shell_command = "shell"', 'edr_shell_command = "console"'),
     "unknown story \"console\""),
    ("a table that does not exist", "toml",
     lambda t: t.replace("edr_process_signal = 0.3", "edr_process_sign = 0.3"),
     "\"edr_process_sign\" matches no table"),
    ("an option the table's story does not read", "toml",
     lambda t: t.replace('copy = ["edr_file_copy"]', 'copy = ["edr_file_copy", "edr_user_login"]'),
     "edr_user_login tells its story \"account\", which does not read it"),
    ("an override for a column its tables lack", "toml",
     lambda t: t.replace('[columns_in.edr_log_info]\npath = "log_path"',
                         '[columns_in.edr_log_info]\npath = "log_path"\nurl = "url_path"'),
     "none of its tables has a column \"url\""),
    ("a table without a story", "toml",
     lambda t: t.replace('"*" = "other"\n', ""),
     "has no weight or no story"),
]


def run(proto_text, tables_text, out):
    with open(os.path.join(out, "schema.proto"), "w", encoding="utf-8") as f:
        f.write(proto_text)
    with open(os.path.join(out, "tables.toml"), "w", encoding="utf-8") as f:
        f.write(tables_text)
    return subprocess.run(
        [sys.executable, GENERATOR, "--schema-dir", SCHEMA_DIR,
         "--proto", os.path.join(out, "schema.proto"),
         "--tables", os.path.join(out, "tables.toml"), "--out", os.path.join(out, "gen")],
        capture_output=True, text=True)


def main():
    with open(PROTO, encoding="utf-8") as f:
        proto = f.read()
    with open(TABLES, encoding="utf-8") as f:
        tables = f.read()
    failures = 0
    with tempfile.TemporaryDirectory() as out:
        result = run(proto, tables, out)
        if result.returncode != 0:
            print("FAIL the plan as it stands: %s" % result.stderr.strip())
            failures += 1
        for what, target, change, expected in CASES:
            changed_proto = change(proto) if target == "proto" else proto
            changed_tables = change(tables) if target == "toml" else tables
            if (changed_proto, changed_tables) == (proto, tables):
                print("FAIL %s: the change did not apply" % what)
                failures += 1
                continue
            result = run(changed_proto, changed_tables, out)
            if result.returncode == 0 or expected not in result.stderr:
                print("FAIL %s: exit %d, %r" % (what, result.returncode, result.stderr.strip()))
                failures += 1
            else:
                print("ok   %s: %s" % (what, result.stderr.strip().split(": ", 1)[-1]))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
