# Thin front end: installs the Debian packages that are missing, configures, builds, runs.
#   make demo       the simulated robot tracking a target
#   make demo-remote  the same with the tracking service in a second process, over DDS on loopback
#   make test       every test
#   make test-asan  the tests under AddressSanitizer + UndefinedBehaviorSanitizer
#   make test-tsan  the tests under ThreadSanitizer
#   make bench      the benchmarks (medians of 5 repetitions)
#   make bench-remote  remote calls over DDS on loopback beside in-process calls
#   make fuzz       each fuzz target for FUZZ_SECONDS (clang and libFuzzer, installed if missing)
#   make format     clang-format over the sources

BUILD    ?= build
JOBS     ?= $(shell nproc)
CMAKE_ARGS ?=
DEB_PACKAGES := cmake g++ make libeigen3-dev libboost-dev libspdlog-dev libpugixml-dev \
                libgtest-dev libgmock-dev libbenchmark-dev gnuplot-nox libcli11-dev nlohmann-json3-dev \
                libyaml-cpp-dev libmsgpack-cxx-dev libmujoco-dev cyclonedds-dev cyclonedds-tools \
                libglfw3-dev libpng-dev xvfb xauth libgl1-mesa-dri liburdfdom-dev
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: setup configure build test demo demo-remote test-asan test-tsan bench bench-remote fuzz fuzz-corpus format clean

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
	cmake --build $(BUILD) -j $(JOBS) $(if $(BUILD_TARGETS),--target $(BUILD_TARGETS))

test: build
	cd $(BUILD) && ctest -j $(JOBS) --output-on-failure $(CTEST_ARGS)

demo: build
	./$(BUILD)/sim/krtracker-sim $(DEMO_ARGS)

# Two processes of krtracker-sim: the tracking service, and the robot side playing the scenario
# in real time. DDS stays on the loopback network (KR::kLoopbackDdsConfig: interface lo,
# multicast off, one discovery peer 127.0.0.1); the topic prefix keeps concurrent demos apart.
DEMO_SCENARIO ?= ball
demo-remote: build
	@unset CYCLONEDDS_URI; export KRTRACKER_DDS_CONFIG=loopback KRTRACKER_REMOTE_PREFIX=krdemo_$$$$; \
	./$(BUILD)/sim/krtracker-sim remote-tracker & tracker=$$!; \
	./$(BUILD)/sim/krtracker-sim remote-robot $(DEMO_SCENARIO); rc=$$?; \
	wait $$tracker; exit $$rc

test-asan:
	$(MAKE) test BUILD=build-asan CMAKE_ARGS="-DKRTRACKER_SANITIZE=address"

# TSAN_BUILD_TARGETS limits the build to the test binaries that TSAN_CTEST_ARGS selects.
test-tsan:
	TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp $$TSAN_OPTIONS" \
	$(MAKE) test BUILD=build-tsan CMAKE_ARGS="-DKRTRACKER_SANITIZE=thread" \
	  BUILD_TARGETS="$(TSAN_BUILD_TARGETS)" CTEST_ARGS="$(TSAN_CTEST_ARGS)"

bench:
	$(MAKE) build BUILD=build-bench EXTRA_PACKAGES=liborocos-kdl-dev \
	  CMAKE_ARGS="-DKRTRACKER_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release"
	for b in build-bench/bench/bench_*; do \
	  $$b --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
	      --benchmark_display_aggregates_only=true | grep -E 'median|^Run|^---|^Benchmark'; done

bench-remote:
	$(MAKE) build BUILD=build-bench EXTRA_PACKAGES=liborocos-kdl-dev BUILD_TARGETS=remote_latency \
	  CMAKE_ARGS="-DKRTRACKER_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release"
	build-bench/bench/remote_latency

FUZZ_SECONDS ?= 60
FUZZ_TARGETS := trackinfos tracker_event tracker_config namer robot_xml urdf_mapping urdf
FUZZ_BUILD := CC=clang CXX=clang++ $(MAKE) build BUILD=build-fuzz \
  EXTRA_PACKAGES="clang libclang-rt-14-dev" \
  CMAKE_ARGS="-DKRTRACKER_BUILD_FUZZ=ON -DKRTRACKER_BUILD_TESTS=OFF -DKRTRACKER_BUILD_SIM=OFF"

# New inputs go to build-fuzz/corpus/<target>; fuzz/corpus/<target> holds the seeds. A finding
# stops the run and is left in build-fuzz/ as crash-*, leak-* or timeout-*.
fuzz:
	$(FUZZ_BUILD)
	@for t in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/corpus/$$t; \
	  dict=; if [ -f fuzz/$$t.dict ]; then dict=-dict=fuzz/$$t.dict; fi; \
	  echo "fuzz_$$t: $(FUZZ_SECONDS) s"; \
	  if ! build-fuzz/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	      -artifact_prefix=build-fuzz/ $$dict build-fuzz/corpus/$$t fuzz/corpus/$$t \
	      >build-fuzz/fuzz_$$t.log 2>&1; then \
	    tail -n 60 build-fuzz/fuzz_$$t.log; exit 1; \
	  fi; \
	  grep -E '^#[0-9]+[[:space:]]+DONE|stat::number_of_executed_units|stat::average_exec_per_sec' \
	    build-fuzz/fuzz_$$t.log; \
	done

fuzz-corpus:
	$(FUZZ_BUILD)
	build-fuzz/fuzz/fuzz_make_corpus fuzz/corpus robots

format:
	clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz
