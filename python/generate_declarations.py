#!/usr/bin/env python3
"""Makes the declarations of the Python package out of the library's C header.

    generate_declarations.py oneapi.h _declarations.py

The header has one form that both sides read: plain C without conditional declarations. What a C parser without a
preprocessor does not know (comments, directives, alignments) is stripped. The header's own layout checks come along, for
the test that holds the package's records against them.
"""
import pprint
import re
import sys
from pathlib import Path


def strip(header: str) -> str:
    """The header's declarations, without comments, directives and the layout checks."""
    text = re.sub(r"/\*.*?\*/", "", header, flags=re.DOTALL)
    text = text.replace("\\\n", " ")
    text = re.sub(r"^\s*#.*$", "", text, flags=re.MULTILINE)
    text = re.sub(r"^TARN_(SIZE|FIELD)\(.*\);$", "", text, flags=re.MULTILINE)
    text = re.sub(r"\bTARN_ALIGNED\(\d+\)\s*|\bTARN_API\s+", "", text)
    text = re.sub(r'extern "C" \{|^\}$', "", text, flags=re.MULTILINE)
    return re.sub(r"\n\s*\n+", "\n", text).strip() + "\n"


def layout(header: str) -> dict:
    """Size and offsets of each record, as the header checks them: {record: (size, {field: offset})}."""
    records = {record: (int(size), {}) for record, size in re.findall(r"^TARN_SIZE\((\w+), (\d+)\);", header, re.M)}
    for record, field, offset in re.findall(r"^TARN_FIELD\((\w+), (\w+), (\d+)\);", header, re.M):
        records[record][1][field] = int(offset)
    return records


def version(header: str) -> str:
    return ".".join(re.findall(r"^#define TARN_ONEAPI_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)$", header, re.M))


def main(header_path: str, output_path: str) -> None:
    header = Path(header_path).read_text(encoding="utf-8")
    Path(output_path).write_text(
        '"""Generated from include/tarn/oneapi.h. Do not edit."""\n\n'
        f'VERSION = "{version(header)}"\n\n'
        f'DECLARATIONS = """\n{strip(header)}"""\n\n'
        f"LAYOUT = {pprint.pformat(layout(header), width=110)}\n",
        encoding="utf-8",
    )


if __name__ == "__main__":
    main(*sys.argv[1:])
