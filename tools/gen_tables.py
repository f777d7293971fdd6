#!/usr/bin/env python3
"""Turn the codec's large constant tables from their text form into C++.

Usage:
    gen_tables.py DATA_FILE OUTPUT_CPP          write OUTPUT_CPP
    gen_tables.py --check DATA_FILE OUTPUT_CPP  exit 1 if OUTPUT_CPP is stale

The text form is a sequence of blocks, each a line "table NAME ROWS COLS"
followed by ROWS lines of COLS whitespace-separated integers; "#" starts a
comment. Tables named evrc_acs... are the exported Word16 tables and must
have exactly the shape that include/evrc/evrc_tables.h declares. Any other
table serves the encoder only; it is emitted into namespace evrc_enc_tables
as Word16 when every value fits, Word32 otherwise (one-column tables become
plain one-dimensional arrays).

The output depends only on the data, so running the generator twice gives
byte-identical files.
"""

import os
import sys

# Exported tables and their declared C shapes. A table whose declared shape
# has one dimension is flattened row by row.
EXPORTED_SHAPES = {
    "evrc_acsLspVQFull1": (64, 2),
    "evrc_acsLspVQFull2": (64, 2),
    "evrc_acsLspVQFull3": (512, 3),
    "evrc_acsLspVQFull4": (128, 3),
    "evrc_acsLspVQHalf1": (128, 3),
    "evrc_acsLspVQHalf2": (128, 3),
    "evrc_acsLspVQHalf3": (256, 4),
    "evrc_acsLspVQEighth1": (16, 5),
    "evrc_acsLspVQEighth2": (16, 5),
    "evrc_acsPowQuant": (256, 3),
    "evrc_acsBlockCoeff8": (8, 17),
    "evrc_acsBlockCoeff3": (56,),
}

WORD16 = (-32768, 32767)
WORD32 = (-(1 << 31), (1 << 31) - 1)
VALUES_PER_LINE = 10


class TableError(Exception):
    pass


def parse(path):
    """Return the tables of PATH as an ordered list of (name, rows)."""
    try:
        with open(path, encoding="utf-8") as f:
            lines = f.readlines()
    except OSError as e:
        raise TableError(f"{path}: cannot read: {e.strerror}")

    tables = []
    seen = set()
    current = None  # (name, nrows, ncols, rows, header line number)

    def finish(at_line):
        if current is None:
            return
        name, nrows, _, rows, start = current
        if len(rows) != nrows:
            raise TableError(f"{path}:{start}: table {name} declares {nrows} rows "
                             f"but has {len(rows)} (block ends at line {at_line})")
        tables.append((name, rows))

    for number, raw in enumerate(lines, start=1):
        text = raw.split("#", 1)[0].split()
        if not text:
            continue
        if text[0] == "table":
            finish(number)
            if len(text) != 4:
                raise TableError(f"{path}:{number}: expected 'table NAME ROWS COLS'")
            name = text[1]
            if not name.isidentifier():
                raise TableError(f"{path}:{number}: '{name}' is not a valid table name")
            if name in seen:
                raise TableError(f"{path}:{number}: table {name} appears twice")
            seen.add(name)
            try:
                nrows, ncols = int(text[2]), int(text[3])
            except ValueError:
                raise TableError(f"{path}:{number}: table {name}: ROWS and COLS must be integers")
            if nrows <= 0 or ncols <= 0:
                raise TableError(f"{path}:{number}: table {name}: ROWS and COLS must be positive")
            current = (name, nrows, ncols, [], number)
            continue
        if current is None:
            raise TableError(f"{path}:{number}: values before the first 'table' line")
        name, nrows, ncols, rows, _ = current
        if len(rows) == nrows:
            raise TableError(f"{path}:{number}: table {name} has more than {nrows} rows")
        if len(text) != ncols:
            raise TableError(f"{path}:{number}: table {name}: expected {ncols} values, found {len(text)}")
        try:
            rows.append([int(v) for v in text])
        except ValueError:
            raise TableError(f"{path}:{number}: table {name}: values must be integers")
    finish(len(lines))

    if not tables:
        raise TableError(f"{path}: no tables found")
    return tables


