# Front door of the build. Every target that builds first makes sure the
# Debian packages the project needs are installed.
PRESET ?= default
DEB_PACKAGES := cmake ninja-build g++ pkg-config liburing-dev libgtest-dev libgmock-dev libbenchmark-dev \
                clang libclang-rt-14-dev
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
FUZZ_DIR := build/fuzz

.PHONY: deps build run test stress crashtest soak bench asan tsan fuzz clean compare

deps:
	@missing=""; \
	for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

build: deps
	cmake --preset $(PRESET) $(CMAKE_ARGS)
	cmake --build --preset $(PRESET) -j $(JOBS)

run: build
	./build/$(PRESET)/tools/tarn-demo/tarn-demo

test: build
	ctest --preset $(PRESET) -j $(JOBS)

# The long form of the crash suite: CRASH_CYCLES kill -9 cycles and
# POWERLOSS_IMAGES power-loss crash images, however long they take (set
# TARN_CRASH_SEED or TARN_POWERLOSS_SEED to repeat a run).
CRASH_CYCLES ?= 2000
POWERLOSS_IMAGES ?= 100000
crashtest: build
	TARN_CRASH_CYCLES=$(CRASH_CYCLES) TARN_CRASH_SECONDS=0 TARN_POWERLOSS_IMAGES=$(POWERLOSS_IMAGES) \
	  ./build/$(PRESET)/tests/tarn_crash_tests

# The stress suite alone; TARN_STRESS_OPS and TARN_STRESS_SEED pass through.
stress: build
	ctest --preset $(PRESET) -L stress --verbose

# The soak program for as long as asked: eight threads of every operation on
# one cache, then its figures and checks (exit status 1 when one fails).
SECONDS ?= 60
soak: build
	./build/$(PRESET)/tools/tarn-soak/tarn-soak $(SECONDS)

bench: PRESET = default
bench: build
	@for b in build/default/bench/tarn_bench_*; do echo "== $$b"; $$b --benchmark_counters_tabular=true || exit 1; done

# Sanitizers slow the stress suite down many times; it runs a smaller count.
asan:
	TARN_STRESS_OPS=$${TARN_STRESS_OPS:-200000} $(MAKE) test PRESET=asan

tsan:
	TARN_STRESS_OPS=$${TARN_STRESS_OPS:-200000} $(MAKE) test PRESET=tsan

# The loader fuzzer, in a tree of its own where the whole library is built
# with clang for coverage and the sanitizers. The corpus grows across runs;
# a finding is written to $(FUZZ_DIR)/artifacts and fails the target.
fuzz: deps
	cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_FUZZ=ON -DTARN_BUILD_TESTS=OFF \
	  -DTARN_BUILD_BENCH=OFF -DTARN_BUILD_TOOLS=OFF \
	  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined"
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target tarn_fuzz_loader tarn_fuzz_seeds
	mkdir -p $(FUZZ_DIR)/corpus $(FUZZ_DIR)/artifacts
	$(FUZZ_DIR)/fuzz/tarn_fuzz_seeds $(FUZZ_DIR)/seeds
	$(FUZZ_DIR)/fuzz/tarn_fuzz_loader -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -artifact_prefix=$(FUZZ_DIR)/artifacts/ $(FUZZ_DIR)/corpus $(FUZZ_DIR)/seeds

# Tarn against LMDB and RocksDB on the same workload (bench/compare, a CMake
# project of its own: nothing else in the tree depends on those libraries).
# Installs them and gnuplot from Debian's packages, then runs every library
# three times interleaved; the table goes to the terminal, the CSV and the
# bar chart to build/compare/results.
COMPARE_PACKAGES := cmake ninja-build g++ pkg-config liburing-dev liblmdb-dev librocksdb-dev gnuplot-nox
compare:
	@missing=""; \
	for p in $(COMPARE_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq --no-install-recommends $$missing; \
	fi
	cmake -S bench/compare -B build/compare -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build build/compare -j $(JOBS) --target tarn_compare
	./build/compare/tarn_compare --out build/compare/results --runs 3

clean:
	rm -rf build
