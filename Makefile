# The two commands of README.md. Both install what is missing first.
#   make run [DIR=/some/folder]   index a folder (default: your home) and search it
#   make test                     build everything and run every test
BUILD ?= build
DIR ?=

.PHONY: run test build setup clean

setup:
	@bash tools/setup.sh

build: setup
	@cmake -S . -B $(BUILD) -G Ninja -DQUORVI_ONLY= >/dev/null
	@cmake --build $(BUILD) -j2 -- --quiet

run: build
	@bash tools/run.sh $(BUILD) $(DIR)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j2

clean:
	rm -rf $(BUILD)
