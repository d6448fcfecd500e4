# Quick start: `make demo` runs the tool on the example phone image, `make test`
# runs every test (a normal build and a sanitizer build), `make bench` runs the
# benchmark of docs/performance.md, `make fuzz` runs the fuzz targets for a bounded
# time. All install what is missing.

PACKAGES := cmake g++ make pkg-config libgtest-dev libpugixml-dev nettle-dev diffutils strace attr acl
FUZZ_PACKAGES := clang libclang-rt-dev
JOBS     ?= $(shell nproc)
FUZZ_SECONDS ?= 45

.PHONY: all deps fuzz-deps build demo test bench bench-smoke fuzz clean

all: build

# Installs the packages named in $(1) that are missing (as root), or names them.
define install_missing
	@missing=$$(for p in $(1); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:" $$missing; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; \
	  else \
	    echo "Missing packages:" $$missing; echo "Install them with: sudo apt-get install" $$missing; exit 1; \
	  fi; \
	fi
endef

deps:
	$(call install_missing,$(PACKAGES))

fuzz-deps: deps
	$(call install_missing,$(FUZZ_PACKAGES))

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build build -j $(JOBS)

demo: build
	bash scripts/demo.sh build/cfgupgrade examples/phone-root

test: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build build -j $(JOBS)
	cd build && ctest --output-on-failure -j $(JOBS)
	cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DCFGUPGRADE_SANITIZE=ON >/dev/null
	cmake --build build-sanitize -j $(JOBS)
	cd build-sanitize && ctest --output-on-failure -j $(JOBS)

# Every libFuzzer target (clang, ASan, UBSan) for FUZZ_SECONDS each, two at a time.
fuzz: fuzz-deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGUPGRADE_FUZZ=ON -DCFGUPGRADE_TESTS=OFF >/dev/null
	cmake --build build-fuzz -j $(JOBS)
	bash fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# About 15 minutes; BENCH_FLAGS=--full-peer adds the slow peer runs.
bench: deps
	bash bench/run.sh $(BENCH_FLAGS)

# The benchmark end to end in seconds, for CI: no figures worth keeping.
bench-smoke: deps
	bash bench/run.sh --quick >/dev/null

clean:
	rm -rf build build-sanitize build-bench build-fuzz
