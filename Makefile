# Entry points for people: `make` builds, `make test` builds and runs every
# test, `make demo` runs qorwd and qorhost on the example CAP files. Run as
# root, the targets first install the Debian packages the build needs.

BUILD_DIR     ?= build
SANITIZE_DIR  ?= build-sanitize
TSAN_DIR      ?= build-tsan
CLANG_DIR     ?= build-clang
FUZZ_DIR      ?= build-fuzz
BENCH_DIR     ?= build-bench
PACKAGE_DIR   ?= build-package
BUILD_TYPE    ?= RelWithDebInfo
JOBS          ?= $(shell nproc 2>/dev/null || echo 2)
GENERATOR     := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
DEMO_DIR      ?= $(CURDIR)/build/demo

DEB_PACKAGES  := build-essential cmake ninja-build pkg-config libexpat1-dev libicu-dev \
                 googletest libgtest-dev libgmock-dev libxml2-utils clang \
                 libbenchmark-dev python3 libcpp-httplib-dev nlohmann-json3-dev \
                 prometheus chromium chromium-driver python3-selenium curl \
                 scdoc man-db groff-base \
                 libsystemd-dev systemd \
                 logrotate faketime gnuplot-nox \
                 lintian dpkg-dev file

.PHONY: all build build-clang deps install package test test-sanitize test-tsan fuzz fuzz-run bench bench-micro bench-supervise bench-run soak demo clean help

all: build

help:
	@echo "make               build libqor and the programs into $(BUILD_DIR)/"
	@echo "make test          build and run the whole test suite"
	@echo "make build-clang   build everything with clang too ($(CLANG_DIR)/), warnings as errors"
	@echo "make test-sanitize the suite under AddressSanitizer and UBSan ($(SANITIZE_DIR)/)"
	@echo "make test-tsan     the suite under ThreadSanitizer ($(TSAN_DIR)/)"
	@echo "make fuzz          build the libFuzzer targets with clang ($(FUZZ_DIR)/fuzz/)"
	@echo "make fuzz-run      run one fuzz target: FUZZ_TARGET=fuzz_cap_file FUZZ_TIME=600"
	@echo "make bench         build the benchmark programs ($(BENCH_DIR)/, RelWithDebInfo)"
	@echo "make bench-micro   run the micro benchmarks; JSON results in $(BENCH_DIR)/bench-micro.json"
	@echo "make demo          run qorwd, which keeps qorhost alive on examples/cap (Ctrl-C stops both)"
	@echo "make bench-supervise  measure qorhost supervising 10 and 100 agents (bench/README.md)"
	@echo "make bench-run     both: bench-micro, then bench-supervise"
	@echo "make soak          qorhost under AddressSanitizer for SOAK_MINUTES=60 with kills and CAP changes (bench/README.md)"
	@echo "make install       build, then install into /usr/local (PREFIX=/opt/qor for another prefix, DESTDIR=DIR to stage)"
	@echo "make package       the Debian package $(PACKAGE_DIR)/qor_<version>_<arch>.deb (prefix /usr, no tests)"
	@echo "make deps          install the Debian packages the build needs (as root)"
	@echo "make clean         remove the build folders"

deps:
	@missing=""; \
	for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -z "$$missing" ]; then exit 0; fi; \
	if [ "$$(id -u)" = "0" ]; then \
	  echo "Installing:$$missing"; \
	  apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get install -y -q $$missing; \
	else \
	  echo "Missing Debian packages:$$missing"; \
	  echo "Run 'sudo make deps' (or install them yourself) and try again."; \
	  exit 1; \
	fi

