"""Adds to the build what the package takes from the library's header, which lies beside this folder."""
import sys
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import generate_declarations  # noqa: E402


class BuildWithDeclarations(build_py):
    def run(self):
        super().run()
        header = HERE.parent / "include" / "tarn" / "oneapi.h"
        generate_declarations.main(str(header), str(Path(self.build_lib) / "tarn" / "_declarations.py"))


setup(cmdclass={"build_py": BuildWithDeclarations})
