# The two commands of the README are the contract: `make demo` and `make test`.
PY      := /usr/bin/python3
BUILD   := build
JOBS    ?= $(shell nproc)
PYPATH  := PYTHONPATH=$(CURDIR)/$(BUILD)/python
# Vulkan runs of the test suites: the Khronos validation layer on, its messages counted
# (a test fails on any), and Mesa's compiled shaders cached inside the build folder.
VK_TEST := VESK_VULKAN_VALIDATION=1 MESA_SHADER_CACHE_DIR=$(CURDIR)/$(BUILD)/mesa-shader-cache

# ASan + UBSan build of the module and the C++ suite. The interpreter is not instrumented,
# so libasan must come first (preloaded, with libstdc++ for its exception hooks), and
# Python's own allocations that live until exit are not leaks worth reporting.
SAN_BUILD := build-sanitize
SAN_ASAN  := halt_on_error=1:abort_on_error=1
SAN_UBSAN := UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
SAN_PY    := LD_PRELOAD="$(shell g++ -print-file-name=libasan.so) $(shell g++ -print-file-name=libstdc++.so)" \
             PYTHONPATH=$(CURDIR)/$(SAN_BUILD)/python

.PHONY: deps configure build test build-sanitize test-sanitize demo bench clean

deps:
	@bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# The Vulkan suite runs twice: on the ray-query path (lavapipe's default), then forced
# onto the ray-tracing pipeline path that GPUs without ray queries take.
VK_PIPELINE := VESK_VULKAN_TRACE=pipeline
VK_SUITE    := tests/python/test_vulkan.py tests/python/test_vulkan_microwave.py \
               tests/python/test_vulkan_photons.py \
               tests/python/test_vulkan_transport.py \
               tests/python/test_vulkan_media.py

test: build
	$(VK_TEST) $(BUILD)/vesk_tests --gtest_brief=1
	$(VK_TEST) $(VK_PIPELINE) $(BUILD)/vesk_tests --gtest_brief=1 --gtest_filter='Vulkan*'
	$(VK_TEST) $(VK_PIPELINE) $(PYPATH) $(PY) -m pytest -q $(VK_SUITE)
	$(VK_TEST) $(PYPATH) $(PY) -m pytest -q tests/python

$(SAN_BUILD)/CMakeCache.txt:
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Release -DVESK_SANITIZE=ON

build-sanitize: deps $(SAN_BUILD)/CMakeCache.txt
	cmake --build $(SAN_BUILD) -j $(JOBS) --target vesk_gpu vesk_tests vesk_python

test-sanitize: build-sanitize
	$(VK_TEST) ASAN_OPTIONS=detect_leaks=1:$(SAN_ASAN) $(SAN_UBSAN) $(SAN_BUILD)/vesk_tests --gtest_brief=1
	$(VK_TEST) $(VK_PIPELINE) ASAN_OPTIONS=detect_leaks=1:$(SAN_ASAN) $(SAN_UBSAN) $(SAN_BUILD)/vesk_tests --gtest_brief=1 --gtest_filter='Vulkan*'
	$(VK_TEST) $(VK_PIPELINE) ASAN_OPTIONS=detect_leaks=0:$(SAN_ASAN) $(SAN_UBSAN) $(SAN_PY) $(PY) -m pytest -q $(VK_SUITE)
	$(VK_TEST) ASAN_OPTIONS=detect_leaks=0:$(SAN_ASAN) $(SAN_UBSAN) $(SAN_PY) $(PY) -m pytest -q tests/python

demo: build
	$(PYPATH) $(PY) examples/quickstart.py

bench: configure
	cmake --build $(BUILD) -j $(JOBS) --target bench
	@for b in bench/bench_*.py; do $(PYPATH) $(PY) $$b --build $(BUILD) || exit 1; done

clean:
	rm -rf $(BUILD) $(SAN_BUILD) build-pip out
