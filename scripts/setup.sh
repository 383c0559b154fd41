#!/bin/sh
# Installs what a fresh Debian 12 machine lacks for building and testing. Safe to run again:
# it installs only missing packages and runs apt-get update only when something is missing.
set -eu

packages="cmake ninja-build g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
          g++-mingw-w64-i686-posix gcc-mingw-w64-i686-posix binutils-mingw-w64-i686
          libgcrypt-mingw-w64-dev nlohmann-json3-dev googletest wine wine64 xvfb xauth openssl
          clang libclang-rt-14-dev llvm python3
          wixl msitools osslsigncode"

missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing="$missing $package"
done

if [ -n "$missing" ]; then
    echo "Installing:$missing"
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -q
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -q --no-install-recommends $missing
fi
echo "Build and test tools are installed."
