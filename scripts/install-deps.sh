#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, and only
# those that are missing, so a prepared machine pays nothing for the check.
set -euo pipefail

packages=(
  g++ make cmake
  libembree-dev
  pybind11-dev python3-dev python3-numpy python3-pytest python3-pil python3-scipy
  python3-matplotlib
  libgtest-dev
  libvulkan-dev glslc spirv-tools vulkan-validationlayers
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

# The Vulkan tests run on lavapipe, Mesa's CPU driver, which traces ray queries from Mesa
# 24 on: Debian 12 has 22.3, so Mesa comes from bookworm-backports (a deb822 source, added
# once). Machines with a GPU driver of their own still list lavapipe, ranked last.
mesa_ok() {
  local v
  v=$(dpkg-query -W -f='${Status} ${Version}' mesa-vulkan-drivers 2>/dev/null) || return 1
  [[ $v == "install ok installed "* ]] || return 1
  dpkg --compare-versions "${v##* }" ge 24
}
if ! mesa_ok; then
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  if ! grep -rqs 'bookworm-backports' /etc/apt/sources.list /etc/apt/sources.list.d/; then
    echo "adding bookworm-backports (for Mesa's lavapipe with ray queries)"
    printf '%s\n' 'Types: deb' 'URIs: http://deb.debian.org/debian' 'Suites: bookworm-backports' \
      'Components: main' 'Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg' |
      $SUDO tee /etc/apt/sources.list.d/bookworm-backports.sources >/dev/null
  fi
  echo "installing: mesa-vulkan-drivers from bookworm-backports"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends -t bookworm-backports mesa-vulkan-drivers
fi

# Test-only: an independent LAS reader (npm's copc), kept outside the source tree. The
# LAS test skips, saying why, where node is absent.
TOOLS="${VESK_TEST_TOOLS:-/opt/vesk-test-tools}"
if command -v npm >/dev/null 2>&1 && [ ! -d "$TOOLS/node_modules/copc" ]; then
  npm install --prefix "$TOOLS" copc@0.0.8 --no-audit --no-fund --loglevel=error >/dev/null ||
    echo "note: could not install the copc LAS reader; its test will be skipped"
fi
