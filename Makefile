# The commands of the README. Each one installs what it needs first (scripts/install-deps.sh).

.DEFAULT_GOAL := build
.PHONY: build build-asan demo demo-hosts test test-hosts test-long bench stress stress-hosts check-release check-asan check-tsan check-tidy tidy check-format check-models fuzz coverage docs packages install deps clean

JOBS ?= $(shell nproc)
# Tests wait for one another's processes more than they compute.
TEST_JOBS ?= $(shell expr 4 \* $(JOBS))
PREFIX ?= /usr/local

deps:
	@scripts/install-deps.sh

# What is shipped, in build/release.
build: deps
	$(began)
	@cmake --preset release > /dev/null
	@cmake --build --preset release -j $(JOBS)

# Saves a real environment on an appliance of four controllers and brings it back.
demo: build
	@scripts/demo.sh build/release

# The same job on four hosts, with the member of the cluster killed that leads.
demo-hosts: build
	@scripts/demo_hosts.sh build/release

# What needs a cluster or hosts of its own, and the suite of the lab on the etcd platform.
test-hosts: build
	ctest --test-dir build/release -j $(TEST_JOBS) -L hosts --output-on-failure
	tests/hosts/lab_suite.sh build/release

# What 'make test' has no time for: the packages, a kill at each point, clusters and hosts.
test-long: build
	KESTA_TEST_KILL_STEP=1 ctest --test-dir build/release -j $(TEST_JOBS) -L long --output-on-failure
	KESTA_TEST_KILL_STEP=1 ctest --test-dir build/release -j $(TEST_JOBS) -R Killed --output-on-failure

# Every test: as shipped, under the address, undefined behaviour and thread sanitizers, and the
# static checks of the library, its platforms and the lab.
test: check-format check-release check-asan check-tsan check-tidy
	@echo "All tests passed."

# Each part says when it began: where the time goes is seen in any log.
began = @date '+%T $@ begins'

check-release: build
	$(began)
	ctest --preset release -j $(TEST_JOBS)

check-asan: build-asan
	$(began)
	ctest --preset asan -j $(TEST_JOBS)

build-asan: deps
	$(began)
	cmake --preset asan > /dev/null
	cmake --build --preset asan -j $(JOBS)

# Only the programs with threads of their own.
check-tsan: deps
	$(began)
	cmake --preset tsan > /dev/null
	cmake --build --preset tsan -j $(JOBS) --target threads_test etcd_threads_test
	ctest --preset tsan -j $(TEST_JOBS)

# What has changed since it was found clean; 'make tidy' writes down what is.
check-tidy: build-asan
	$(began)
	scripts/tidy.py build/asan --jobs $(JOBS)

tidy: build-asan
	scripts/tidy.py build/asan --jobs $(JOBS) --write

# The look of the sources.
check-format: deps
	$(began)
	scripts/format.sh --check

# The models of the locks, as check-release goes through them too: what is excluded, and the shortest runs for what is not.
check-models: deps
	$(began)
	scripts/check_models.sh

# A minute for each target by itself; check-asan gives them some hundreds or thousands of runs.
fuzz: build-asan
	scripts/fuzz.sh build/asan -max_total_time=60

# Measures, and writes the table of docs/performance.md.
bench: build
	@scripts/bench.sh build/release

# A storm of locks between the controllers of a lab, of any length.
SECONDS ?= 60
stress: build
	scripts/stress.sh build/release --seconds $(SECONDS)

# The same over hosts, whose cluster fails meanwhile.
stress-hosts: build
	scripts/stress_hosts.sh build/release $(SECONDS)

# Which lines and branches of the library the tests run.
coverage: deps
	cmake --preset coverage > /dev/null
	cmake --build --preset coverage -j $(JOBS) --target library_test processes_test threads_test power_cut_test \
		environment_shower
	scripts/coverage.sh build/coverage build/coverage/report

# The reference of the headers, in build/docs/html.
docs: deps
	@mkdir -p build
	doxygen docs/reference/Doxyfile
	@echo "build/docs/html/index.html"

# Debian packages, in build/packages.
packages: deps
	scripts/packages.sh build/packages

install: build
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build
