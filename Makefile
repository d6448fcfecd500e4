# Quick start: `make demo` runs the tool on the example phone image, `make test`
# runs every test (a normal build and a sanitizer build). Both install what is missing.

PACKAGES := cmake g++ make pkg-config libgtest-dev libpugixml-dev libssl-dev diffutils
JOBS     ?= $(shell nproc)

.PHONY: all deps build demo test clean

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

clean:
	rm -rf build build-sanitize
