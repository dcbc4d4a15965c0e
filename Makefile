# Front door to the CMake build. `make test` and `make demo` work on a fresh
# Debian 12 machine: they install what they need first.

comma    := ,
BUILD    ?= build
SANITIZE ?=
PREFIX   ?= /usr/local
JOBS     ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
CTEST_ARGS ?=

ifneq ($(SANITIZE),)
  BUILD := build-$(subst $(comma),-,$(SANITIZE))
  CMAKE_ARGS += -DORVANE_SANITIZE=$(SANITIZE) -DCMAKE_BUILD_TYPE=Debug
endif

# Debian packages the build, the tests and the benchmarks need.
DEB_PACKAGES := cmake g++ make pkg-config libboost-thread-dev libboost-date-time-dev \
                libboost-system-dev libboost-regex-dev libgtest-dev libgmock-dev libbenchmark-dev

.PHONY: all deps configure build test demo demo-crash bench install clean stress fuzz

all: build

deps:
	@missing=""; for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)

configure: $(BUILD)/CMakeCache.txt

build: deps configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

demo: build
	@if [ -x scripts/demo.sh ]; then scripts/demo.sh $(BUILD); else $(BUILD)/tools/orvane-path-example; fi

demo-crash: build
	scripts/demo.sh $(BUILD) --crash

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DORVANE_BUILD_TESTS=OFF -DORVANE_BUILD_BENCH=ON
	cmake --build build-bench -j $(JOBS)
	@if [ -x scripts/bench.sh ]; then scripts/bench.sh build-bench; fi
	@# The report also lands beside the main build, where readers look first.
	@mkdir -p $(BUILD)/bench && cp -f build-bench/bench/report.md build-bench/bench/*.png $(BUILD)/bench/ 2>/dev/null || true
	@echo "report: $(BUILD)/bench/report.md"

stress: build
	scripts/stress.sh $(BUILD)

fuzz: deps
	scripts/fuzz.sh long

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf build build-*
