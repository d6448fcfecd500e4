# Quick start: `make demo` runs the tool on the example phone image, `make test`
# runs every test (a normal build and a sanitizer build), `make bench` runs the
# benchmark of docs/performance.md. All install what is missing.

PACKAGES := cmake g++ make pkg-config libgtest-dev libpugixml-dev libssl-dev diffutils
JOBS     ?= $(shell nproc)

.PHONY: all deps build demo test bench bench-smoke clean

all: build

deps:
	@missing=$$(for p in $(PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:" $$missing; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; \
	  else \
	    echo "Missing packages:" $$missing; echo "Install them with: sudo apt-get install" $$missing; exit 1; \
	  fi; \
	fi

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

# About 15 minutes; BENCH_FLAGS=--full-peer adds the slow peer runs.
bench: deps
	bash bench/run.sh $(BENCH_FLAGS)

# The benchmark end to end in seconds, for CI: no figures worth keeping.
bench-smoke: deps
	bash bench/run.sh --quick >/dev/null

clean:
	rm -rf build build-sanitize build-bench
