#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, and only
# those that are missing, so a prepared machine pays nothing for the check.
set -euo pipefail

packages=(
  g++ make cmake
  libembree-dev
  pybind11-dev python3-dev python3-numpy python3-pytest python3-pil python3-scipy
  python3-matplotlib
  python3-distributed python3-tqdm
  libgtest-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Test-only: an independent LAS reader (npm's copc), kept outside the source tree. The
# LAS test skips, saying why, where node is absent.
TOOLS="${VESK_TEST_TOOLS:-/opt/vesk-test-tools}"
if command -v npm >/dev/null 2>&1 && [ ! -d "$TOOLS/node_modules/copc" ]; then
  npm install --prefix "$TOOLS" copc@0.0.8 --no-audit --no-fund --loglevel=error >/dev/null ||
    echo "note: could not install the copc LAS reader; its test will be skipped"
fi
