# Front door of the build. Every target that builds first makes sure the
# Debian packages the project needs are installed.
PRESET ?= default
DEB_PACKAGES := cmake ninja-build g++ pkg-config liburing-dev libgtest-dev libgmock-dev libbenchmark-dev
JOBS ?= $(shell nproc)

.PHONY: deps build run test bench asan tsan clean

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

bench: PRESET = default
bench: build
	@for b in build/default/bench/tarn_bench_*; do echo "== $$b"; $$b --benchmark_counters_tabular=true || exit 1; done

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

clean:
	rm -rf build
