# Quick start: `make demo` runs the tool on the example phone image, `make test`
# runs every test (a normal build and a sanitizer build), `make bench` runs the
# benchmark of docs/performance.md, `make fuzz` runs the fuzz targets for a bounded
# time, `make fuzz-images` runs random phone images through every mode for a minute,
# `make cross-test ARCH=armhf` (or arm64) builds for ARM and runs every test
# under qemu-user. All install what is missing.

# The crypto library's development package: the one name to change with the library.
CRYPTO_DEV := nettle-dev
# Libraries the tool and its tests build against: the host's, and under cross-test the target's.
LIB_DEV  := libgtest-dev libpugixml-dev $(CRYPTO_DEV)
# The other cipher, OpenSSL's: the sanitizer build uses it, and every build tests it beside Nettle.
OTHER_CRYPTO_DEV := libssl-dev
PACKAGES := cmake g++ make pkg-config $(LIB_DEV) $(OTHER_CRYPTO_DEV) diffutils strace attr acl
FUZZ_PACKAGES := clang libclang-rt-dev
LINT_PACKAGES := mandoc
# `make deb`: the packaging tools; the Build-Depends of debian/control are in PACKAGES.
DEB_PACKAGES := build-essential debhelper dpkg-dev lintian
JOBS     ?= $(shell nproc)
ARCH     ?= armhf
FUZZ_SECONDS ?= 45
FUZZ_IMAGE_SECONDS ?= 60

.PHONY: all deps fuzz-deps build demo test cross-test check-install bench bench-smoke fuzz fuzz-images clean

all: build