$(BUILD_DIR)/build.ninja $(BUILD_DIR)/Makefile: | deps
	cmake -S . -B $(BUILD_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

build: deps $(BUILD_DIR)/$(if $(GENERATOR),build.ninja,Makefile)
	cmake --build $(BUILD_DIR) -j $(JOBS)

# The same build with clang, whose warnings (thread-safety analysis included)
# are errors too; CI runs it before the suite.
build-clang: deps
	CC=clang CXX=clang++ cmake -S . -B $(CLANG_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build $(CLANG_DIR) -j $(JOBS)

# PREFIX is kept in the build folder's cache: the units and the folders of
# the install name it, so a later `make install` without PREFIX keeps it.
# DESTDIR stages the install under a folder, as packagers do.
install: deps $(BUILD_DIR)/$(if $(GENERATOR),build.ninja,Makefile)
	$(if $(PREFIX),cmake $(BUILD_DIR) -DCMAKE_INSTALL_PREFIX=$(PREFIX))
	cmake --build $(BUILD_DIR) -j $(JOBS)
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD_DIR)

# The Debian package, in a build folder of its own with the prefix /usr and
# without the tests. Debian 12 wants the units in /lib/systemd/system. The
# compiler and linker flags are Debian's hardening ones (fortified functions,
# stack protector, relocations read-only and bound at start), given on every
# configure so that an older folder takes them too; -Wdate-time stays out,
# since each unit's trace record names its build date on purpose.
PACKAGE_HARDENING := DEB_BUILD_MAINT_OPTIONS=hardening=+all
package: deps
	cmake -S . -B $(PACKAGE_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_INSTALL_PREFIX=/usr -DQOR_BUILD_TESTS=OFF -DQOR_SYSTEMD_UNIT_DIR=/lib/systemd/system \
	  -DCMAKE_C_FLAGS="$$($(PACKAGE_HARDENING) dpkg-buildflags --get CFLAGS) -D_FORTIFY_SOURCE=2" \
	  -DCMAKE_CXX_FLAGS="$$($(PACKAGE_HARDENING) dpkg-buildflags --get CXXFLAGS) -D_FORTIFY_SOURCE=2" \
	  -DCMAKE_EXE_LINKER_FLAGS="$$($(PACKAGE_HARDENING) dpkg-buildflags --get LDFLAGS)" \
	  -DCMAKE_SHARED_LINKER_FLAGS="$$($(PACKAGE_HARDENING) dpkg-buildflags --get LDFLAGS)"
	cmake --build $(PACKAGE_DIR) -j $(JOBS)
	cd $(PACKAGE_DIR) && cpack -G DEB
	@ls $(PACKAGE_DIR)/*.deb

test: build
	cd $(BUILD_DIR) && ctest -j $(JOBS) --output-on-failure --timeout 300

# The sanitizer build uses clang: GCC 12's AddressSanitizer runtime stops on
# an internal check when a thread is cancelled in its sleep and unwinds, which
# the service's shutdown does by design.
test-sanitize: deps
	CC=clang CXX=clang++ cmake -S . -B $(SANITIZE_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DQOR_SANITIZE=ON
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest -j $(JOBS) --output-on-failure --timeout 600

# The ThreadSanitizer build uses clang too. tsan.supp holds the few
# reports that come from outside our code, each with its reason.
test-tsan: deps
	CC=clang CXX=clang++ cmake -S . -B $(TSAN_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DQOR_TSAN=ON
	cmake --build $(TSAN_DIR) -j $(JOBS)
	cd $(TSAN_DIR) && TSAN_OPTIONS="suppressions=$(CURDIR)/tsan.supp halt_on_error=1 second_deadlock_stack=1" \
	  ctest -j $(JOBS) --output-on-failure --timeout 600

# The fuzz targets of fuzz/, built by clang with libFuzzer, AddressSanitizer
# and UBSan. `make test` replays their corpora in every build.
FUZZ_TARGETS := fuzz_cap_file fuzz_value_parsers fuzz_env_subst fuzz_state_file fuzz_socket_request fuzz_runas
FUZZ_TARGET  ?= fuzz_cap_file
FUZZ_TIME    ?= 600
FUZZ_RUNS    ?= -1
# A target's own dictionary, fuzz/<target>.dict, when it has one.
FUZZ_DICT    ?= $(if $(wildcard fuzz/$(FUZZ_TARGET).dict),fuzz/$(FUZZ_TARGET).dict,fuzz/cap.dict)

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQOR_FUZZ=ON -DQOR_BUILD_TESTS=OFF
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target $(FUZZ_TARGETS)

# New inputs go to $(FUZZ_DIR)/corpus/<target>, findings to
# $(FUZZ_DIR)/findings/<target>; the committed corpus is only read.
fuzz-run: fuzz
	@mkdir -p $(FUZZ_DIR)/corpus/$(FUZZ_TARGET) $(FUZZ_DIR)/findings/$(FUZZ_TARGET)
	$(FUZZ_DIR)/fuzz/$(FUZZ_TARGET) -dict=$(FUZZ_DICT) -max_total_time=$(FUZZ_TIME) -runs=$(FUZZ_RUNS) \
	  -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/findings/$(FUZZ_TARGET)/ \
	  $(FUZZ_DIR)/corpus/$(FUZZ_TARGET) fuzz/corpus/$(FUZZ_TARGET)

# The benchmarks of bench/, in a build folder of their own so that the
# everyday build needs no Google Benchmark. The tests are left out of it.
BENCH_PROGRAMS := qor_bench_micro

bench: deps
	cmake -S . -B $(BENCH_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQOR_BENCH=ON \
	  -DQOR_BUILD_TESTS=OFF
	cmake --build $(BENCH_DIR) -j $(JOBS) --target $(BENCH_PROGRAMS)

# Console output as Google Benchmark prints it, and the same figures as JSON.
bench-micro: bench
	$(BENCH_DIR)/bench/qor_bench_micro --benchmark_out=$(BENCH_DIR)/bench-micro.json \
	  --benchmark_out_format=json

# The whole host: qorwd keeps qorhost alive as the OS agent, and qorhost
# supervises the example agents. examples/scripts/demo.sh does the work (its
# --help says how); it keeps a copy of examples/cap in $(DEMO_DIR), so that
# the state file and any CAP file you add or remove stay out of the source
# tree.
demo: build
	@examples/scripts/demo.sh --build $(BUILD_DIR) --dir $(DEMO_DIR)

# The supervision benchmark: qorhost on 10 and 100 generated agents, with
# and without status scripts, measured from the outside (bench/README.md).
# The runs without status scripts cost the service no scripts between the
# restarts, so a shorter run shows the same. Figures go to
# $(BUILD_DIR)/bench/supervise-N<n>-<mode>.json.
BENCH_DURATION       ?= 300
BENCH_PLAIN_DURATION ?= 120
BENCH_KILLS          ?= 20

# Both kinds: the micro benchmarks, then the supervision benchmark.
bench-run: bench-micro bench-supervise

# One run of bench/supervise on this build's programs: N agents, the mode's
# flag (empty or --status-scripts), the run's length, the JSON's mode name.
supervise_run = bench/supervise -n $(1) $(2) --duration $(3) --kills $(BENCH_KILLS) \
	  --qorhost $(BUILD_DIR)/tools/qorhost --qorctl $(BUILD_DIR)/tools/qorctl \
	  --json $(BUILD_DIR)/bench/supervise-N$(1)-$(4).json

bench-supervise: build
	$(call supervise_run,10,,$(BENCH_PLAIN_DURATION),no-status-scripts)
	$(call supervise_run,10,--status-scripts,$(BENCH_DURATION),status-scripts)
	$(call supervise_run,100,,$(BENCH_PLAIN_DURATION),no-status-scripts)
	$(call supervise_run,100,--status-scripts,$(BENCH_DURATION),status-scripts)

# The soak: qorhost of the AddressSanitizer build, as test-sanitize
# configures it, on 100 agents for an hour of kills and CAP changes
# (bench/README.md). One CSV row a minute in $(SANITIZE_DIR)/soak/soak.csv,
# the summary in soak.json beside it, the plot in soak.png when gnuplot is
# there; the exit status is the verdict.
SOAK_MINUTES ?= 60
SOAK_AGENTS  ?= 100

soak: deps
	CC=clang CXX=clang++ cmake -S . -B $(SANITIZE_DIR) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DQOR_SANITIZE=ON
	cmake --build $(SANITIZE_DIR) -j $(JOBS) --target qorhost qorctl
	bench/soak -n $(SOAK_AGENTS) --minutes $(SOAK_MINUTES) \
	  --qorhost $(SANITIZE_DIR)/tools/qorhost --qorctl $(SANITIZE_DIR)/tools/qorctl \
	  --out $(SANITIZE_DIR)/soak $(if $(shell command -v gnuplot),--plot $(SANITIZE_DIR)/soak/soak.png)

clean:
	rm -rf $(BUILD_DIR) $(PACKAGE_DIR) $(CLANG_DIR) $(SANITIZE_DIR) $(TSAN_DIR) $(FUZZ_DIR) $(BENCH_DIR)
