"""The code in the documents is code that runs."""
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]


def blocks(document: str) -> list[tuple[str, str]]:
    return re.findall(r"^```(\w+)\n(.*?)^```$", (ROOT / document).read_text(), re.M | re.S)


def test_the_examples_in_the_page_on_hosting_are_those_that_run():
    programs = {"c": "c/tour.c", "cpp": "cpp/tour.cpp", "python": "python/tour.py"}
    for language, name in programs.items():
        program = (ROOT / "examples" / name).read_text()
        shown = [code for kind, code in blocks("docs/hosting.md") if kind == language]
        assert len(shown) >= 16
        for code in shown:
            assert code in program, f"not in {name}:\n{code}"
    subprocess.run([sys.executable, ROOT / "examples" / "python" / "tour.py"], check=True, capture_output=True)


def test_the_python_of_the_readme_erodes_and_shades(tmp_path):
    rasterio = pytest.importorskip("rasterio")
    [code] = [code for kind, code in blocks("README.md") if kind == "python"]
    (tmp_path / "data").symlink_to(ROOT / "data")
    subprocess.run([sys.executable, "-c", code], check=True, capture_output=True, cwd=tmp_path, env=os.environ)
    with rasterio.open(tmp_path / "eroded.tif") as file, rasterio.open(ROOT / "data" / "jacksboro.tif") as before:
        assert file.crs == before.crs and file.transform == before.transform
        assert 1 < abs(file.read(1) - before.read(1)).mean() < 50
    with rasterio.open(tmp_path / "eroded.png") as file:
        assert file.count == 3 and file.read().std() > 20
