# Thin wrapper over CMake/CTest. `make test` is what CI runs.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD_TYPE ?= RelWithDebInfo

export ASAN_OPTIONS ?= detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS ?= print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS ?= halt_on_error=1:second_deadlock_stack=1

# Fuzzing: seconds per target for `make fuzz`, and for the short run of
# every target that `make test` ends with.
FUZZ_SECONDS ?= 60
FUZZ_CI_SECONDS ?= 15

# Cross builds with Debian's cross compilers and the target's libraries
# through multiarch (scripts/install-deps TARGET). `make test` runs the tests
# of a big-endian target and of a little-endian 32-bit MIPS, as most access
# points have, under qemu-user; `make test-cross` those of every target.
CROSS_TARGETS := armhf arm64 mipsel s390x
TEST_CROSS_TARGETS ?= s390x mipsel
CROSS_TOOLCHAIN := $(CURDIR)/cmake/debian-cross.cmake
# Targets are tested as the firmware build makes them: size-optimised, and
# without debug information, which would double their compile time.
CROSS_BUILD_TYPE ?= MinSizeRel

.PHONY: all deps build demo test test-plain test-asan test-tsan test-bigendian test-cross cross \
	package bench bench-system size install clean fuzz fuzz-build fuzz-ci

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

# First the size of the tests against the code (scripts/test-size), then
# the whole suite twice: a plain build, then AddressSanitizer +
# UndefinedBehaviorSanitizer in a build directory of its own; then the
# threaded and the end-to-end tests once more under ThreadSanitizer, which
# so watches the real daemon's tasks during clones;
# then the cross builds of TEST_CROSS_TARGETS under an emulator, each also
# cloning with this machine's build; last, every fuzz target for a short,
# bounded time.
test: deps
	scripts/test-size
	$(MAKE) test-plain
	$(MAKE) test-asan
	$(MAKE) test-tsan
	$(MAKE) $(addprefix test-cross-,$(TEST_CROSS_TARGETS))
	$(MAKE) fuzz-ci

test-plain:
	cmake -S . -B build -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build build -j$(JOBS)
	cd build && ctest --output-on-failure -j$(JOBS)

test-asan:
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKESTR_SANITIZE=address,undefined
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ctest --output-on-failure -j$(JOBS)

# Only what the threaded and end-to-end tests run is built here.
TSAN_TARGETS := request_list_tests receive_tests os_tests kestrd xmldbd xmldbc kestr_test_peer

test-tsan:
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DKESTR_SANITIZE=thread
	cmake --build build-tsan -j$(JOBS) --target $(TSAN_TARGETS)
	cd build-tsan && ctest --output-on-failure -j$(JOBS) -L 'threads|e2e'

# One target's build with its tests, run under qemu-user in build-TARGET/.
# Tests that build namespaces or start helper programs skip themselves
# (KESTR_TEST_NO_NAMESPACES); instead the target's kestrd clones both bands
# with this machine's on emulated devices, both ways round (the cross rows
# of tests/e2e/scenarios.sh).
test-cross-%: build
	scripts/install-deps $*
	cmake -S . -B build-$* -DCMAKE_BUILD_TYPE=$(CROSS_BUILD_TYPE) -DCMAKE_TOOLCHAIN_FILE=$(CROSS_TOOLCHAIN) \
	  -DKESTR_TARGET=$* -DKESTR_HOST_BIN_DIR=$(CURDIR)/build/bin
	cmake --build build-$* -j$(JOBS)
	cd build-$* && KESTR_TEST_NO_NAMESPACES=1 ctest --output-on-failure -j$(JOBS) -LE e2e

test-cross: $(addprefix test-cross-,$(CROSS_TARGETS))
test-bigendian: test-cross-s390x

