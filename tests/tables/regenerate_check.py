#!/usr/bin/env python3
"""Check that tools/gen_tables.py reproduces the committed generated tables.

The table data is looked up in $EVRC_TABLES_DATA, then in the shared folder
beside the checkout. Without it the check exits 77, which ctest reports as
skipped.
"""
import os
import subprocess
import sys
import tempfile

source_dir = sys.argv[1]
tool = os.path.join(source_dir, "tools", "gen_tables.py")


def expect_rejected(text, problem):
    """The generator must refuse TEXT with a message naming the file and PROBLEM."""
    with tempfile.TemporaryDirectory() as tmp:
        bad = os.path.join(tmp, "bad_tables.txt")
        out = os.path.join(tmp, "out.cpp")
        with open(bad, "w") as f:
            f.write(text)
        r = subprocess.run([sys.executable, tool, bad, out], capture_output=True, text=True)
        if r.returncode != 1 or bad not in r.stderr or problem not in r.stderr or os.path.exists(out):
            print(f"malformed input not rejected as expected ({problem!r}):\n{text}\n"
                  f"exit {r.returncode}, stderr: {r.stderr}")
            sys.exit(1)


expect_rejected("table evrc_acsLspVQFull1 64 2\n1 2\n", "declares 64 rows but has 1")
expect_rejected("table evrc_acsLspVQFull1 1 2\n1 2 3\n", "expected 2 values, found 3")
expect_rejected("table evrc_acsLspVQFull1 1 2\n1 x\n", "values must be integers")
expect_rejected("1 2\n", "values before the first 'table' line")
expect_rejected("", "no tables found")
expect_rejected("table evrc_acsLspVQFull1 1 2\n1 2\n", "missing tables")
candidates = [
    os.environ.get("EVRC_TABLES_DATA", ""),
    os.path.join(source_dir, "..", "shared", "data", "evrc_tables.txt"),
    "/work/shared/data/evrc_tables.txt",
]
data = next((c for c in candidates if c and os.path.isfile(c)), None)
if data is None:
    print("table data not found; regeneration check skipped")
    sys.exit(77)

generated = os.path.join(source_dir, "codec", "common", "evrc_tables_generated.cpp")
print(f"checking {generated} against {data}")
sys.exit(subprocess.call([sys.executable, tool, "--check", data, generated]))