# Installs the packages named in $(1) that are missing (as root), or names them.
# An index that fails to refresh (a foreign architecture's, mid-sync on the mirror)
# does not stop the install: the install itself fails if a package cannot be had.
# Installed means installed for this machine's architecture (or for all): once a
# foreign copy is there too, `dpkg -s NAME` answers "ambiguous".
define install_missing
	@host=$$(dpkg --print-architecture); \
	missing=$$(for p in $(1); do dpkg-query -W -f='$${Architecture} $${db:Status-Abbrev}\n' $$p 2>/dev/null | \
	  grep -Eq "^($$host|all) ii" || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:" $$missing; \
	    apt-get -o DPkg::Lock::Timeout=600 update -qq || echo "Some package indexes could not be refreshed; installing from those that could"; \
	    DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq $$missing >/dev/null; \
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
	bash scripts/demo.sh build/cfgupgrade examples/phone-root build/cfgupgrade-plan

test: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build build -j $(JOBS)
	cd build && ctest --output-on-failure -j $(JOBS)
	cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DCFGUPGRADE_SANITIZE=ON -DCFGUPGRADE_CIPHER=openssl >/dev/null
	cmake --build build-sanitize -j $(JOBS)
	cd build-sanitize && ctest --output-on-failure -j $(JOBS)

# Every test, built for ARCH by Debian's cross compiler and run under qemu-user. When
# the target's packages cannot be had (an index mid-sync, versions the host cannot
# match), one line says so and nothing fails; a build or test failure always does.
cross-test: deps
	@bash scripts/cross_packages.sh $(ARCH) $(LIB_DEV); status=$$?; \
	if [ $$status = 3 ]; then exit 0; elif [ $$status != 0 ]; then exit $$status; fi; \
	set -e; \
	cmake -S . -B build-$(ARCH) -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$(ARCH).cmake -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null; \
	cmake --build build-$(ARCH) -j $(JOBS); \
	cd build-$(ARCH) && ctest --output-on-failure -j $(JOBS); \
	awk '/: Skipped$$/ { getline; print "skipped:", $$0 }' Testing/Temporary/LastTest.log | sort | uniq -c

# The man pages lint clean, and an install staged in a DESTDIR puts the tool in sbin
# and its page in section 8, the host tools in bin and their pages in section 1.
check-install: build
	$(call install_missing,$(LINT_PACKAGES))
	mandoc -T lint -W style man/cfgupgrade.8
	mandoc -T lint -W style man/cfgupgrade-lint.1
	mandoc -T lint -W style man/cfgupgrade-plan.1
	@stage=$$(mktemp -d); trap 'rm -rf "$$stage"' EXIT; \
	DESTDIR=$$stage cmake --install build --prefix /usr >/dev/null && \
	test -x $$stage/usr/sbin/cfgupgrade && test -s $$stage/usr/share/man/man8/cfgupgrade.8 && \
	test -x $$stage/usr/bin/cfgupgrade-lint && test -s $$stage/usr/share/man/man1/cfgupgrade-lint.1 && \
	test -x $$stage/usr/bin/cfgupgrade-plan && test -s $$stage/usr/share/man/man1/cfgupgrade-plan.1 && \
	echo "check-install: $$(cd $$stage && find . -type f | sort | tr '\n' ' ')"

# Every libFuzzer target (clang, ASan, UBSan) for FUZZ_SECONDS each, two at a time.
fuzz: fuzz-deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCFGUPGRADE_FUZZ=ON -DCFGUPGRADE_TESTS=OFF >/dev/null
	cmake --build build-fuzz -j $(JOBS)
	bash fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# Random phone images through every mode for FUZZ_IMAGE_SECONDS, each seed printed first;
# CFGUPGRADE_FUZZ_SEED=N build/cfgupgrade_tests --gtest_filter='ImageFuzzRandom.*' replays one.
fuzz-images: build
	CFGUPGRADE_FUZZ_SECONDS=$(FUZZ_IMAGE_SECONDS) build/cfgupgrade_tests --gtest_filter='ImageFuzzRandom.*'

# About 15 minutes; BENCH_FLAGS=--full-peer adds the slow peer runs.
bench: deps
	bash bench/run.sh $(BENCH_FLAGS)

# The benchmark end to end in seconds, for CI: no figures worth keeping.
bench-smoke: deps
	bash bench/run.sh --quick >/dev/null

# The boot unit: a staged install puts it where systemd finds it, naming the tool; it
# verifies (any output of systemd-analyze is a finding); the demo runs in its sandbox.
.PHONY: check-unit deb
check-unit: build
	$(call install_missing,systemd)
	@stage=$$(mktemp -d); trap 'rm -rf "$$stage"' EXIT; \
	DESTDIR=$$stage cmake --install build --prefix /usr >/dev/null && \
	grep -qx 'ExecStart=/usr/sbin/cfgupgrade %i' "$$stage/usr/lib/systemd/system/cfgupgrade@.service" && \
	out=$$(systemd-analyze verify --man=no --root=$$stage cfgupgrade@all.service 2>&1) && \
	if [ -n "$$out" ]; then echo "$$out"; exit 1; fi && echo "check-unit: the unit verifies"
	bash scripts/unit_demo.sh build/cfgupgrade

# The Debian packages, built from a copy of the tree in build-deb/ (dpkg-buildpackage
# writes beside the source, which must not be the clone), then checked by lintian.
# nocheck: `make test` runs the same suite. A tree without the host tools' pages
# leaves their package out.
deb: deps
	$(call install_missing,$(DEB_PACKAGES))
	rm -rf build-deb && mkdir -p build-deb/src
	tar -c --exclude-vcs --exclude='./build*' --exclude=./.cache . | tar -x -C build-deb/src
	cd build-deb/src && DEB_BUILD_OPTIONS=nocheck \
	  DEB_BUILD_PROFILES="nocheck $(if $(wildcard man/cfgupgrade-*.1),,pkg.cfgupgrade.notools)" \
	  dpkg-buildpackage -us -uc -b
	lintian --fail-on error,warning build-deb/*.changes
	@ls build-deb/*.deb

clean:
	rm -rf build build-sanitize build-bench build-fuzz build-armhf build-arm64 build-deb
