# Entry points for a fresh machine:
#   make demo   install dependencies, build, start Hourloom against a simulated tracker and a local Jira
#   make test   install dependencies, configure, build, run every test
#   make run    install dependencies, build, start Hourloom
#   make package  build the Debian package (Release, test hooks off) into $(PACKAGE_BUILD)
# The test, sanitizer and benchmark builds compile in the HOURLOOM_TEST_* endpoint overrides that point the
# program at local stand-ins; the build that `make run` starts has none of them.
BUILD ?= build
RUN_BUILD ?= build-run
ASAN_BUILD ?= build-asan
BENCH_BUILD ?= build-bench
PACKAGE_BUILD ?= build-package
GENERATOR := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
CMAKE_ARGS ?=

.PHONY: all deps configure build test run bench bench-app bench-window asan format clean package package-check demo demo-snapshots

all: build

deps:
	@scripts/install-deps.sh

# The development build compiles in the HOURLOOM_TEST_* endpoint overrides that the tests and the demo use.
$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOURLOOM_TEST_HOOKS=ON $(CMAKE_ARGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) --parallel

test: build
	scripts/run-tests.sh $(BUILD)

# The program as users get it: no test hooks, only the application built.
run: deps
	cmake -S . -B $(RUN_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOURLOOM_TEST_HOOKS=OFF \
		-DHOURLOOM_BUILD_TESTS=OFF -DHOURLOOM_BUILD_BENCHMARKS=OFF -DHOURLOOM_BUILD_TOOLS=OFF
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

# A release package: Release build, test hooks off, only the application and its desktop files.
package: deps
	cmake -S . -B $(PACKAGE_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DHOURLOOM_TEST_HOOKS=OFF -DCMAKE_INSTALL_PREFIX=/usr \
		-DHOURLOOM_BUILD_TESTS=OFF -DHOURLOOM_BUILD_BENCHMARKS=OFF -DHOURLOOM_BUILD_TOOLS=OFF
	cmake --build $(PACKAGE_BUILD) --parallel
	cd $(PACKAGE_BUILD) && cpack -G DEB
	@ls $(PACKAGE_BUILD)/*.deb

# lintian, then dpkg -i / dpkg -r of the package (needs root or sudo; kept out of `make test` for its time).
package-check: package
	scripts/check-package.sh $$(ls -t $(PACKAGE_BUILD)/hourloom_*.deb | head -n 1)

# A simulated tracker with a day of work, the local Jira/sign-in/rate stand-in and Hourloom pointed at both,
# with a throw-away profile. Ctrl+C ends all three.
demo: configure
	cmake --build $(BUILD) --parallel --target hourloom hourloom-simtracker hourloom-standin
	scripts/demo.sh $(BUILD)

# The same under Xvfb with a tray host; writes PNGs of the tray menu and the Worklogs window to build/demo/.
demo-snapshots: configure
	cmake --build $(BUILD) --parallel --target hourloom hourloom-simtracker hourloom-standin
	scripts/with-tray.sh scripts/demo.sh --snapshots $(BUILD)

# Launch-to-tray time and idle memory/CPU of the application (Release build, Xvfb + trayer).
bench-app: deps
	cmake -S . -B $(BENCH_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DHOURLOOM_BUILD_TESTS=OFF \
		-DHOURLOOM_TEST_HOOKS=ON
	cmake --build $(BENCH_BUILD) --parallel --target hourloom hourloom-simtracker hourloom-baretray
	scripts/with-tray.sh bench/app/measure.sh $(BENCH_BUILD)

# The Worklogs window in the real application: memory with 1000 rows open (Xvfb + trayer), and the main
# thread's longest busy stretch while a heavy day is checked against the local stand-in (private keyring).
bench-window: deps
	cmake -S . -B $(BENCH_BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DHOURLOOM_BUILD_TESTS=OFF \
		-DHOURLOOM_TEST_HOOKS=ON
	cmake --build $(BENCH_BUILD) --parallel --target hourloom hourloom-simtracker bench_ui
	scripts/with-tray.sh bench/ui/measure-window.sh $(BENCH_BUILD)
	scripts/with-keyring.sh $(BENCH_BUILD)/bench/ui/bench_ui --benchmark_filter=CheckHeavyDay

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(BENCH_BUILD) $(PACKAGE_BUILD) $(RUN_BUILD)
