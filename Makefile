# The commands of daily work; `make help` lists them. Each works as the first one after a clone: it
# configures, builds and runs. CMake does the work and everything made is below build/, so clones do
# not disturb each other.
#
# `make packages` alone installs packages (Debian: through apt), and may ask for a password; `make demo`
# and `make test` call it. Where a package is missing, the other commands say so and stop.
SHELL := bash
.SHELLFLAGS := -euo pipefail -c
.NOTPARALLEL:
MAKEFLAGS += --no-print-directory --no-builtin-rules
export LC_ALL := C.UTF-8

# A step that prints one line, and its output only when it fails: $(call step,NAME,TEXT,COMMAND)
step = printf '==> %s\n' '$(2)'; mkdir -p build; \
       $(3) >build/$(1).log 2>&1 || { cat build/$(1).log; exit 1; }
configure = $(call step,configure-$(1),Configuring the $(1) build,cmake --preset $(1) $(2))
# Ninja shows its progress on a terminal; elsewhere only what compilers say.
build = printf '==> %s\n' 'Building in build/$(1)'; \
        quiet=--quiet; if [[ -t 1 ]]; then quiet=; fi; \
        cmake --build --preset $(1) $(if $(2),--target $(2)) -- $$quiet

test_sanitized = $(call configure,$(1)); $(call build,$(1)); \
        printf '==> Testing the %s build\n' $(1); \
        tools/test-sanitized $(1)

# What the demonstration runs; the tests' libraries are not waited for.
DEMO_TARGETS := tnw tarnd tnwsh ws2_32_wine afunix_probe
SOAK_TARGETS := tnw tarnd soak_test ws2_32_wine afunix_probe
PROGRAMS := $(DEMO_TARGETS) tnwdav tnwlog cfflprint first_drive
DIST_TARGETS := package_files ws2_32_wine afunix_probe
# What the benchmarks run, for Windows and for this machine. Both want BENCHMARK_SOURCE.
BENCH_TARGETS := tnw tarnd bench_drive bench_parts bench_tree ws2_32_wine afunix_probe
configure_bench = tools/benchmark-source >/dev/null; \
        $(call configure,$(1),-DBENCHMARK_SOURCE="$$(tools/benchmark-source)")
# $(call needs,STEP): stops when a package of the build, or of the step, is missing
needs = tools/install-packages --check $(1)
OWN_CODE = git ls-files -co --exclude-standard -- '*.cpp' '*.h' '*.c'

.PHONY: help demo test programs test-slow soak bench bench-peer bench-build bench-cloud build \
        host-build host-test fuzz ubsan-test format check-format tidy \
        dist check-dist check check-docs check-page reference lines clean packages needed-packages \
        cross-prefix

help: ## Lists these commands
	@sed -n 's/^\([a-z-]*\):.*## \(.*\)/  make \1@\2/p' $(firstword $(MAKEFILE_LIST)) | \
	  while IFS=@ read -r name text; do printf '%-19s %s\n' "$$name" "$$text"; done

demo: packages build/windows/build.ninja ## Shows a drive on real files (CLOUD=rclone: over WebDAV)
	@$(call build,windows,$(DEMO_TARGETS))
	@tools/demo $(CLOUD)

test: packages build host-build ## Builds everything and runs the tests, but for the slow ones
	@status=0; \
	for preset in host windows; do \
	  printf '==> Testing the %s build\n' $$preset; \
	  ctest --preset $$preset || status=1; \
	done; \
	exit $$status

packages: ## Installs what the build needs (FOR=check: what all need)
	@tools/install-packages $(FOR)

build: cross-prefix ## Builds the DLL, the service, the shell and the tests
	@$(call configure,windows)
	@$(call build,windows)

programs: cross-prefix ## Builds the DLL and the programs, without the tests
	@$(call configure,windows)
	@$(call build,windows,$(PROGRAMS))

test-slow: build ## Runs the tests that take minutes
	@ctest --preset windows-slow

soak: cross-prefix ## Eight threads over a cloud whose weather changes (T=SECONDS SEED=N)
	@$(call configure,windows)
	@$(call build,windows,$(SOAK_TARGETS))
	@WINE_RUN_ALONE=1 TNW_SOAK_SECONDS=$(or $(T),1200) $(if $(SEED),TNW_SOAK_SEED=$(SEED)) \
	  tools/wine-run build/windows/bin/soak_test.exe

host-build: needed-packages
	@$(call configure,host)
	@$(call build,host)

host-test: needed-packages ## Runs the tests of the portable modules with sanitizers
	@$(call test_sanitized,host-asan)
	@$(call test_sanitized,host-tsan)

fuzz: needed-packages ## Gives our readers arbitrary bytes, T=60 seconds each
	@$(call needs,fuzz)
	@$(call configure,host-fuzz)
	@$(call build,host-fuzz,fuzz_targets)
	@tools/fuzz $(or $(T),60)

ubsan-test: cross-prefix ## Runs the Windows tests, stopping at undefined behaviour
	@$(call configure,windows-ubsan)
	@$(call build,windows-ubsan)
	@ctest --preset windows-ubsan

check: ## Runs all that the continuous integration runs: over an hour
	@$(call needs,check)
	@.ci/run

format: ## Formats the code
	@$(call needs,format)
	@$(OWN_CODE) | xargs -d '\n' clang-format-16 -i

check-format: ## Fails when some code is not formatted
	@$(call needs,format)
	@echo '==> Checking the format'
	@$(OWN_CODE) | xargs -d '\n' clang-format-16 --dry-run -Werror

tidy: cross-prefix ## Looks for likely faults and odd names, with clang-tidy
	@$(call needs,tidy)
	@$(call configure,host)
	@$(call configure,windows)
	@tools/tidy

bench: bench-build ## Measures calls against their limits (ROWS=PATTERN)
	@tools/bench --rows '$(ROWS)'

bench-peer: bench-build ## Compares the drive with rclone's mount of one tree
	@tools/bench --peer --rows '$(ROWS)'

bench-build: cross-prefix
	@$(call needs,bench)
	@$(call configure_bench,windows)
	@$(call configure_bench,host)
	@$(call build,windows,$(BENCH_TARGETS))
	@$(call build,host,bench_parts)

bench-cloud: cross-prefix build/windows/build.ninja ## Compares the drive with rclone's mount on a slow line
	@$(call needs,bench)
	@$(call build,windows,$(DEMO_TARGETS))
	@tools/bench-cloud

dist: cross-prefix ## Makes the package for users of the library: build/dist/*.zip
	@$(call needs,dist)
	@$(call configure,windows)
	@$(call build,windows,$(DIST_TARGETS))
	@tools/make-dist

check-dist: dist ## Builds the examples against the package, and checks it
	@$(call needs,check-dist)
	@tools/check-dist

reference: ## Makes the reference of all calls: build/reference/html
	@$(call needs,reference)
	@tools/make-reference

check-page: needed-packages ## Opens a page of tnwlog in a browser without a screen
	@$(call needs,check-page)
	@$(call configure,host)
	@$(call build,host,tnwlog)
	@tools/check-page

check-docs: ## Checks the documents: links, and the protocol's tables
	@tools/check-docs

lines: ## Counts lines of code (tests: 0.40 of the product at most)
	@tools/count-lines

clean: ## Removes everything that was built here
	rm -rf build

needed-packages:
	@$(call needs)

# The libraries for Windows are downloaded as sources and built once, into the user's cache.
cross-prefix: needed-packages
	@tools/build-cross-prefix

build/windows/build.ninja: | cross-prefix
	@$(call configure,windows)
