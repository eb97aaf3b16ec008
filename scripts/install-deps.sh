#!/usr/bin/env bash
# Installs the Debian packages given as arguments (or the build set) when any is missing.
set -euo pipefail
packages=("$@")
if [ ${#packages[@]} -eq 0 ]; then
  packages=(cmake ninja-build g++ libgtest-dev libbenchmark-dev libboost-dev)
fi
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -ne 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
