#!/usr/bin/env bash
# Makes the site of all documentation in build/site/html: the guides, the manual of the tool, the reference of the header by
# Doxygen, and a page for each computation with pictures that the library makes. Then it checks all links within the site.
#   scripts/docs.sh              builds the tool first
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh --docs
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target tarn

site=build/site
rm -rf "$site"
mkdir -p "$site/pages"
# The pages lie as in the repository, with all other files, so that their links hold.
git ls-files -z | xargs --null cp --parents --target-directory "$site/pages"

# The filter makes the first comment of the header that of the file.
cat >"$site/Doxyfile" <<END
PROJECT_NAME = Tarn.oneAPI
INPUT = include/tarn/oneapi.h
INPUT_FILTER = "sed '1s,\$, @file,'"
OUTPUT_DIRECTORY = $site/pages
HTML_OUTPUT = api
GENERATE_LATEX = NO
GENERATE_TAGFILE = $site/header.tag
JAVADOC_AUTOBRIEF = YES
OPTIMIZE_OUTPUT_FOR_C = YES
EXTRACT_ALL = YES
HAVE_DOT = NO
LAYOUT_FILE = $site/layout.xml
MACRO_EXPANSION = YES
EXPAND_ONLY_PREDEF = YES
PREDEFINED = TARN_API= "TARN_ALIGNED(bytes)=" "TARN_SIZE(a,b)=" "TARN_FIELD(a,b,c)=" __GNUC__
SEARCHENGINE = NO
QUIET = YES
WARN_AS_ERROR = FAIL_ON_WARNINGS
END
cat >"$site/layout.xml" <<END
<doxygenlayout version="1.0"><navindex>
  <tab type="mainpage" visible="no"/>
  <tab type="user" url="../index.html" title="All documentation"/>
  <tab type="user" url="oneapi_8h.html" title="Functions"/>
  <tab type="classlist" title="Records"/>
</navindex></doxygenlayout>
END
doxygen "$site/Doxyfile"
/usr/bin/python3 scripts/make_reference.py build/bin/tarn data/jacksboro.tif "$site/header.tag" "$site/pages/reference"

mkdir "$site/pages/style"
cp scripts/docs.css "$site/pages/style/"
{
    cat <<END
site_name: Tarn.oneAPI
docs_dir: pages
site_dir: html
use_directory_urls: false
theme:
  name: mkdocs
  highlightjs: false
plugins: []
extra_css: [style/docs.css]
nav:
  - Tarn.oneAPI: README.md
  - The tool: docs/tool.md
  - The header: api/oneapi_8h.html
  - Computations:
END
    printf '      - %s\n' "$site"/pages/reference/*.md | sed "s,$site/pages/,,"
    echo '  - Guides:'
    printf '      - %s\n' docs/*.md data/README.md hostsycl/README.md | sed '\,docs/tool.md,d'
    echo '  - Changes: CHANGELOG.md'
} >"$site/mkdocs.yml"
(cd "$site" && mkdocs build --strict --quiet)
echo '[AnchorCheck]' >"$site/linkchecker.conf"
linkchecker --config "$site/linkchecker.conf" --no-status --ignore-url='^(https?|mailto):' "$site/html/index.html"
echo "docs.sh: $site/html/index.html"
