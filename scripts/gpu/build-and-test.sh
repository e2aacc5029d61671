#!/usr/bin/env bash
# Builds the module on a GPU machine against the folder prepare-carry.sh made, then runs
# the Vulkan suites on every trace path the first device offers and the Vulkan benchmark,
# and writes everything to one folder:
#   devices.json   list_vulkan_devices()
#   build.log      configure and build
#   tests-<path>.log  the C++ and Python Vulkan suites on that path
#   bench.jsonl    bench/bench_vulkan.py (both paths and the CPU, same run), then
#                  bench/bench_microwave_transport.py (likewise)
#   machine.txt    CPU, driver and GPU facts
#
#   bash scripts/gpu/build-and-test.sh [carried folder] [results folder]
# defaults: .gpu, and $OUT when set (the device tool's folder that comes back), else
# out/gpu. Runs here too, against the carried packages, with whatever Vulkan driver the
# machine has (lavapipe on a Debian machine).
set -uo pipefail
cd "$(dirname "$0")/../.."
carry=$(realpath "${1:-.gpu}")
results=$(realpath -m "${2:-${OUT:-out/gpu}}")
mkdir -p "$results"
root=$carry/root
lib=$root/usr/lib/x86_64-linux-gnu

if [ ! -d "$root" ]; then
  for deb in "$carry"/debs/*.deb; do dpkg -x "$deb" "$root" || exit 1; done
fi
export PATH=$root/usr/bin:$PATH
export LD_LIBRARY_PATH=$lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
nvidia_icd=/usr/local/nvidia/share/vulkan/icd.d/nvidia_icd.json
if [ -z "${VK_DRIVER_FILES:-}" ] && [ -f "$nvidia_icd" ]; then export VK_DRIVER_FILES=$nvidia_icd; fi
py=${PYTHON:-$(command -v python3)}
build=${VESK_GPU_BUILD:-build-gpu}

{
  echo "date: $(date -u)"; uname -a; nproc; "$py" --version
  command -v nvidia-smi >/dev/null && nvidia-smi
  grep -m1 "model name" /proc/cpuinfo
} >"$results/machine.txt" 2>&1

# The carried packages come first in every search; the machine's interpreter and its
# pybind11 build the module.
pybind11_dir=$("$py" -m pybind11 --cmakedir 2>/dev/null || echo "$root/usr/share/cmake/pybind11")
{
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$root/usr" \
    -DPython3_EXECUTABLE="$py" -DPYBIND11_PYTHON_VERSION="$("$py" -c 'import sys; print("%d.%d" % sys.version_info[:2])')" \
    -Dpybind11_DIR="$pybind11_dir" -DVulkan_INCLUDE_DIR="$root/usr/include" \
    -DVulkan_LIBRARY="$lib/libvulkan.so.1" -DGLSLC="$root/usr/bin/glslc" &&
    cmake --build "$build" -j "$(nproc)" --target vesk_gpu vesk_tests
} >"$results/build.log" 2>&1 || { echo "build failed: $results/build.log"; tail -30 "$results/build.log"; exit 1; }
grep -E "embree_DIR|TBB_DIR|Vulkan_INCLUDE_DIR:|GLSLC:" "$build/CMakeCache.txt" >>"$results/build.log"

export PYTHONPATH=$PWD/$build/python
"$py" -c 'import json, vesk_gpu as vk; print(json.dumps(vk.list_vulkan_devices(), indent=1))' \
  >"$results/devices.json" 2>&1
status=0
for path in query pipeline; do
  has=$("$py" -c "import vesk_gpu as vk; d=[d for d in vk.list_vulkan_devices() if d['compatible']]; print(int(bool(d) and d[0]['has_ray_$([ $path = query ] && echo query || echo tracing_pipeline)']))")
  if [ "$has" != 1 ]; then echo "no $path path on this device" >"$results/tests-$path.log"; continue; fi
  {
    VESK_VULKAN_TRACE=$path "$build/vesk_tests" --gtest_brief=1 --gtest_filter='Vulkan*'
    VESK_VULKAN_TRACE=$path "$py" -m pytest -q -p no:cacheprovider tests/python/test_vulkan*.py
  } >"$results/tests-$path.log" 2>&1 || status=1
  tail -1 "$results/tests-$path.log"
done
(cd bench && "$py" bench_vulkan.py --build "../$build" "${@:3}") >"$results/bench.jsonl" 2>&1 || status=1
(cd bench && "$py" bench_microwave_transport.py --build "../$build") >>"$results/bench.jsonl" 2>&1 || status=1
cat "$results/bench.jsonl"
exit $status
