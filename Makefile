# The front door: every target runs on a fresh Debian machine, as root or with sudo.

JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60

.PHONY: all demo test bench fuzz damage tidy format format-check doc deb install clean

all: build/.configured
	cmake --build build -j $(JOBS)

build/.configured: CMakeLists.txt
	scripts/install-packages test
	cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
	@touch $@

demo:
	scripts/install-packages build
	cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DKAB_TESTS=OFF -DKAB_LINK_CHECK=OFF
	cmake --build build-demo -j $(JOBS)
	scripts/demo.sh build-demo/bin/kab

test: all
	ctest --test-dir build --output-on-failure -j $(JOBS)

bench:
	scripts/install-packages bench
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	bench/run build-bench/bin/kab_bench

fuzz:
	scripts/install-packages ci
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	scripts/fuzz build-fuzz $(FUZZ_SECONDS)

damage:
	scripts/install-packages ci
	cmake --preset asan-ubsan
	cmake --build --preset asan-ubsan -j $(JOBS) --target kab_tool kab_damage kab_faults
	scripts/damage build-asan-ubsan

tidy:
	scripts/install-packages ci
	scripts/tidy

format:
	scripts/install-packages ci
	git ls-files '*.cc' '*.h' '*.c' | xargs clang-format-14 -i

format-check:
	git ls-files '*.cc' '*.h' '*.c' | xargs clang-format-14 --dry-run -Werror

doc:
	scripts/install-packages test
	cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
	cmake --build build --target doc
	@cat build/doc/warnings.txt
	@echo "man -l build/doc/man3/libkab.3"

# Too slow for every change: builds the Debian packages, and installs and tries them in a Debian of their own.
deb:
	scripts/install-packages deb
	scripts/debian-check

install: all
	cmake --install build --prefix $(PREFIX)

clean:
	rm -rf build build-*
