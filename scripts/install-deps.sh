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
  # the Vulkan backend: loader headers, the shader compiler and the validation layer
  libvulkan-dev glslc spirv-tools vulkan-validationlayers
  # the vesk helpers: progress bars, labelled outputs and netCDF files
  python3-tqdm python3-xarray python3-netcdf4
  # pip install . (the packaging test builds into a fresh venv)
  python3-pip python3-venv ninja-build
)
# From bookworm-backports: scikit-build-core, the build backend of pyproject.toml.
backports=(
  python3-scikit-build-core
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

missing_of() {
  local p
  for p in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
      echo "$p"
    fi
  done
}

# ---- the bookworm-backports suite (one deb822 file), added once ----------------------
BACKPORTS_SOURCES=/etc/apt/sources.list.d/bookworm-backports.sources
add_backports_suite() {
  if [ -e "$BACKPORTS_SOURCES" ] || grep -rqs '^[^#]*bookworm-backports' /etc/apt/sources.list \
      /etc/apt/sources.list.d/; then
    return 1
  fi
  $SUDO tee "$BACKPORTS_SOURCES" >/dev/null <<'SOURCES'
Types: deb
URIs: http://deb.debian.org/debian
Suites: bookworm-backports
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SOURCES
}
# ---------------------------------------------------------------------------------------

mapfile -t missing < <(missing_of "${packages[@]}")
mapfile -t missing_backports < <(missing_of "${backports[@]}")

if [ ${#missing[@]} -gt 0 ] || [ ${#missing_backports[@]} -gt 0 ]; then
  [ ${#missing_backports[@]} -gt 0 ] && add_backports_suite || true
  $SUDO apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
# Alone in its own command: with -t bookworm-backports, cmake in the same command would
# be upgraded too (3.31 instead of Debian's 3.25).
if [ ${#missing_backports[@]} -gt 0 ]; then
  echo "installing from bookworm-backports: ${missing_backports[*]}"
  $SUDO apt-get install -y -qq --no-install-recommends -t bookworm-backports \
    "${missing_backports[@]}"
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
  add_backports_suite || true
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
