# Each target installs what it needs, builds, and does its work.
#
#   make run [FILE=some.flv]        the main job, on the shipped sample or on a file of yours
#   make serve [DIR=folder]         a streaming server with a page, on http://127.0.0.1:8080/; DIR: the sample's
#             [LISTEN=127.0.0.1:0] [SERVE_ARGS=--allow-publish]
#   make test [PRESET=asan]         the tests; PRESET: release (default), debug, asan, tsan, clang;
#             [ROOMS="util engine"] of these folders of tests/ alone
#   make soak [SOAK_SECONDS=120] [PRESET=tsan]   everything at once for a while, each program in turn
#   make scaling [SCALING_SECONDS=60]   a recording on GlusterFS whose copies are killed; as root
#   make bench, bench-flvhost, bench-serve, fuzz [FUZZ_SECONDS=30], interop, tidy, format, install [PREFIX=/usr/local] [DESTDIR=],
#             package, clean
#   make coverage                   the lines that neither tests nor the replays of the fuzzers reach
#   make mutants [SEED=1] [MUTANTS=100] [ROOMS="engine util"]   what the tests notice of small changes to the product

FILE ?= samples/testcard.flv
DIR ?= samples
LISTEN ?= 127.0.0.1:8080
SERVE_ARGS ?=
PLAYER_VERSION = 1.8.0
PLAYER = build/player/package/dist/mpegts.js
PRESET ?= release
PREFIX ?= /usr/local
DESTDIR ?=
FUZZ_SECONDS ?= 30
SOAK_SECONDS ?= 120
SCALING_SECONDS ?= 60
BENCH_ARGS ?=
INTEROP ?=
ROOMS ?=
SEED ?= 1
MUTANTS ?= 100
JOBS ?= $(shell nproc)

SOURCES = git ls-files -z '*.h' '*.cpp'

.PHONY: run serve build test soak interop bench bench-flvhost bench-serve scaling fuzz mutants format check-format tidy install package clean

run: build
	build/release/host/flvhost demo "$(FILE)"

# The page's player isn't part of the project: npm brings it.
serve: build
	command -v npm >/dev/null || scripts/setup.sh player
	[ -f $(PLAYER) ] || (mkdir -p build/player && cd build/player && npm pack --silent mpegts.js@$(PLAYER_VERSION) && \
	  tar -xzf mpegts.js-$(PLAYER_VERSION).tgz package/dist/mpegts.js)
	build/release/host/flvhost serve "$(DIR)" --listen "$(LISTEN)" --player $(PLAYER) $(SERVE_ARGS)

build:
	scripts/setup.sh build
	cmake --preset release
	cmake --build build/release -j $(JOBS) --target flvadaptor flvhost flvhost_manual

test:
	scripts/setup.sh build test $(if $(filter clang,$(PRESET)),bench clang) $(if $(INTEROP),interop)
	cmake --preset $(PRESET) -DBUILD_TESTING=ON -DFLV_INTEROP=$(if $(INTEROP),ON,OFF)
	cmake --build build/$(PRESET) -j $(JOBS) $(if $(ROOMS),--target $(addsuffix _tests,$(ROOMS)))
	ctest --test-dir build/$(PRESET) -j $(JOBS) --output-on-failure --no-tests=error \
	  $(if $(ROOMS),-E '_NOT_BUILT|^package\.|^fuzz\.|^soak\.')

soak:
	scripts/setup.sh build test
	cmake --preset $(PRESET) -DBUILD_TESTING=ON
	cmake --build build/$(PRESET) -j $(JOBS) --target soaks
	for program in build/$(PRESET)/tests/soak/*_soak; do $$program $(SOAK_SECONDS) || exit 1; done

# What we write, read by tools that know nothing of us.
interop:
	scripts/setup.sh build test interop
	command -v npm >/dev/null || scripts/setup.sh player
	cmake --preset release -DBUILD_TESTING=ON -DFLV_INTEROP=ON
	cmake --build build/release -j $(JOBS)
	ctest --test-dir build/release -L interop --output-on-failure --no-tests=error

bench:
	scripts/setup.sh build bench
	cmake --preset release -DFLV_BENCH=ON
	cmake --build build/release -j $(JOBS) --target benchmarks
	for program in build/release/bench/*_bench; do $$program $(BENCH_ARGS) || exit 1; done

# flvhost as a whole beside other tools, on a file of 1 GiB.
bench-flvhost: build
	scripts/setup.sh interop
	bench/flvhost.sh

# The server beside nginx, with viewers on loopback whose bytes are checked.
bench-serve: build
	scripts/setup.sh bench nginx
	cmake --preset release -DFLV_BENCH=ON
	cmake --build build/release -j $(JOBS) --target serve_load
	build/release/bench/serve_load build/release/host/flvhost

# A recorder and its followers on a file system of several copies that die and come back.
scaling: build
	scripts/setup.sh scaling
	bench/scaling.sh build/release/host/flvhost $(SCALING_SECONDS)

fuzz:
	scripts/setup.sh build clang
	cmake --preset fuzz
	cmake --build build/fuzz -j $(JOBS) --target fuzzers
	cd build/fuzz/fuzz && for program in *_fuzz; do \
	  ./$$program -max_total_time=$(FUZZ_SECONDS) -timeout=10 corpus/$${program%_fuzz} || exit 1; done

coverage:
	scripts/setup.sh build test coverage
	scripts/coverage.sh $(JOBS)

mutants:
	scripts/setup.sh build test mutants
	scripts/mutants.py --seed $(SEED) --count $(MUTANTS) --rooms "$(ROOMS)" --jobs $(JOBS)

format:
	scripts/setup.sh lint
	$(SOURCES) | xargs -0 clang-format -i

check-format:
	scripts/setup.sh lint
	$(SOURCES) | xargs -0 clang-format --dry-run -Werror

tidy:
	scripts/setup.sh build test bench clang lint
	cmake --preset clang
	run-clang-tidy -quiet -p build/clang -j $(JOBS) '^$(CURDIR)/(src|host|tests|bench|fuzz)/'

install: build
	DESTDIR="$(DESTDIR)" cmake --install build/release --prefix "$(PREFIX)"

# Debian packages of the module, the headers and flvhost, in build/package/packages: built, looked over, and used as
# a host writer would.
package:
	scripts/setup.sh build package
	cmake --preset package
	cmake --build build/package -j $(JOBS) --target flvadaptor flvhost flvhost_manual
	rm -rf build/package/packages
	cpack --config build/package/CPackConfig.cmake
	lintian --allow-root --fail-on error,warning build/package/packages/*.deb
	tests/package/install.sh . build/package build/package/packages

clean:
	rm -rf build
