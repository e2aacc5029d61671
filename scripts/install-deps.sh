#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, and only
# those that are missing, so a prepared machine pays nothing for the check.
set -euo pipefail

packages=(
  g++ make cmake
  libembree-dev
  pybind11-dev python3-dev python3-numpy python3-pytest python3-pil python3-scipy
  libgtest-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
