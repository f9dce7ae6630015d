#!/usr/bin/env bash
# Installs, with apt-get, whatever the build and the tests need and this
# machine lacks (Debian 12). Safe to run again: installs nothing twice.
set -euo pipefail

packages=(cmake ninja-build mingw-w64 g++-mingw-w64-x86-64-posix wine wine64 msitools wixl googletest openssl clang-tidy clang-format osslsigncode)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q "${missing[@]}" >/dev/null
