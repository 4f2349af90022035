"""Tarn.oneAPI in QGIS: every computation as a Processing algorithm."""
import importlib.util
import sys
from pathlib import Path

# The package `tarn` of the machine, else the one that came with the plugin.
if importlib.util.find_spec("tarn") is None:
    sys.path.append(str(Path(__file__).parent / "lib"))


def classFactory(_iface):
    from .plugin import Plugin

    return Plugin()
