# The two commands of the README are the contract: `make demo` and `make test`.
PY      := /usr/bin/python3
BUILD   := build
JOBS    ?= $(shell nproc)
PYPATH  := PYTHONPATH=$(CURDIR)/$(BUILD)/python

.PHONY: deps configure build test demo bench clean

deps:
	@bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	$(BUILD)/vesk_tests --gtest_brief=1
	$(PYPATH) $(PY) -m pytest -q tests/python

demo: build
	$(PYPATH) $(PY) examples/quickstart.py

bench: configure
	cmake --build $(BUILD) -j $(JOBS) --target bench
	@for b in bench/bench_*.py; do $(PYPATH) $(PY) $$b --build $(BUILD) || exit 1; done

clean:
	rm -rf $(BUILD) out
