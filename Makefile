# Everything from a fresh machine on: what is missing is installed (see debian-packages.txt), the tree is
# configured and built, and then the command does its work.

BUILD_JOBS ?= $(shell nproc)
INSTALL = scripts/install_packages.sh
MAKEFLAGS += --no-print-directory

# What is built, and how, the presets say. $(2): options besides.
build = cmake --preset $(1) $(2) && cmake --build --preset $(1) --parallel $(BUILD_JOBS)

# What was skipped is told in the end, a line each.
run_tests = ctest --preset $(1) --parallel $(BUILD_JOBS); result=$$?; \
  grep '^skipped: ' build/$(1)/Testing/Temporary/LastTest.log; exit $$result

.PHONY: demo test test-elsewhere install package bench bench-tools check sanitize arm64 valgrind fuzz coverage mutants docs format clean

demo:
	$(INSTALL) build demo
	$(call build,demo)
	examples/run_demo.sh build/demo

test:
	$(INSTALL) build test
	$(call build,release)
	$(call run_tests,release)

# The tests again where no image is believed. What they make is gone in the end.
test-elsewhere:
	mkdir -p build
	unshare --mount sh -ec 'mount -t tmpfs none build; $(MAKE) test'
	layers=$$(mktemp -d -p /var/tmp); mkdir $$layers/upper $$layers/work; result=0; \
	  unshare --mount sh -ec "mount -t overlay none build \
	    -o lowerdir=build,upperdir=$$layers/upper,workdir=$$layers/work; $(MAKE) test" || result=$$?; \
	  rm -rf $$layers; exit $$result

# The library, the program and its manual page, under PREFIX; DESTDIR is heeded.
PREFIX ?= /usr/local
install:
	$(INSTALL) build install
	$(call build,demo,-DCMAKE_INSTALL_PREFIX=$(PREFIX))
	cmake --install build/demo

# Debian packages of the library with its headers and of the program, in build/.
package:
	$(INSTALL) build install package
	$(call build,demo,-DCMAKE_INSTALL_PREFIX=/usr)
	cpack --config build/demo/CPackConfig.cmake -B build

# Figures mean something on a machine that has nothing else to do. BENCH_REPORT=--strict makes rows that fall
# short a failure; BENCH_REPORT='--markdown docs/performance.md' puts the table there.
bench:
	$(INSTALL) build bench
	$(call build,bench)
	build/bench/bench/kelvane_benchmarks --benchmark_out=build/bench.json --benchmark_out_format=json \
	  --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
	  >build/bench.log 2>&1 || { cat build/bench.log; false; }
	bench/report.py build/bench.json --svg docs/performance.svg $(BENCH_REPORT)

# The program side by side with others that hash whole images.
bench-tools:
	$(INSTALL) build bench-tools
	$(call build,demo)
	bench/compare_tools.py build/demo/tools/kelvane-hash $(BENCH_REPORT)

# The tests again, with the address and undefined behaviour sanitizers.
sanitize:
	$(INSTALL) build test
	$(call build,sanitize)
	$(call run_tests,sanitize)

# The library and its tests for 64-bit ARM, run by an emulator; digests on NEON are compared with those of Python here.
arm64:
	$(INSTALL) build arm64
	$(call build,arm64)
	$(call run_tests,arm64)
	grep '^digests on NEON: ' build/arm64/Testing/Temporary/LastTest.log
	@echo 'left out: the program with its tests, the examples, what is installed; of the tests of the library, none'

# The tests again, under valgrind, which leaves them their own operator new. Threads only wait there.
valgrind:
	$(INSTALL) build test valgrind
	$(call build,release)
	KELVANE_MODEL_ROUNDS=5 OMP_NUM_THREADS=1 valgrind --error-exitcode=1 --soname-synonyms=somalloc=nouserintercepts \
	  --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite \
	  build/release/tests/kelvane_tests --gtest_brief=1

# Searches for hash files that opening gets wrong, and for messages that the program does. The inputs that it makes
# stay in build/fuzz.
FUZZ_SECONDS ?= 60
fuzz:
	$(INSTALL) build fuzz
	$(call build,fuzz)
	mkdir -p build/fuzz/corpus build/fuzz/messages
	build/fuzz/fuzz/fuzz_corrupt_file -max_total_time=$(FUZZ_SECONDS) -max_len=4096 -timeout=10 -malloc_limit_mb=5000 \
	  -artifact_prefix=build/fuzz/ build/fuzz/corpus fuzz/corpus
	build/fuzz/fuzz/fuzz_messages -max_total_time=$(FUZZ_SECONDS) -max_len=8192 -timeout=10 \
	  -artifact_prefix=build/fuzz/ build/fuzz/messages fuzz/messages

# Which lines and branches the tests take: of the library its own tests, of the program its own.
coverage:
	$(INSTALL) build test coverage
	$(call build,coverage)
	scripts/coverage.sh build/coverage $(BUILD_JOBS)

# All of the above and more, with one line for every figure.
check:
	$(MAKE) test
	tests/check.py

# Do the tests bite? Plants the bugs of tests/mutants.txt in a copy of the sources, one at a time; with SAMPLE=40 that
# many that a machine makes, in the library and in the program, at places drawn by SEED. IN=src,include: only there.
SEED ?= 1
mutants:
	$(INSTALL) build test mutants
	tests/mutants.py build/mutants $(if $(IN),--in $(IN)) $(if $(SAMPLE),--sample $(SAMPLE) --seed $(SEED))

format:
	$(INSTALL) format
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

# build/docs/html/index.html
docs:
	$(INSTALL) docs
	mkdir -p build
	doxygen docs/Doxyfile

clean:
	rm -rf build
