# make test   bootstrap, build Linux and Windows, run every test natively, under
#             ASan+UBSan, and the Windows programs under wine
# make demo   bootstrap, build the module, tdoc and the emulator (Linux), run tdoc demo
# make build  build both platforms
# make tsan   build Linux with ThreadSanitizer and run every test program under it
# make bench  build the benchmarks (Release, native), run them all and print the table
# make scale  build Linux and run the load and stop tests at scale (minutes; not in make test)
SHELL := /bin/bash
JOBS  ?= $(shell nproc)
B      = build
GEN    = -G "Unix Makefiles"

.PHONY: all bootstrap build linux windows asan tsan test demo bench scale clean
all: build

bootstrap:
	@scripts/bootstrap.sh

$(B)/linux/Makefile:
	cmake -S . -B $(B)/linux $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
$(B)/asan/Makefile:
	cmake -S . -B $(B)/asan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DTPCSDK_SANITIZE=ON >/dev/null
$(B)/tsan/Makefile:
	cmake -S . -B $(B)/tsan $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTPCSDK_TSAN=ON >/dev/null
$(B)/win64/Makefile:
	cmake -S . -B $(B)/win64 $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake >/dev/null

linux: $(B)/linux/Makefile
	@cmake --build $(B)/linux -j$(JOBS)
windows: $(B)/win64/Makefile
	@cmake --build $(B)/win64 -j$(JOBS)
asan: $(B)/asan/Makefile
	@cmake --build $(B)/asan -j$(JOBS)
build: linux windows

tsan: $(B)/tsan/Makefile
	@cmake --build $(B)/tsan -j$(JOBS)
	@rm -f $(B)/tsan-results.txt
	@TSAN_OPTIONS=second_deadlock_stack=1 scripts/run-tests.sh native $(B)/tsan $(B)/tsan-results.txt
	@awk '{printf "%d passed, %d failed\n", $$1, $$2; exit ($$2 > 0 || $$1 == 0)}' $(B)/tsan-results.txt

demo: bootstrap $(B)/linux/Makefile
	@cmake --build $(B)/linux -j$(JOBS) --target tpcsdk tdoc tdoc-emulator
	@$(B)/linux/bin/tdoc demo

test: bootstrap
	@$(MAKE) --no-print-directory linux windows asan
	@rm -f $(B)/results.txt
	@scripts/run-tests.sh native $(B)/linux $(B)/results.txt
	@ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan.supp \
	  UBSAN_OPTIONS=print_stacktrace=1 \
	  scripts/run-tests.sh native $(B)/asan $(B)/results.txt
	@scripts/run-tests.sh wine $(B)/win64 $(B)/results.txt $(B)/linux/bin/tdoc-emulator
	@awk '{p+=$$1; f+=$$2} END {printf "%d passed, %d failed\n", p, f; exit (f > 0 || p == 0)}' $(B)/results.txt

scale: $(B)/linux/Makefile
	@cmake --build $(B)/linux -j$(JOBS) --target test_scale
	@$(B)/linux/bin/test_scale

bench:
	@cmake -S . -B $(B)/bench $(GEN) -DCMAKE_BUILD_TYPE=Release -DTPCSDK_BENCH=ON >/dev/null
	@cmake --build $(B)/bench -j$(JOBS) --target benchmarks
	@scripts/bench-table.sh $(B)/bench

clean:
	rm -rf $(B)
