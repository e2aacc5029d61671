#!/usr/bin/env bash
# Prepares, on a Debian 12 machine, the folder that travels to a GPU machine whose image
# has Python, NumPy, pybind11, CMake, a C++ compiler and a Vulkan driver, but no Embree,
# no Vulkan loader or headers, no glslc and no package registry: Debian's own packages
# of those, as .deb files (unpacked there by build-and-test.sh, into the folder, never
# into /). The folder is git-ignored; name it in what travels with the working tree.
#
#   bash scripts/gpu/prepare-carry.sh [folder]      # default: .gpu
set -euo pipefail
cd "$(dirname "$0")/../.."
dest=${1:-.gpu}
# Runtime and build-time packages, with the libraries they load (glslc needs libshaderc).
packages=(libvulkan1 libvulkan-dev libembree3-3 libembree-dev libtbb12 libtbbmalloc2
          libtbbbind-2-5 libtbb-dev glslc libshaderc1 libgtest-dev pybind11-dev)

rm -rf "$dest/debs"
mkdir -p "$dest/debs"
if ! (cd "$dest/debs" && apt-get download "${packages[@]}" >/dev/null 2>&1); then
  apt-get update >/dev/null
  (cd "$dest/debs" && apt-get download "${packages[@]}" >/dev/null)
fi
# A list of what was carried, with versions, for the report.
(cd "$dest/debs" && ls -1 *.deb) >"$dest/manifest.txt"
echo "prepared $dest: $(ls "$dest/debs" | wc -l) packages, $(du -sh "$dest/debs" | cut -f1)"