def check_exported(path, tables):
    names = {name for name, _ in tables}
    missing = sorted(set(EXPORTED_SHAPES) - names)
    if missing:
        raise TableError(f"{path}: missing tables: {', '.join(missing)}")
    for name, rows in tables:
        if not name.startswith("evrc_"):
            continue
        if name not in EXPORTED_SHAPES:
            raise TableError(f"{path}: table {name} is not an exported table of the codec")
        shape = EXPORTED_SHAPES[name]
        total = len(rows) * len(rows[0])
        if len(shape) == 2 and (len(rows), len(rows[0])) != shape:
            raise TableError(f"{path}: table {name} is {len(rows)} x {len(rows[0])}, "
                             f"expected {shape[0]} x {shape[1]}")
        if len(shape) == 1 and total != shape[0]:
            raise TableError(f"{path}: table {name} has {total} values, expected {shape[0]}")
        check_range(path, name, rows, WORD16)


def check_range(path, name, rows, bounds):
    for row in rows:
        for v in row:
            if not bounds[0] <= v <= bounds[1]:
                raise TableError(f"{path}: table {name}: value {v} is out of range")


def fits(rows, bounds):
    return all(bounds[0] <= v <= bounds[1] for row in rows for v in row)


def format_values(values, indent):
    out = []
    for i in range(0, len(values), VALUES_PER_LINE):
        out.append(indent + ", ".join(str(v) for v in values[i:i + VALUES_PER_LINE]) + ",")
    return out


def emit_array(ctype, decl, rows, flatten):
    lines = [f"{ctype} {decl} = {{"]
    if flatten:
        lines += format_values([v for row in rows for v in row], "    ")
    else:
        for row in rows:
            if len(row) <= VALUES_PER_LINE * 2:
                lines.append("    {" + ", ".join(str(v) for v in row) + "},")
            else:
                lines.append("    {")
                lines += format_values(row, "        ")
                lines.append("    },")
    lines.append("};")
    return lines


def render(source_name, tables):
    out = [
        "// Generated by tools/gen_tables.py from " + source_name + ", do not edit.",
        "// Regenerate with: python3 tools/gen_tables.py " + source_name +
        " codec/common/evrc_tables_generated.cpp",
        "",
        '#include "evrc/evrc_tables.h"',
        "",
        "// Codebooks and filters of the codec, exported with C linkage through the",
        "// declarations of evrc/evrc_tables.h.",
    ]
    encoder = []
    for name, rows in tables:
        if name in EXPORTED_SHAPES:
            shape = EXPORTED_SHAPES[name]
            dims = "".join(f"[{d}]" for d in shape)
            out.append("")
            out += emit_array("const Word16", name + dims, rows, len(shape) == 1)
        else:
            encoder.append((name, rows))

    if encoder:
        out += [
            "",
            "// Tables used only by the encoder's analysis stages (C++ linkage).",
            "namespace evrc_enc_tables {",
        ]
        for name, rows in encoder:
            ctype = "Word16" if fits(rows, WORD16) else "Word32"
            if not fits(rows, WORD32):
                raise TableError(f"table {name}: values do not fit in 32 bits")
            ncols = len(rows[0])
            dims = f"[{len(rows)}]" if ncols == 1 else f"[{len(rows)}][{ncols}]"
            out.append("")
            out.append(f"extern const {ctype} {name}{dims};")
            out += emit_array("const " + ctype, name + dims, rows, ncols == 1)
        out += ["", "}  // namespace evrc_enc_tables"]
    return "\n".join(out) + "\n"


def main(argv):
    check = False
    args = argv[1:]
    if args and args[0] == "--check":
        check = True
        args = args[1:]
    if len(args) != 2:
        sys.stderr.write(__doc__.split("\n\n")[1] + "\n")
        return 2
    data_path, out_path = args
    try:
        tables = parse(data_path)
        check_exported(data_path, tables)
        text = render(os.path.basename(data_path), tables)
    except TableError as e:
        sys.stderr.write(f"gen_tables.py: {e}\n")
        return 1

    if check:
        try:
            with open(out_path, encoding="utf-8") as f:
                current = f.read()
        except OSError as e:
            sys.stderr.write(f"gen_tables.py: {out_path}: cannot read: {e.strerror}\n")
            return 1
        if current != text:
            sys.stderr.write(f"gen_tables.py: {out_path} is out of date with {data_path}\n")
            return 1
        return 0

    tmp = out_path + ".tmp"
    try:
        with open(tmp, "w", encoding="utf-8", newline="\n") as f:
            f.write(text)
        os.replace(tmp, out_path)
    except OSError as e:
        sys.stderr.write(f"gen_tables.py: {out_path}: cannot write: {e.strerror}\n")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
