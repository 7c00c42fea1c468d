# Front door of the build. Every target that builds first makes sure the
# Debian packages it needs are installed, and only those: the compiler, CMake,
# liburing and zlib always (zlib for the demo's PNG); GoogleTest and Google
# Benchmark because the default configuration builds the suites; libmemcached
# for libtarn-memcached.so and memcached for its suite; Universal
# Ctags for the check that every declared function is exported; clang only for
# `make fuzz` and the clang-tsa preset; Doxygen only for `make docs`; the Debian
# tools only for `make deb`.
PRESET ?= default
BASE_PACKAGES := cmake ninja-build g++ pkg-config liburing-dev zlib1g-dev \
                 libgtest-dev libgmock-dev libbenchmark-dev universal-ctags \
                 memcached libmemcached-dev
CLANG_PACKAGES := clang libclang-rt-14-dev
DOCS_PACKAGES := cmake doxygen
# The Build-Depends of debian/control, and the tools that build and check.
DEB_PACKAGES := cmake ninja-build g++ pkg-config liburing-dev libmemcached-dev zlib1g-dev universal-ctags doxygen \
                debhelper dpkg-dev fakeroot lintian
# Targets add to this what they need beyond the base (make passes a target's
# variables on to its prerequisites, so `deps` sees them).
EXTRA_PACKAGES ?=
ifeq ($(PRESET),clang-tsa)
EXTRA_PACKAGES += $(CLANG_PACKAGES)
endif
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
FUZZ_DIR := build/fuzz

.PHONY: deps configure build run test stress crashtest churntest soak bench tierbench asan tsan fuzz docs deb consumer clean compare

# Installs whichever of the packages given are missing (apt, with sudo when
# not root).
define apt_install
	@missing=""; \
	for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi
endef

deps:
	$(call apt_install,$(BASE_PACKAGES) $(EXTRA_PACKAGES))

configure: deps
	cmake --preset $(PRESET) $(CMAKE_ARGS)

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

# Only the library and the demo; the picture lands in the current folder.
run: configure
	cmake --build --preset $(PRESET) -j $(JOBS) --target tarn-demo
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

# The long form of the churn suite: every case with its long cycle count,
# once per seed in CHURN_SEEDS; each prints the amplification it saw.
CHURN_SEEDS ?= 1 2 3
churntest: build
	@for seed in $(CHURN_SEEDS); do \
	  TARN_CHURN_LONG=1 TARN_CHURN_SEED=$$seed ./build/$(PRESET)/tests/tarn_churn_tests || exit 1; \
	done

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

# The memcached tier between two processes over two local memcached servers
# it starts itself: objects/s generated and served by the tier, the latency a
# tier lookup adds to a local miss, generations saved. TIERBENCH_ARGS: objects,
# value bytes, rounds of work per object.
TIERBENCH_ARGS ?=
tierbench: PRESET = default
tierbench: configure
	cmake --build --preset default -j $(JOBS) --target tarn_tierbench
	./build/default/bench/tarn_tierbench $(TIERBENCH_ARGS)

# Sanitizers slow the stress suite down many times; it runs a smaller count.
asan:
	TARN_STRESS_OPS=$${TARN_STRESS_OPS:-200000} $(MAKE) test PRESET=asan

tsan:
	TARN_STRESS_OPS=$${TARN_STRESS_OPS:-200000} $(MAKE) test PRESET=tsan

# The loader fuzzer, in a tree of its own where the whole library is built
# with clang for coverage and the sanitizers. The corpus grows across runs;
# a finding is written to $(FUZZ_DIR)/artifacts and fails the target.
fuzz: EXTRA_PACKAGES += $(CLANG_PACKAGES)
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

# The application built from the installed headers and library three ways
# (CMake package, pkg-config, the compiler alone), against an install with
# prefix /usr in a scratch DESTDIR; reuses the default build.
consumer: build
	tests/consumer/check.sh build/$(PRESET)

# The API reference from the header comments, in build/docs/html.
docs:
	$(call apt_install,$(DOCS_PACKAGES))
	mkdir -p build/docs
	{ cat Doxyfile; echo "INPUT += $$(cmake -P cmake/TarnPublicHeaders.cmake | tr '\n' ' ')"; } | doxygen -
	@echo "API reference: build/docs/html/index.html"

# Debian packages libtarn0, libtarn-dev, tarn-tools, libtarn-memcached0 and
# libtarn-memcached-dev, then lintian over
# them; dpkg-buildpackage writes them next to the source tree, from where they
# move to build/deb.
deb:
	$(call apt_install,$(DEB_PACKAGES))
	dpkg-buildpackage -us -uc -b
	mkdir -p build/deb
	version=$$(dpkg-parsechangelog -S Version); arch=$$(dpkg-architecture -qDEB_HOST_ARCH); \
	for f in tarn_$${version}_$${arch}.buildinfo tarn_$${version}_$${arch}.changes \
	    libtarn0 libtarn0-dbgsym libtarn-dev tarn-tools tarn-tools-dbgsym \
	    libtarn-memcached0 libtarn-memcached0-dbgsym libtarn-memcached-dev; do \
	  case $$f in *_*) ;; *) f=$${f}_$${version}_$${arch}.deb ;; esac; \
	  if [ -e ../$$f ]; then mv ../$$f build/deb/; fi; \
	done; \
	lintian --fail-on error,warning build/deb/tarn_$${version}_$${arch}.changes

# Tarn against LMDB and RocksDB on the same workload (bench/compare, a CMake
# project of its own: nothing else in the tree depends on those libraries).
# Installs them and gnuplot from Debian's packages, then runs every library
# three times interleaved; the table goes to the terminal, the CSV and the
# bar chart to build/compare/results.
COMPARE_PACKAGES := cmake ninja-build g++ pkg-config liburing-dev zlib1g-dev liblmdb-dev librocksdb-dev gnuplot-nox
compare:
	$(call apt_install,$(COMPARE_PACKAGES))
	cmake -S bench/compare -B build/compare -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build build/compare -j $(JOBS) --target tarn_compare
	./build/compare/tarn_compare --out build/compare/results --runs 3

clean:
	rm -rf build
