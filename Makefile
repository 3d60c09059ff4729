# The two commands of README.md. Both install what is missing first.
#   make run [DIR=/some/folder]   index a folder (default: your home) and search it
#   make test                     build everything and run every test
# And for robustness work (each in a build folder of its own):
#   make sanitize                 every test built with clang, ASan and UBSan
#   make fuzz [FUZZ_SECONDS=60]   each fuzz target for a while (fuzz/run)
#   make tsan                     the concurrency tests under ThreadSanitizer
BUILD ?= build
DIR ?=
SANITIZE_BUILD ?= build-sanitize
TSAN_BUILD ?= build-tsan
FUZZ_SECONDS ?= 60
# The tests whose subject is work on several threads at once.
TSAN_TESTS ?= common_tests|service_tests|zotero_tests|fileindex_tests|fsevents_tests|service_e2e_tests|service_load_e2e_tests

.PHONY: run test build setup clean sanitize fuzz tsan

setup:
	@bash tools/setup.sh

build: setup
	@cmake -S . -B $(BUILD) -G Ninja -DQUORVI_ONLY= >/dev/null
	@cmake --build $(BUILD) -j2 -- --quiet

run: build
	@bash tools/run.sh $(BUILD) $(DIR)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j2

sanitize: setup
	@cmake -S . -B $(SANITIZE_BUILD) -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DQUORVI_FUZZ=ON >/dev/null
	@cmake --build $(SANITIZE_BUILD) -j2 -- --quiet
	@cd $(SANITIZE_BUILD) && LSAN_OPTIONS=suppressions=$(abspath tests/lsan-suppressions.txt) ctest --output-on-failure -j2

fuzz: setup
	@QUORVI_SANITIZE_BUILD=$(abspath $(SANITIZE_BUILD)) bash fuzz/run --seconds $(FUZZ_SECONDS)

tsan: setup
	@cmake -S . -B $(TSAN_BUILD) -G Ninja -DQUORVI_TSAN=ON >/dev/null
	@cmake --build $(TSAN_BUILD) -j2 --target quorvifind $(subst |, ,$(TSAN_TESTS)) -- --quiet
	@cd $(TSAN_BUILD) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(abspath tests/tsan-suppressions.txt)" ctest --output-on-failure -j2 -R '^($(TSAN_TESTS))$$'

clean:
	rm -rf $(BUILD) $(SANITIZE_BUILD) $(TSAN_BUILD)
