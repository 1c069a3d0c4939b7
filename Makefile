# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
#
#   make demo    build everything and register two views of the sample scan
#   make test    install what is missing, build, run every test (plain and sanitized)
#   make bench   build and run the benchmarks
SHELL := /bin/bash
JOBS ?= 2
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

# Debian packages the build, the tests and the tools need.
PACKAGES := build-essential cmake pkg-config libeigen3-dev googletest libgtest-dev libgmock-dev \
            liblzf-dev libtiff-dev libtinyobjloader-dev nlohmann-json3-dev libceres-dev python3-distributed \
            libbenchmark-dev libcli11-dev libpng-dev python3 python3-numpy python3-pytest python3-pip \
            python3-setuptools python3-wheel clang clang-format libomp-dev libclang-rt-dev valgrind

.PHONY: need-data deps build check test test-release test-sanitize test-thread demo bench clean

deps:
	@missing=$$(for p in $(PACKAGES); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | \
	  grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

build: deps
	cmake --preset release
	cmake --build --preset release

# The edit-build-test loop: one release build, every suite but the slow memory check (about a
# minute once built). `make test` stays the full gate.
check: deps
	cmake --preset release
	cmake --build --preset release
	ctest --preset release -j $(JOBS) -LE valgrind

test: deps
	$(MAKE) test-release
	$(MAKE) test-sanitize
	$(MAKE) test-thread

test-release:
	cmake --workflow --preset test

test-sanitize:
	cmake --workflow --preset sanitize

test-thread:
	cmake --workflow --preset thread

demo: deps
	cmake --preset release
	cmake --build --preset release --target qorv_cli
	./build/tools/qorv demo --data data/sample/dragon_res3.asc --snapshot build/demo/snapshot.png --threads 2

# The benchmarks read the development scans from DATA (a folder holding dragon_res2.asc, bunny.asc,
# rgbd/ and laser/), given on the command line: make bench DATA=../shared/data
need-data:
	@[ -n "$(DATA)" ] && [ -f "$(DATA)/dragon_res2.asc" ] || \
	  { echo "Give the development scans' folder: make $(MAKECMDGOALS) DATA=<folder holding dragon_res2.asc>"; exit 2; }

bench: deps need-data
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQORV_BUILD_BENCH=ON -DQORV_BUILD_TESTS=OFF \
	  -DQORV_BENCH_DATA_DIR=$(abspath $(DATA))
	cmake --build build-bench -j $(JOBS)
	@for b in build-bench/bench/qorv_bench_*; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf build build-sanitize build-thread build-bench build-fuzz

# libFuzzer targets, built with clang; each runs for FUZZ_SECONDS.
FUZZ_SECONDS ?= 60
.PHONY: fuzz
fuzz: deps
	@command -v clang++ >/dev/null || $(SUDO) apt-get install -y -qq clang libclang-rt-dev
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQORV_BUILD_FUZZ=ON -DQORV_BUILD_TESTS=OFF -DQORV_BUILD_TOOLS=OFF
	cmake --build build-fuzz -j $(JOBS)
	@for f in build-fuzz/fuzz/qorv_fuzz_*; do \
	  name=$$(basename $$f); mkdir -p build-fuzz/corpus/$$name; \
	  echo "== $$name ($(FUZZ_SECONDS) s)"; \
	  $$f -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 build-fuzz/corpus/$$name fuzz/corpus/$$name || exit 1; \
	done

# Side-by-side timing against PCL and Open3D from Debian (bench/peers, a project of its own):
# prints one table and writes build-peers/peers_table.md. Takes about a quarter of an hour.
PEER_PACKAGES := libpcl-dev libopen3d-dev
.PHONY: bench-peers
bench-peers: deps need-data
	@missing=$$(for p in $(PEER_PACKAGES); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | \
	  grep -q 'install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi
	PEERS_DATA=$(DATA) PEERS_BUILD_DIR=$(CURDIR)/build-peers bench/peers/run_peers.sh

# Registration benchmark: the engine against Open3D (Debian's python3-open3d) on real depth frames,
# the laser pair and generated views of the sample scans, at 1 and 2 threads. Needs the shared
# development scans in DATA. Writes build/registration-bench/.
SPLIT ?= all
.PHONY: bench-registration need-open3d
# Open3D (the peer, and the reader of the 16-bit depth frames) and the two libraries the Python
# benchmarks load.
need-open3d:
	@dpkg-query -W -f='$${Status}\n' python3-open3d 2>/dev/null | grep -q 'install ok installed' || \
	  (echo "Installing: python3-open3d" && $(SUDO) apt-get update -qq && \
	   DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends python3-open3d)
	cmake --preset release
	cmake --build --preset release --target qorv qorv_engine_lib

bench-registration: deps need-data need-open3d
	QORV_LIBRARY=$(CURDIR)/build/libqorv.so QORV_ENGINE_LIBRARY=$(CURDIR)/build/libqorv_engine.so \
	  /usr/bin/python3 bench/registration/run.py --data $(DATA) --split $(SPLIT)

# Local refinement: the engine's local mode against Open3D's point-to-plane ICP and PCL's
# point-to-plane ICP and generalized ICP (Debian packages), same clouds and starts, 1 and 2 threads.
.PHONY: bench-local
bench-local: deps need-data need-open3d
	@dpkg-query -W -f='$${Status}\n' libpcl-dev 2>/dev/null | grep -q 'install ok installed' || \
	  ($(SUDO) apt-get update -qq && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq \
	   --no-install-recommends libpcl-dev libopen3d-dev)
	cmake -S bench/peers -B build-peers -DCMAKE_BUILD_TYPE=Release -DQORV_PEERS_DATA_DIR=$(abspath $(DATA)) > /dev/null
	cmake --build build-peers --target qorv_pcl_local -j1
	QORV_LIBRARY=$(CURDIR)/build/libqorv.so QORV_ENGINE_LIBRARY=$(CURDIR)/build/libqorv_engine.so \
	  /usr/bin/python3 bench/registration/local_bench.py --data $(DATA) --pcl build-peers/qorv_pcl_local

# Many-scans benchmark: qorv.multiway on collections in order, shuffled and with strangers mixed in,
# at 1 and 2 threads, against every pair registered one by one. Needs DATA like bench-registration.
.PHONY: bench-multiway
bench-multiway: deps need-data need-open3d
	QORV_LIBRARY=$(CURDIR)/build/libqorv.so QORV_ENGINE_LIBRARY=$(CURDIR)/build/libqorv_engine.so \
	  /usr/bin/python3 bench/registration/multiway_bench.py --data $(DATA)
