BUILD := build/release
JOBS ?= $(shell nproc)

.PHONY: build
build:
	cmake --preset release && cmake --build $(BUILD) -j $(JOBS)
