# Thin wrapper over the CMake presets. Every goal installs what is missing first.
#   make demo    the extension host on the bundled samples, against the local service
#   make test    builds everything and runs every test, then the unit tests under sanitizers
#                (asan: address and undefined behaviour; tsan: data races in the threaded parts)
#   make bench   the benchmarks in bench/
.PHONY: all bootstrap configure build test test-fast asan tsan demo bench format clean

# CI turns warnings into errors; otherwise a build keeps what it was configured with, so that
# make demo after CI=true make test does not rebuild everything for a changed flag.
WERROR := $(if $(CI),-DHERALD_WERROR=ON,)

all: build

bootstrap:
	@scripts/bootstrap

configure: bootstrap
	@cmake --preset default $(WERROR) >/dev/null

build: configure
	@cmake --build --preset default

test-fast: build
	@ctest --preset default

asan: bootstrap
	@cmake --preset asan $(WERROR) >/dev/null
	@cmake --build --preset asan
	@ctest --preset asan

# Its integration tests start the local service of the default build (build/bin), which
# needs no ThreadSanitizer of its own.
tsan: configure
	@cmake --build --preset default --target herald-sandbox
	@cmake --preset tsan $(WERROR) >/dev/null
	@cmake --build --preset tsan
	@ctest --preset tsan

test: test-fast asan tsan

demo: build
	@scripts/demo

bench: build
	@scripts/bench

format:
	@git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

clean:
	@rm -rf build
