# The commands of daily work; `make help` lists them. Each works as the first one after a clone: it
# installs what it needs (Debian: through apt), configures, builds and runs. CMake does the work and
# everything made is below build/, so clones do not disturb each other.
SHELL := bash
.SHELLFLAGS := -euo pipefail -c
.NOTPARALLEL:
MAKEFLAGS += --no-print-directory --no-builtin-rules
export LC_ALL := C.UTF-8

# A step that prints one line, and its output only when it fails: $(call step,NAME,TEXT,COMMAND)
step = printf '==> %s\n' '$(2)'; mkdir -p build; \
       $(3) >build/$(1).log 2>&1 || { cat build/$(1).log; exit 1; }
configure = $(call step,configure-$(1),Configuring the $(1) build,cmake --preset $(1))
# Ninja shows its progress on a terminal; elsewhere only what compilers say.
build = printf '==> %s\n' 'Building in build/$(1)'; \
        quiet=--quiet; if [[ -t 1 ]]; then quiet=; fi; \
        cmake --build --preset $(1) $(if $(2),--target $(2)) -- $$quiet

test_sanitized = $(call configure,$(1)); $(call build,$(1)); \
        printf '==> Testing the %s build\n' $(1); \
        tools/test-sanitized $(1)

# What the demonstration runs; the tests' libraries are not waited for.
DEMO_TARGETS := tnw tarnd tnwsh ws2_32_wine afunix_probe
DIST_TARGETS := package_files ws2_32_wine afunix_probe
OWN_CODE = git ls-files -co --exclude-standard -- '*.cpp' '*.h' '*.c'

.PHONY: help demo test test-slow bench-cloud build host-build host-test format check-format tidy \
        dist check-dist lines clean packages cross-prefix

help: ## Lists these commands
	@sed -n 's/^\([a-z-]*\):.*## \(.*\)/  make \1@\2/p' $(firstword $(MAKEFILE_LIST)) | \
	  while IFS=@ read -r name text; do printf '%-18s %s\n' "$$name" "$$text"; done

demo: cross-prefix build/windows/build.ninja ## Watches a cloud drive on real files (CLOUD=rclone: over WebDAV)
	@$(call build,windows,$(DEMO_TARGETS))
	@tools/demo $(CLOUD)

test: build host-build ## Builds everything and runs the tests, but for the slow ones
	@status=0; \
	for preset in host windows; do \
	  printf '==> Testing the %s build\n' $$preset; \
	  ctest --preset $$preset || status=1; \
	done; \
	exit $$status

test-slow: build ## Runs the tests that take minutes
	@ctest --preset windows-slow

build: cross-prefix ## Builds the DLL, the service, the shell and the tests for Windows
	@$(call configure,windows)
	@$(call build,windows)

host-build: packages
	@$(call configure,host)
	@$(call build,host)

host-test: packages ## Runs the tests of the portable modules with sanitizers, on this machine
	@$(call test_sanitized,host-asan)
	@$(call test_sanitized,host-tsan)

format: ## Formats the code
	@tools/install-packages clang-format-16
	@$(OWN_CODE) | xargs -d '\n' clang-format-16 -i

check-format: ## Fails when some code is not formatted
	@tools/install-packages clang-format-16
	@echo '==> Checking the format'
	@$(OWN_CODE) | xargs -d '\n' clang-format-16 --dry-run -Werror

tidy: cross-prefix ## Looks for likely faults, and for names that differ from the rest, with clang-tidy
	@tools/install-packages clang-tidy-16
	@$(call configure,host)
	@$(call configure,windows)
	@tools/tidy

bench-cloud: cross-prefix build/windows/build.ninja ## Compares the drive with rclone's own mount over a slow line
	@tools/install-packages fuse3
	@$(call build,windows,$(DEMO_TARGETS))
	@tools/bench-cloud

dist: cross-prefix ## Makes the package for users of the library: build/dist/*.zip
	@tools/install-packages llvm
	@$(call configure,windows)
	@$(call build,windows,$(DIST_TARGETS))
	@tools/make-dist

check-dist: dist ## Builds the examples against the package, and checks the rest of it
	@tools/install-packages clang-16 lld unzip
	@tools/check-dist

lines: ## Counts the lines of the product and of its tests, which are to be 0.40 of them at most
	@tools/count-lines

clean: ## Removes everything that was built here
	rm -rf build

packages:
	@tools/install-packages

cross-prefix: packages
	@tools/build-cross-prefix

build/windows/build.ninja: | cross-prefix
	@$(call configure,windows)
