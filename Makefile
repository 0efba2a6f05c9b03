# The one door. `make` lists what there is; PRESET chooses the build (release, debug, asan, tsan).

PRESET ?= release
JOBS ?= $(shell nproc)
PYTHON := /usr/bin/python3
BUILD := build/$(PRESET)
SOURCES = $(shell git ls-files -co --exclude-standard '*.cpp' '*.h')
SCRIPTS = $(shell git ls-files -co --exclude-standard '*.sh' '.ci/*' \
	packaging/relay_server/post* packaging/relay_server/prerm)

# Warnings are errors where a machine reads them.
CMAKE_FLAGS := $(if $(CI),-DCRC_WERROR=ON)

# Debian keeps web servers and network tools where an ordinary user's PATH does not lead.
export PATH := $(PATH):/usr/local/sbin:/usr/sbin:/sbin

# Nothing is written outside build/.
export PYTHONDONTWRITEBYTECODE := 1

.DEFAULT_GOAL := help
.PHONY: help setup setup-checks build programs test fuzz torture torture-with faults soak mutants \
	package package-test coverage memcheck cross demo bench format lint clean

help: ## list the commands
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  make %-12s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)
	@echo "  PRESET=release|debug|asan|tsan chooses the build; release unless told otherwise"

setup: ## install the Debian packages that are missing
	@deps/setup.sh

setup-checks:
	@deps/setup.sh checks

$(BUILD)/build.ninja: | setup
	@echo "configuring $(PRESET)"
	@cmake --preset $(PRESET) $(CMAKE_FLAGS)

build: setup $(BUILD)/build.ninja ## build everything into build/PRESET/bin
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: setup-checks build ## build, then run every test
	@ctest --preset $(PRESET)

# SECONDS=20 is the short form.
fuzz: setup-checks ## fuzz every parser for SECONDS each (600), two at a time (FUZZERS="a b": those)
	@[ -f build/fuzz/build.ninja ] || cmake --preset fuzz
	@cmake --build --preset fuzz -j $(JOBS)
	@$(PYTHON) tests/fuzz/fuzz.py --seconds $(or $(SECONDS),600) $(FUZZERS)

memcheck: setup-checks build ## run the daemon's black-box suite under valgrind
	@cd tests/system && CRC_VALGRIND=1 CRC_BIN=$(CURDIR)/$(BUILD)/bin \
		$(PYTHON) -m pytest -q -n 8 --ignore=bus --ignore=relay --ignore=relay_browser \
		--ignore=supervisor .

# With the address sanitizer, unless another PRESET is asked for: it sees what a failure breaks.
torture: ## fail every call once (SHORT=1: fewer; SCENARIO=name; N=number: that call, with details)
	@$(MAKE) --no-print-directory torture-with \
		PRESET=$(if $(filter command%,$(origin PRESET)),$(PRESET),asan)

torture-with: setup-checks $(BUILD)/build.ninja
	@cmake --build --preset $(PRESET) -j $(JOBS) --target torture_interpose \
		cloud_relay_client cloud_relay_supervisor relay_server ubusd ubus_tool
	@CRC_BIN=$(CURDIR)/$(BUILD)/bin $(PYTHON) tests/torture/torture.py $(if $(SHORT),--short) \
		$(if $(SCENARIO),--scenario '$(SCENARIO)') $(if $(N),--n $(N)) $(if $(LATER),--later)

# CRC_BIN names programs that are built already.
faults: setup-checks $(if $(CRC_BIN),,programs) ## break the line in every way, 100 times each (TIMES=4: in 2 minutes; SEED=)
	@export CRC_BIN='$(or $(CRC_BIN),$(CURDIR)/$(BUILD)/bin)'; $(PYTHON) tests/faults/run.py \
		$(if $(TIMES),--times $(TIMES)) $(if $(SEED),--seed $(SEED))

soak: setup-checks $(if $(CRC_BIN),,programs) ## a million requests with faults among them (REQUESTS=; SECONDS=45: in a minute; SEED=)
	@export CRC_BIN='$(or $(CRC_BIN),$(CURDIR)/$(BUILD)/bin)'; $(PYTHON) tests/soak/run.py \
		$(if $(REQUESTS),--requests $(REQUESTS)) $(if $(SECONDS),--seconds $(SECONDS)) \
		$(if $(SEED),--seed $(SEED))

