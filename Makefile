# Everything from a fresh machine on: what is missing is installed (see debian-packages.txt), the tree is
# configured and built, and then the command does its work.

BUILD_JOBS ?= $(shell nproc)
INSTALL = tools/install_packages.sh
MAKEFLAGS += --no-print-directory

.PHONY: demo test sanitize valgrind format clean

demo:
	$(INSTALL) build demo
	cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DKELVANE_BUILD_TESTS=OFF
	cmake --build build/demo --parallel $(BUILD_JOBS)
	examples/run_demo.sh build/demo/examples/range_hash

test:
	$(INSTALL) build test
	cmake --preset release
	cmake --build --preset release --parallel $(BUILD_JOBS)
	ctest --preset release --parallel $(BUILD_JOBS)

# The tests again, with the address and undefined behaviour sanitizers.
sanitize:
	$(INSTALL) build test
	cmake --preset sanitize
	cmake --build --preset sanitize --parallel $(BUILD_JOBS)
	ctest --preset sanitize --parallel $(BUILD_JOBS)

# The tests again, under valgrind.
valgrind:
	$(INSTALL) build test valgrind
	cmake --preset debug
	cmake --build --preset debug --parallel $(BUILD_JOBS)
	valgrind --quiet --error-exitcode=1 --leak-check=full build/debug/tests/kelvane_tests --gtest_brief=1

format:
	$(INSTALL) format
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
