# Entry points for a fresh machine:
#   make test   install dependencies, configure, build, run every test
#   make run    install dependencies, build, start Hourloom
# The test, sanitizer and benchmark builds compile in the HOURLOOM_TEST_* endpoint overrides that point the
# program at local stand-ins; the build that `make run` starts has none of them.
BUILD ?= build
RUN_BUILD ?= build-run
ASAN_BUILD ?= build-asan
BENCH_BUILD ?= build-bench
GENERATOR := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
CMAKE_ARGS ?=

.PHONY: all deps configure build test run bench asan format clean

all: build

deps:
	@scripts/install-deps.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOURLOOM_TEST_HOOKS=ON $(CMAKE_ARGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) --parallel

test: build
	scripts/run-tests.sh $(BUILD)

run: deps
	cmake -S . -B $(RUN_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOURLOOM_TEST_HOOKS=OFF \
		-DHOURLOOM_BUILD_TESTS=OFF -DHOURLOOM_BUILD_BENCHMARKS=OFF -DHOURLOOM_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(RUN_BUILD) --parallel --target hourloom
	$(RUN_BUILD)/src/app/hourloom

bench: deps
	cmake -S . -B $(BENCH_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DHOURLOOM_BUILD_TESTS=OFF -DHOURLOOM_TEST_HOOKS=ON
	cmake --build $(BENCH_BUILD) --parallel
	scripts/run-benchmarks.sh $(BENCH_BUILD)

asan: deps
	cmake -S . -B $(ASAN_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DHOURLOOM_SANITIZE=ON -DHOURLOOM_BUILD_BENCHMARKS=OFF -DHOURLOOM_TEST_HOOKS=ON
	cmake --build $(ASAN_BUILD) --parallel
	ASAN_OPTIONS=detect_leaks=0 scripts/run-tests.sh $(ASAN_BUILD)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(RUN_BUILD) $(ASAN_BUILD) $(BENCH_BUILD)
