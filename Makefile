# Each target installs what it needs, builds, and does its work.
#
#   make run [FILE=some.flv]        the main job, on the shipped sample or on a file of yours
#   make test [PRESET=asan]         the tests; PRESET: release (default), debug, asan, tsan, clang;
#             [ROOMS="util engine"] of these folders of tests/ alone
#   make bench, fuzz [FUZZ_SECONDS=30], interop, tidy, format, install [PREFIX=/usr/local] [DESTDIR=], clean

FILE ?= samples/testcard.flv
PRESET ?= release
PREFIX ?= /usr/local
DESTDIR ?=
FUZZ_SECONDS ?= 30
BENCH_ARGS ?=
INTEROP ?=
ROOMS ?=
JOBS ?= $(shell nproc)

SOURCES = git ls-files -z '*.h' '*.cpp'

.PHONY: run build test interop bench fuzz format check-format tidy install clean

run: build
	build/release/host/flvhost demo "$(FILE)"

build:
	scripts/setup.sh build
	cmake --preset release
	cmake --build build/release -j $(JOBS) --target flvadaptor flvhost

test:
	scripts/setup.sh build test $(if $(filter clang,$(PRESET)),bench clang) $(if $(INTEROP),interop)
	cmake --preset $(PRESET) -DBUILD_TESTING=ON -DFLV_INTEROP=$(if $(INTEROP),ON,OFF)
	cmake --build build/$(PRESET) -j $(JOBS) $(if $(ROOMS),--target $(addsuffix _tests,$(ROOMS)))
	ctest --test-dir build/$(PRESET) -j $(JOBS) --output-on-failure --no-tests=error \
	  $(if $(ROOMS),-E '_NOT_BUILT|^package\.|^fuzz\.')

# What we write, read by tools that know nothing of us.
interop:
	scripts/setup.sh build test interop
	cmake --preset release -DBUILD_TESTING=ON -DFLV_INTEROP=ON
	cmake --build build/release -j $(JOBS)
	ctest --test-dir build/release -L interop --output-on-failure --no-tests=error

bench:
	scripts/setup.sh build bench
	cmake --preset release -DFLV_BENCH=ON
	cmake --build build/release -j $(JOBS) --target benchmarks
	for program in build/release/bench/*_bench; do $$program $(BENCH_ARGS) || exit 1; done

fuzz:
	scripts/setup.sh build clang
	cmake --preset fuzz
	cmake --build build/fuzz -j $(JOBS) --target fuzzers
	cd build/fuzz/fuzz && for program in *_fuzz; do \
	  ./$$program -max_total_time=$(FUZZ_SECONDS) -timeout=10 corpus/$${program%_fuzz} || exit 1; done

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

clean:
	rm -rf build
