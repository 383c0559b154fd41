#!/bin/sh
# Installs what is missing, builds everything and runs the whole test suite under Wine and Xvfb.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
cmake --preset mingw
cmake --build --preset mingw
xvfb-run -a ctest --preset mingw -j2
