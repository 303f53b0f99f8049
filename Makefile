# Thin front door: every target is one or two commands that can be typed by hand.

.DEFAULT_GOAL := help
.PHONY: help setup run program build build-arm test test-asan test-tsan test-arm test-matrix test-references test-fresh coverage fuzz package package-arm bench bench-programs bench-peers lint format docs-console docs-graph docs-performance docs-reference soak clean

ARGS ?=
SECONDS ?= 120
FUZZ_SECONDS ?= 60
# The sanitizers' own memory is in the way of addresses that are as random as some kernels make them.
SAME_ADDRESSES = $(shell [ "$$(cat /proc/sys/vm/mmap_rnd_bits)" -gt 28 ] && setarch -R true 2>&1 && echo setarch -R)
RELEASES ?= bookworm trixie sid
BENCH = sh build/release/bench/run

help: ## Show this list
	@grep -hE '^[a-z-]+:.*## ' $(MAKEFILE_LIST) | sort | awk -F ':.*## ' '{printf "  make %-16s %s\n", $$1, $$2}'

setup: ## Install what is missing to build and test (Debian, Ubuntu)
	@tools/setup test

run: program ## Build what it needs and open the console; ARGS="..." goes to sonetrix-engine
	@build/release/bin/sonetrix-engine $(ARGS)

program:
	@tools/setup run
	@cmake --preset release --log-level=NOTICE
	@cmake --build --preset release --target sonetrix sonetrix-engine

build: setup ## Build the release preset
	@cmake --preset release --log-level=NOTICE
	@cmake --build --preset release

test: build ## Build and run all tests
	@ctest --preset release $(CTEST_ARGS)

test-asan test-tsan: test-%: setup
	@cmake --preset $* --log-level=NOTICE
	@cmake --build --preset $*
	@$(SAME_ADDRESSES) ctest --preset $* $(CTEST_ARGS)
test-asan: ## Run all tests with the address, leak and undefined-behaviour sanitizers
test-tsan: ## Run all tests with the thread sanitizer

build-arm:
	@tools/setup arm
	@cmake --preset aarch64 --log-level=NOTICE
	@cmake --build --preset aarch64

test-arm: build-arm ## Build for 64-bit Arm and run all tests in emulation
	@ctest --preset aarch64

coverage: setup ## Run the library's tests with its lines counted: build/coverage/report
	@tools/setup coverage
	@cmake --preset coverage --log-level=NOTICE
	@cmake --build --preset coverage
	@find build/coverage -name '*.gcda' -delete
	@ctest --preset coverage -E 'engine$$|engine_audio|examples|integration' $(CTEST_ARGS)
	@mkdir -p build/coverage/report
	@cd build/coverage && gcovr --root ../.. --filter ../../interface/ --filter ../../src/ --exclude-throw-branches \
		--html-details report/index.html --txt - --print-summary --fail-under-line 95 .

fuzz: setup ## Values and calls that are made up, ever new ones, for FUZZ_SECONDS=60 each, under the address sanitizer
	@cmake --preset asan --log-level=NOTICE
	@cmake --build --preset asan --target sonetrix sonetrix_record
	@SONETRIX_PRESET=asan SONETRIX_FUZZ_SECONDS=$(FUZZ_SECONDS) tests/run python/test_lists.py -k model
	@SONETRIX_PRESET=asan SONETRIX_FUZZ_SECONDS=$(FUZZ_SECONDS) tests/run python/test_hostile.py

test-matrix: setup ## Build and test against every suitable CPython on the machine
	@tools/test-matrix

test-references: setup ## Run the module's tests in the distribution's debug interpreter, counting references and blocks
	@tools/setup references
	@TESTS='callbacks$$|ends|engine_methods|every_call|hostile|lists|log|module|monitors' tools/test-matrix /usr/bin/python3.*-dbg

test-fresh: ## Try the first two commands on bare systems made by debootstrap; RELEASES="trixie sid"
	@tools/fresh-machine $(RELEASES)

package: setup ## Make Debian packages, in build/package, for the distribution's Python
	@tools/setup package
	@cmake --preset release -B build/package -DSONETRIX_PYTHON_ROOT=/usr -DSONETRIX_TESTS=OFF -DSONETRIX_BENCH=OFF \
		--log-level=NOTICE
	@cmake --build build/package
	@cd build/package && cpack && lintian --fail-on none *.deb

package-arm: build-arm ## Make Debian packages for 64-bit Arm, in build/aarch64
	@cd build/aarch64 && cpack

bench-programs:
	@tools/setup test
	@cmake --preset release --log-level=NOTICE
	@cmake --build --preset release --target bench-programs

bench: bench-programs ## Run the benchmarks; COMPARE=<commit> to compare with, PARTS="calls lists", JSON=<file>
	@$(BENCH) $(PARTS) $(COMPARE:%=--compare %) $(JSON:%=--json %)

bench-peers: bench-programs ## Build a Cython binding that the benchmarks show beside
	@tools/setup peers
	@cmake --preset release --log-level=NOTICE
	@cmake --build --preset release --target peer

lint: build ## Check formatting, clang-tidy and the source rules
	@tools/setup lint
	@tools/lint

soak: build ## Everything at once on a running engine; SECONDS=120
	@SONETRIX_CHURN_SECONDS=$(SECONDS) tests/run python/test_callbacks_live.py -k churn

format: ## Format all C and C++ sources in place
	@tools/setup lint
	@tools/lint --fix-format

docs-graph: program ## Draw docs/graph.svg anew, from examples/graph_dot.py
	@tools/setup test
	@build/release/bin/sonetrix-engine examples/graph_dot.py build/graph.dot
	@dot -Tsvg build/graph.dot -o docs/graph.svg

docs-console: program ## Draw docs/console.svg anew, from a session at the console
	@tools/setup test
	@python3 tools/record_console.py >build/console.svg
	@mv build/console.svg docs/console.svg

docs-performance: bench-peers ## Write docs/performance.md anew: ten minutes, on an idle machine
	@SONETRIX_BENCH_SECONDS=10 $(BENCH) --page docs/performance.md

docs-reference: program ## Write docs/reference.md anew, from the stub and the docstrings
	@build/release/bin/sonetrix-engine tools/reference.py >build/reference.md
	@mv build/reference.md docs/reference.md

clean: ## Remove all build results
	rm -rf build
