# Thin front end: installs the Debian packages that are missing, configures, builds, runs.
#   make demo       the simulated robot tracking a target
#   make test       every test
#   make test-asan  the tests under AddressSanitizer + UndefinedBehaviorSanitizer
#   make test-tsan  the concurrency tests under ThreadSanitizer
#   make bench      the benchmarks (medians of 5 repetitions)
#   make format     clang-format over the sources

BUILD    ?= build
JOBS     ?= $(shell nproc)
CMAKE_ARGS ?=
DEB_PACKAGES := cmake g++ make libeigen3-dev libboost-dev libspdlog-dev libpugixml-dev \
                libgtest-dev libgmock-dev libbenchmark-dev gnuplot-nox
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: setup configure build test demo test-asan test-tsan bench format clean

setup:
	@missing=$$(for p in $(DEB_PACKAGES) $(EXTRA_PACKAGES); do \
	  dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing missing packages:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

configure: setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS) >/dev/null

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest -j $(JOBS) --output-on-failure $(CTEST_ARGS)

demo: build
	./$(BUILD)/sim/krtracker-sim $(DEMO_ARGS)

test-asan:
	$(MAKE) test BUILD=build-asan CMAKE_ARGS="-DKRTRACKER_SANITIZE=address"

test-tsan:
	$(MAKE) test BUILD=build-tsan CMAKE_ARGS="-DKRTRACKER_SANITIZE=thread" \
	  CTEST_ARGS="$(TSAN_CTEST_ARGS)"

bench:
	$(MAKE) build BUILD=build-bench EXTRA_PACKAGES=liborocos-kdl-dev \
	  CMAKE_ARGS="-DKRTRACKER_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release"
	for b in build-bench/bench/bench_*; do \
	  $$b --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
	      --benchmark_display_aggregates_only=true | grep -E 'median|^Run|^---|^Benchmark'; done

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build build-asan build-tsan build-bench
