# Two entry points for a fresh Debian 12 machine: `make run` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: setup configure build run test bench clean

setup:
	bash scripts/setup.sh

configure: setup
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

run: build
	VELMORA_VISION_DIR=$(CURDIR)/$(BUILD)/share/velmora/vision $(BUILD)/src/app/VelmoraAddin

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 1200
	bash scripts/fuzz.sh $(BUILD)-fuzz 20

bench: build
	bash bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-fuzz
