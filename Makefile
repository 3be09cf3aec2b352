# Thin wrapper over the CMake presets. Every goal installs what is missing first.
#   make demo    the extension host on the bundled samples, against the local service
#   make test    builds everything and runs every test, then the unit tests under sanitizers
#   make bench   the benchmarks in bench/
.PHONY: all bootstrap configure build test test-fast asan demo bench format clean

WERROR := $(if $(CI),ON,OFF)

all: build

bootstrap:
	@scripts/bootstrap

configure: bootstrap
	@cmake --preset default -DHERALD_WERROR=$(WERROR) >/dev/null

build: configure
	@cmake --build --preset default

test-fast: build
	@ctest --preset default

asan: bootstrap
	@cmake --preset asan -DHERALD_WERROR=$(WERROR) >/dev/null
	@cmake --build --preset asan
	@ctest --preset asan

test: test-fast asan

demo: build
	@scripts/demo

bench: build
	@scripts/bench

format:
	@git ls-files '*.cpp' '*.hpp' | xargs clang-format -i

clean:
	@rm -rf build
