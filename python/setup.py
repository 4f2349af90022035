"""Adds to the build what the package takes from the library's header, which lies beside this folder.

With TARN_LIBRARY set to a library's path, the library goes into the wheel, which then needs nothing else on a machine.
"""
import os
import shutil
import sys
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py
from wheel.bdist_wheel import bdist_wheel

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import generate_declarations  # noqa: E402

HEADER = HERE.parent / "include" / "tarn" / "oneapi.h"
LIBRARY = os.environ.get("TARN_LIBRARY")


class BuildPackage(build_py):
    def run(self):
        super().run()
        package = Path(self.build_lib) / "tarn"
        generate_declarations.main(str(HEADER), str(package / "_declarations.py"))
        if LIBRARY:
            shutil.copy(LIBRARY, package / "libTarn.oneAPI.so")


class BuildWheel(bdist_wheel):
    def finalize_options(self):
        super().finalize_options()
        if LIBRARY:
            self.root_is_pure = False

    def get_tag(self):
        _python, _abi, platform = super().get_tag()
        return "py3", "none", platform


setup(version=generate_declarations.version(HEADER.read_text()), cmdclass={"build_py": BuildPackage, "bdist_wheel": BuildWheel})
