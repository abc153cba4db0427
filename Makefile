# Thin wrapper over CMake/CTest. `make test` is what CI runs.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD_TYPE ?= RelWithDebInfo

export ASAN_OPTIONS ?= detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS ?= print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS ?= halt_on_error=1:second_deadlock_stack=1

.PHONY: all deps build demo test test-plain test-asan test-tsan valgrind bench clean

all: build

deps:
	scripts/install-deps

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build build -j$(JOBS)

# Two emulated devices on this machine: a registrar and an enrollee that
# clones its 2.4 GHz and 5 GHz settings. Needs root (network namespaces).
demo: build
	scripts/install-deps capture
	tools/demo.sh build

# The whole suite twice: a plain build (with the memcheck run of a clone),
# then AddressSanitizer + UndefinedBehaviorSanitizer in a build directory of
# its own; then the threaded and the end-to-end tests once more under
# ThreadSanitizer, which so watches the real daemon's tasks during clones.
test: deps
	scripts/install-deps valgrind
	$(MAKE) test-plain
	$(MAKE) test-asan
	$(MAKE) test-tsan

test-plain:
	cmake -S . -B build -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build build -j$(JOBS)
	cd build && ctest --output-on-failure -j$(JOBS)

test-asan:
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKESTR_SANITIZE=address,undefined
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ctest --output-on-failure -j$(JOBS)

test-tsan:
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DKESTR_SANITIZE=thread
	cmake --build build-tsan -j$(JOBS)
	cd build-tsan && ctest --output-on-failure -j$(JOBS) -L 'threads|e2e'

# Both roles under Valgrind's memcheck through real clones (also part of
# test-plain).
valgrind: deps
	scripts/install-deps valgrind
	cmake -S . -B build -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build build -j$(JOBS)
	cd build && ctest --output-on-failure -L valgrind

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKESTR_BUILD_TESTS=OFF -DKESTR_BUILD_BENCH=ON
	cmake --build build-bench -j$(JOBS)
	@for b in build-bench/bin/bench_*; do [ -x "$$b" ] && "$$b" || exit 1; done

clean:
	rm -rf build build-asan build-tsan build-bench
