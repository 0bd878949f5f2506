# The two commands of the README. Both install missing Debian packages first.
#   make demo   build, start the local sandbox backend, run the main job against it
#   make test   build and run every test (plain, ASan+UBSan, and TSan for delivery)
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
# Where we develop (and in CI) warnings are errors; a plain cmake build leaves
# them warnings.
CMAKE_FLAGS += -DVELQUIN_WERROR=ON
# ccache, when installed, makes rebuilds and other checkouts of the tree
# cheap; paths below this folder hash alike in every checkout.
ifneq ($(shell command -v ccache 2>/dev/null),)
CMAKE_FLAGS += -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
export CCACHE_BASEDIR ?= $(CURDIR)
export CCACHE_NOHASHDIR ?= true
endif

.PHONY: demo test deps build build-asan build-tsan clean

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build build -j$(JOBS)

# The sanitizer build uses clang when present, which also builds the
# libFuzzer targets for the parsers.
CLANG := $(shell command -v clang++ 2>/dev/null)
ifneq ($(CLANG),)
ASAN_COMPILERS := -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELQUIN_BUILD_FUZZ=ON
endif

build-asan: deps
	@cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DVELQUIN_SANITIZE=address,undefined \
	  -DVELQUIN_BUILD_BENCH=OFF $(ASAN_COMPILERS) $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/asan -j$(JOBS)

build-tsan: deps
	@cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DVELQUIN_SANITIZE=thread \
	  -DVELQUIN_BUILD_BENCH=OFF -DVELQUIN_TSAN_ONLY=ON $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/tsan -j$(JOBS)

demo: build
	@scripts/demo

test: build build-asan build-tsan
	@scripts/run-tests

clean:
	rm -rf build
