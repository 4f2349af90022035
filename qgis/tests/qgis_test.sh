#!/usr/bin/env bash
# Runs every algorithm of the plugin with qgis_process, without a display, and compares its files with the command's.
#   qgis_test.sh PYTHON BUILD
set -euo pipefail
python=$1 build=$2
tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# Debian's qgis_process is a script that hands options to the program which the program does not know.
QGIS_PROCESS=$(command -v qgis_process.bin || command -v qgis_process) || { echo "qgis_process is missing: skipped"; exit 77; }
"$python" -c 'import qgis.core, meshio, osgeo' 2>/dev/null || { echo "QGIS or meshio for Python is missing: skipped"; exit 77; }
HOME=$(mktemp -d)
trap 'rm -rf "$HOME"' EXIT
export HOME QGIS_PROCESS XDG_RUNTIME_DIR=$HOME QT_QPA_PLATFORM=offscreen PYTHONDONTWRITEBYTECODE=1
# The plugin as the zip has it, with the package and the library.
mkdir "$HOME/plugins"
"$python" -m zipfile -e "$("$tests/../../scripts/qgis.sh" "$build" "$HOME/plugin.zip")" "$HOME/plugins"
export QGIS_PLUGINPATH=$HOME/plugins TARN_TOOL=$build/bin/tarn
"$QGIS_PROCESS" plugins enable tarn_terrain >/dev/null 2>&1
"$python" -m pytest -q -p no:cacheprovider "$tests"