# A firmware build for TARGET: size-optimised, no tests, staged with
# `cmake --install` into build-cross-TARGET/stage as a root file system
# takes it (kestrd, its manual page, the registrar's init script), then its
# flash cost. Installs nothing: a missing package stops it with the command
# that installs it.
cross:
	$(if $(filter-out 1,$(words $(TARGET)))$(filter-out $(CROSS_TARGETS),$(TARGET)),$(error \
	  TARGET='$(TARGET)': make cross TARGET=armhf|arm64|mipsel|s390x))
	$(if $(shell scripts/install-deps --check $(TARGET) 2>&1),$(error make cross: \
	  $(shell scripts/install-deps --check $(TARGET) 2>&1)))
	rm -rf build-cross-$(TARGET)/stage
	cmake -S . -B build-cross-$(TARGET) -DCMAKE_TOOLCHAIN_FILE=$(CROSS_TOOLCHAIN) -DKESTR_TARGET=$(TARGET) \
	  -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INSTALL_PREFIX=/usr -DKESTR_BUILD_TESTS=OFF \
	  -DKESTR_INSTALL_XMLDB=OFF -DKESTR_INSTALL_SYSTEMD_UNIT=OFF
	cmake --build build-cross-$(TARGET) -j$(JOBS)
	DESTDIR=$(CURDIR)/build-cross-$(TARGET)/stage cmake --install build-cross-$(TARGET) --strip
	@cd build-cross-$(TARGET)/stage && find . -type f | sort
	scripts/size-report build-cross-$(TARGET)

# libFuzzer targets (clang, ASan + UBSan) in build-fuzz/, each run for
# FUZZ_SECONDS in namespaces of its own, seeding its corpus from the
# product's builders; see fuzz/run.sh.
fuzz-build: deps
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
		-DCMAKE_CXX_COMPILER=clang++ -DKESTR_FUZZ=ON -DKESTR_BUILD_TESTS=OFF
	cmake --build build-fuzz -j$(JOBS) --target fuzzers

fuzz: fuzz-build
	fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

fuzz-ci: fuzz-build
	fuzz/run.sh build-fuzz $(FUZZ_CI_SECONDS)

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKESTR_BUILD_TESTS=OFF -DKESTR_BUILD_BENCH=ON
	cmake --build build-bench -j$(JOBS)
	@for b in build-bench/bin/bench_*; do [ -x "$$b" ] && "$$b" || exit 1; done

# kestrd on emulated devices, measured from outside; see bench/system.sh.
# BENCH_BIN=DIR measures the kestrd in DIR instead of this tree's;
# BENCH_BEFORE=DIR adds a column for another build's kestrd, measured in the
# same run; BENCH_QUICK=1 makes fewer runs. Needs root.
bench-system: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKESTR_BUILD_TESTS=OFF -DKESTR_BUILD_BENCH=ON
	cmake --build build-bench -j$(JOBS) --target kestrd xmldbd xmldbc kestr_bench_system
	bench/system.sh $(if $(BENCH_QUICK),--quick) build-bench/bin \
	  $(if $(BENCH_BEFORE),before=$(BENCH_BEFORE)) current=$(or $(BENCH_BIN),build-bench/bin)

# The Debian package of the native build: build/package/kestrd_VERSION_ARCH.deb.
package: build
	cd build && cpack -G DEB -B $(CURDIR)/build/package

# Stripped size of kestrd and of the shared libraries it needs, from a
# size-optimised native build without tests, beside every target that
# `make cross` has built.
size: deps
	cmake -S . -B build-size -DCMAKE_BUILD_TYPE=MinSizeRel -DKESTR_BUILD_TESTS=OFF -DKESTR_INSTALL_XMLDB=OFF
	cmake --build build-size -j$(JOBS) --target kestrd
	scripts/size-report build-size $(wildcard $(addprefix build-cross-,$(CROSS_TARGETS)))

# Installs into DESTDIR (a staging directory) under PREFIX.
PREFIX ?= /usr/local
install: build
	DESTDIR=$(DESTDIR) cmake --install build --prefix $(PREFIX)

clean:
	rm -rf build build-asan build-tsan build-bench build-size build-fuzz \
	  $(addprefix build-,$(CROSS_TARGETS)) $(addprefix build-cross-,$(CROSS_TARGETS))