ROOMS := core control task session transport queue handshake
TOOL := build/mutants/tool

$(TOOL): tests/mutants/requirements.txt
	@$(PYTHON) -m pip install --quiet --root-user-action=ignore --no-deps --require-hashes \
		--upgrade --target $@ -r $<
	@touch $@

mutants: setup-checks $(TOOL) ## see which changes of src/ the unit tests notice (COUNT=500 SEED=1)
	@$(MAKE) --no-print-directory PRESET=mutants build/mutants/build.ninja
	@cmake --build --preset mutants -j $(JOBS) --target $(ROOMS:%=%_tests)
	@PYTHONPATH=$(TOOL) nice -n 10 $(PYTHON) tests/mutants/mutants.py build/mutants \
		--count $(or $(COUNT),500) --seed $(or $(SEED),1) \
		$(if $(RESUME),--resume) $(if $(AGAIN),--again)

coverage: setup-checks ## run every test and show which lines and branches of each room ran
	@$(MAKE) --no-print-directory PRESET=coverage build
	@find build/coverage -name '*.gcda' -delete
	@status=0; ctest --preset coverage || status=1; \
	$(PYTHON) tests/coverage/rooms.py build/coverage || status=1; exit $$status

cross: ## build and test what runs on the router for other CPUs (CPU="armhf s390x": those)
	@packaging/cross.sh $(CPU)

package: setup ## make the Debian package of relay_server, in build/package
	@[ -f build/release/build.ninja ] || cmake --preset release $(CMAKE_FLAGS)
	@cmake --build --preset release -j $(JOBS) --target relay_server
	@cd build/release && cpack

# Root's alone: debootstrap makes the system, once; that takes minutes.
package-test: setup-checks package ## install, use, upgrade and purge the package in a fresh Debian (root)
	@cd tests/packaging && CRC_BIN=$(CURDIR)/build/release/bin \
		$(PYTHON) -m pytest -q -m debian test_relay_in_debian.py

# What the demo and the long runs start; tests take much longer to build.
programs: setup $(BUILD)/build.ninja
	@cmake --build --preset $(PRESET) -j $(JOBS) \
		--target cloud_relay_client cloud_relay_supervisor relay_server ubusd ubus_tool

demo: programs ## relay a page of a real web server on this machine (ONCE=1: end after the page)
	@CRC_BIN=$(CURDIR)/$(BUILD)/bin $(PYTHON) demo/demo.py $(if $(ONCE),--once)

bench: setup-checks build ## measure all; AGAINST=PROGRAM: in turns with another build of the daemon, too
	@export CRC_BIN=$(CURDIR)/$(BUILD)/bin; status=0; \
	$(PYTHON) bench/chain.py --json $(BUILD)/chain.json || status=1; \
	$(PYTHON) bench/relay_bench.py --json $(BUILD)/relay.json || status=1; \
	$(BUILD)/bin/bus_bench || status=1; \
	$(PYTHON) bench/daemon_bench.py --json $(BUILD)/daemon.json \
		$(if $(AGAINST),--against '$(AGAINST)') || status=1; \
	exit $$status

format: setup-checks ## format the sources
	@clang-format-14 -i $(SOURCES)

# Read without precompiled headers, which clang-tidy cannot: so each file includes what it needs.
build/lint/build.ninja: | setup-checks
	@cmake --preset release -B build/lint -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null

lint: setup-checks build/lint/build.ninja ## check format, common mistakes and scripts; changes nothing
	@clang-format-14 --dry-run --Werror $(SOURCES)
	@shellcheck $(SCRIPTS)
	@run-clang-tidy-14 -quiet -p build/lint -j $(JOBS) \
		'^$(CURDIR)/(?!relay/boost)(src|bus|supervisor|relay|bench|tests)/.*\.cpp$$' 2>/dev/null

clean: ## remove everything that was built
	rm -rf build
