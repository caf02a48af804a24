# Two commands do everything on a fresh Debian 12 machine:
#   make demo   runs a simulated robot reporting its health for ten seconds, with the
#               operator's web page beside it
#   make test   builds everything and runs every test
PRESET ?= dev
BUILD_DIR := build/$(PRESET)

.PHONY: all deps configure build test demo tour bench install format lint test-asan test-tsan clean

all: build

deps:
	@scripts/install-deps

configure: deps
	cmake --preset $(PRESET)

build: configure
	cmake --build --preset $(PRESET)

test: build node_modules
	ctest --preset $(PRESET)

# puppeteer-core, through which the dashboard's browser test drives the system Chromium.
node_modules: package.json package-lock.json
	npm ci --no-audit --no-fund
	touch node_modules

# DEMO_RUNS=N runs the robot N times in a row, for longer with the dashboard.
demo: deps
	cmake --preset dev
	cmake --build --preset dev --target simulated_robot korcommon_cli
	scripts/demo-dashboard build/dev $(DEMO_RUNS)

tour: deps
	cmake --preset dev
	cmake --build --preset dev --target korcommon_cli
	scripts/demo build/dev/tools/korcommon

BENCHMARKS := bench_json bench_msgs bench_trace bench_diag bench_dds bench_web

bench: deps
	cmake --preset release
	cmake --build --preset release --target $(BENCHMARKS)
	for benchmark in $(BENCHMARKS); do build/release/bench/$$benchmark || exit 1; done

test-asan:
	$(MAKE) test PRESET=asan

test-tsan:
	$(MAKE) test PRESET=tsan

install: build
	cmake --install $(BUILD_DIR) $(if $(PREFIX),--prefix $(PREFIX))

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

# BASE=REV limits clang-tidy to the sources changed since REV (e.g. make lint BASE=main).
lint: build
	scripts/lint $(BUILD_DIR) $(BASE)

clean:
	rm -rf build
