#!/bin/sh
# Installs what is missing, builds everything and runs the whole test suite under Wine and Xvfb.
set -eu
cd "$(dirname "$0")/.."
sh scripts/setup.sh
# The 32-bit build first (compile only: its programs cannot run here); the x64 build packs its
# DLLs into the MSI for SysWOW64.
cmake --preset mingw32
cmake --build --preset mingw32
cmake --preset mingw -DORVANE_I686_BIN="$(pwd)/build-i686/bin"
cmake --build --preset mingw
xvfb-run -a ctest --preset mingw -j2
