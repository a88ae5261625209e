# The two set-up commands are `make run` and `make test`; both install what is
# missing first (scripts/bootstrap).
JOBS ?= $(shell nproc)
ARGS ?=
FUZZ_SECONDS ?= 60

.PHONY: all bootstrap build run test test-tsan bench fuzz install uninstall deb clean
PREFIX ?= /usr/local
DESTDIR ?=

all: build

bootstrap:
	@./scripts/bootstrap

build/release/build.ninja:
	cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_TESTS=OFF

build: bootstrap build/release/build.ninja
	cmake --build build/release -j $(JOBS) --target lumora

run: build
	./build/release/lumora $(ARGS)

build/asan/build.ninja:
	cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMORA_SANITIZE=ON

test: bootstrap build/asan/build.ninja
	cmake --build build/asan -j $(JOBS)
	cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --output-on-failure -j $(JOBS)

# The threaded parts (the run loop and queues, the hook bridge, the monitor and
# the app's wiring) once more under ThreadSanitizer.
TSAN_AREAS = base hooks monitor app
build/tsan/build.ninja:
	cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMORA_TSAN=ON

test-tsan: bootstrap build/tsan/build.ninja
	cmake --build build/tsan -j $(JOBS) --target lumora $(addsuffix _tests,$(TSAN_AREAS))
	cd build/tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/tsan.supp" \
		ctest --output-on-failure -j $(JOBS) -L '^($(subst $(eval) ,|,$(TSAN_AREAS)))$$'

build/bench/build.ninja:
	cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_TESTS=OFF -DLUMORA_BENCH=ON

bench: bootstrap build/bench/build.ninja
	cmake --build build/bench -j $(JOBS)
	@for b in build/bench/*_bench; do echo "== $$b"; $$b --benchmark_min_time=0.2 || exit 1; done

build/fuzz/build.ninja:
	CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_FUZZ=ON

# Runs every fuzz target in turn; FUZZ_SECONDS is the time for all of them together.
fuzz: bootstrap build/fuzz/build.ninja
	cmake --build build/fuzz -j $(JOBS)
	@targets=$$(ls build/fuzz/*_fuzz); n=$$(echo $$targets | wc -w); \
	per=$$(( $(FUZZ_SECONDS) / n )); [ $$per -ge 1 ] || per=1; \
	for t in $$targets; do \
	  name=$$(basename $$t); corpus=build/fuzz/corpus/$$name; mkdir -p $$corpus; \
	  seeds=fuzz/seeds/$$name; [ -d $$seeds ] || seeds=; \
	  echo "== $$name ($$per s)"; \
	  if ! $$t -max_total_time=$$per -max_len=65536 -print_final_stats=1 $$corpus $$seeds > build/fuzz/$$name.log 2>&1; then \
	    tail -n 60 build/fuzz/$$name.log; exit 1; fi; \
	  grep -E '^(Done|stat::number_of_executed_units)' build/fuzz/$$name.log || true; \
	done

# Installs the release build under $(PREFIX) (below $(DESTDIR) when set).
install: bootstrap
	cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_TESTS=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build build/release -j $(JOBS) --target lumora
	DESTDIR="$(DESTDIR)" cmake --install build/release

# Removes what the last `make install` put there.
uninstall:
	@[ -f build/release/install_manifest.txt ] || { echo "nothing installed from build/release"; exit 1; }
	xargs -d '\n' rm -f -- < build/release/install_manifest.txt

# A Debian package (build/deb/lumora_<version>_<arch>.deb) installing under /usr.
deb: bootstrap
	cmake -S . -B build/deb -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr
	cmake --build build/deb -j $(JOBS) --target lumora
	cd build/deb && cpack -G DEB

clean:
	rm -rf build
