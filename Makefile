# The two commands of README: `make demo` and `make test`.
# Everything else is a convenience over CMake and Ninja.

BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
DEMO_HOME  ?= $(CURDIR)/demo-home

.PHONY: all bootstrap build test test-fast asan demo bench bench-ingest bench-service bench-http fuzz clean

all: build

bootstrap:
	@bash scripts/bootstrap.sh
	@bash scripts/web_test_setup.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: bootstrap $(BUILD)/build.ninja
	ninja -C $(BUILD) -j $(JOBS)

# Unit tests in the release build, then again under ASan+UBSan.
test: build
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure
	$(MAKE) asan

test-fast: build
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

asan: bootstrap
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVELMOR_SANITIZE=ON
	ninja -C $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_BUILD) -j $(JOBS) --output-on-failure

# Lays out a ready VELMOR_HOME with generated sample logs and runs the main job on it.
demo: build
	bash scripts/demo.sh $(BUILD) $(DEMO_HOME)

bench: build
	@for b in $(BUILD)/bench/*/bench_*; do [ -x "$$b" ] && echo "== $$b" && $$b; done

# Ingest cost at scale against sqlite3 FTS5 and gzip (INGEST_BENCH_MB, default 1000).
bench-ingest: build
	bash bench/ingest_at_scale.sh $(BUILD)

# velmord against velmor-index add: lines/s, append-to-found delay, restart with 1000 files (SERVICE_BENCH_MB, default 200).
bench-service: build
	bash bench/service_at_scale.sh $(BUILD)

# The HTTP side in process: login, authenticated GET, TLS handshakes per second (HTTP_BENCH_SECONDS, default 3).
bench-http: build
	bash bench/http_at_scale.sh $(BUILD)

fuzz: bootstrap
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELMOR_FUZZ=ON -DVELMOR_BENCH=OFF
	ninja -C build-fuzz

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-fuzz
