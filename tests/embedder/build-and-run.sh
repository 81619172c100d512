#!/bin/sh
# Proves that a host program builds and runs against an installed qor alone:
# installs the build tree under a temporary DESTDIR, as `make install
# DESTDIR=...` does, checks what was installed, compiles embedder.cpp against
# the staged tree with pkg-config (linked once with libqor.a, once with
# libqor.so) and with a small CMake project that finds qor by find_package
# (qor::qor and qor::qor_static), and runs the four programs, each on a fresh
# directory. Registered with CTest in tests/CMakeLists.txt.
#
#   build-and-run.sh BUILD_DIR CXX PREFIX LIBDIR INCLUDEDIR SYSCONFDIR SOURCE [FLAGS]
#
# PREFIX is the install prefix the tree was configured with, SYSCONFDIR the
# full path of its configuration folder; LIBDIR and INCLUDEDIR are relative
# to the prefix, as GNUInstallDirs has them; FLAGS are the sanitizer flags
# the library was built with, which a program that links it needs as well.
set -eu

if [ $# -lt 7 ]; then
  echo "usage: $0 BUILD_DIR CXX PREFIX LIBDIR INCLUDEDIR SYSCONFDIR SOURCE [FLAGS]" >&2
  exit 2
fi
build=$1
cxx=$2
install_prefix=$3
libdir=$4
includedir=$5
sysconfdir=$6
source=$7
flags=${8:-}
tree=$(cd "$(dirname "$0")/../.." && pwd -P)

work=$(mktemp -d "${TMPDIR:-/tmp}/qor-embedder.XXXXXX")
trap 'rm -rf "$work"' EXIT
stage=$work/stage
# The prefix as it lies under DESTDIR: every path baked into the installed
# files still names $install_prefix, so what follows works only if the
# pkg-config and CMake files find the tree from where they lie.
prefix=$stage$install_prefix

# shellcheck source=../support/checks.sh
. "$tree/tests/support/checks.sh"

# ---- a. install --------------------------------------------------------------
DESTDIR=$stage cmake --install "$build" >"$work/install.log" 2>&1 || {
  show "$work/install.log"
  fail "DESTDIR=$stage cmake --install $build"
}
doc=share/doc/qor
examples=$doc/examples
for file in "$includedir/qorapi.h" "$libdir/libqor.a" "$libdir/libqor.so" "$libdir/libqor.so.0" \
  "$libdir/libqor.so.0.1.0" "$libdir/pkgconfig/qor.pc" bin/qorhost bin/qorwd bin/qorctl \
  "$libdir/cmake/qor/qorConfig.cmake" "$libdir/cmake/qor/qorConfigVersion.cmake" \
  "$libdir/cmake/qor/qorTargets.cmake" "$libdir/cmake/qor/qorStaticTargets.cmake" \
  "$doc/copyright" "$doc/changelog.gz" lib/sysusers.d/qor.conf "$examples/mdhcap.xsd" \
  "$examples/cap/README" "$examples/cap/sleeper.xml" "$examples/cap/watched.xml" \
  "$examples/cap/pattern.xml" "$examples/cap/multi.xml" "$examples/cap/qorhost.xml" \
  "$examples/prometheus/prometheus.yml" "$examples/prometheus/qor-rules.yml" "$examples/logrotate/qor" \
  share/man/man8/qorhost.8.gz share/man/man8/qorwd.8.gz share/man/man1/qorctl.1.gz \
  share/man/man5/qor-cap.5.gz share/man/man7/qor-environment.7.gz \
  lib/systemd/system/qorhost.service lib/systemd/system/qorwd.service; do
  [ -f "$prefix/$file" ] || fail "not installed: $file (build all targets before the tests)"
done
# The scripts keep their exec bits; demo.sh, which needs a build folder, stays out.
for script in scripts/example-daemon.sh scripts/qorhost-daemon.sh scripts/restart-timing.sh \
  suite/bin/vexinf; do
  [ -x "$prefix/$examples/$script" ] || fail "not installed as a program: $examples/$script"
done
[ ! -e "$prefix/$examples/scripts/demo.sh" ] || fail "demo.sh was installed"
[ -d "$stage$sysconfdir/qor/cap.d" ] || fail "no CAP folder $sysconfdir/qor/cap.d"
[ -z "$(ls -A "$stage$sysconfdir/qor/cap.d")" ] || fail "the CAP folder is not empty"
grep -qx 'g qor -' "$prefix/lib/sysusers.d/qor.conf" || fail "qor.conf declares no group qor"
# The units run the installed programs on the installed CAP folder.
for program in qorhost qorwd; do
  unit=$prefix/lib/systemd/system/$program.service
  grep -qx "ExecStart=$install_prefix/bin/$program" "$unit" || fail "$program.service: $(grep ExecStart "$unit")"
  grep -qx "Environment=QOR_CAP_DIR=$sysconfdir/qor/cap.d" "$unit" ||
    fail "$program.service: $(grep QOR_CAP_DIR "$unit")"
done
gzip -dc "$prefix/$doc/changelog.gz" | head -n 1 | grep -q '^qor (0\.1\.0) ' ||
  fail "the changelog does not begin with version 0.1.0"
# Nothing installed names the source or the build tree.
if grep -rlF -e "$tree" -e "$(cd "$build" && pwd -P)" "$prefix/$libdir/cmake" "$prefix/$libdir/pkgconfig"; then
  fail "an installed CMake or pkg-config file names the source or build tree"
fi
# The header is all a host gets: it must name nothing beyond the standard headers.
if grep -n '#include *"' "$prefix/$includedir/qorapi.h"; then
  fail "qorapi.h includes a file of the source tree"
fi
# The programs find the shared library of their own prefix.
for program in qorhost qorwd qorctl; do
  env -u LD_LIBRARY_PATH "$prefix/bin/$program" --help >/dev/null || fail "installed $program --help"
done

# ---- b. built by pkg-config against the staged prefix alone, with libqor.a -------
export PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig"
cp "$source" "$work/embedder.cpp"
cflags=$(pkg-config --cflags qor)
# One -I, naming the installed include folder, whatever way round it goes.
# shellcheck disable=SC2086 # pkg-config answers a list of words
set -- $cflags
if [ $# != 1 ] || [ "$(cd "${1#-I}" && pwd -P)" != "$(cd "$prefix/$includedir" && pwd -P)" ]; then
  fail "pkg-config --cflags qor: $cflags"
fi
# -lqor would take libqor.so, which lies beside it: the archive goes by its path.
static_libs=$(pkg-config --static --libs qor)
static_libs=$(echo " $static_libs " | sed "s| -lqor | $prefix/$libdir/libqor.a |")
compile() {
  # shellcheck disable=SC2086 # the flags are lists of words
  "$cxx" -std=c++17 -Wall -Wextra -Werror $flags $cflags "$work/embedder.cpp" -o "$@" ||
    fail "compiling embedder.cpp into $1"
}
# shellcheck disable=SC2086 # a list of words
compile "$work/embedder-static" $static_libs
if readelf -d "$work/embedder-static" | grep -q 'libqor\.so'; then
  fail "embedder-static needs libqor.so"
fi
# ---- c. the same program against the shared library -----------------------------
shared_libs=$(pkg-config --libs qor)
# shellcheck disable=SC2086 # a list of words
compile "$work/embedder-shared" $shared_libs
readelf -d "$work/embedder-shared" | grep -q 'NEEDED.*\[libqor\.so\.0\]' ||
  fail "embedder-shared does not need libqor.so.0"

# ---- d. the same program by find_package, as a CMake project builds it ---------
# CMake finds the staged prefix by CMAKE_PREFIX_PATH alone; qor::qor must
# bring its include folder, qor::qor_static also expat, ICU and Threads.
mkdir "$work/host"
cat >"$work/host/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.18)
project(host CXX)
find_package(qor 0.1 REQUIRED COMPONENTS static)
add_executable(embedder-cmake ../embedder.cpp)
target_link_libraries(embedder-cmake PRIVATE qor::qor)
add_executable(embedder-cmake-static ../embedder.cpp)
target_link_libraries(embedder-cmake-static PRIVATE qor::qor_static)
CMAKE
if ! { cmake -S "$work/host" -B "$work/host/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_STANDARD=17 -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $flags" \
  -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >"$work/cmake.log" 2>&1 &&
  cmake --build "$work/host/build" -j 2 >>"$work/cmake.log" 2>&1; }; then
  show "$work/cmake.log"
  fail "the CMake project with find_package(qor)"
fi
grep -q "qor_DIR:PATH=$prefix/$libdir/cmake/qor\$" "$work/host/build/CMakeCache.txt" ||
  fail "find_package(qor) found another qor: $(grep qor_DIR "$work/host/build/CMakeCache.txt")"
# The internal folders of the tree are not part of the installed targets.
if grep -F "$tree" "$work/host/build/compile_commands.json"; then
  fail "a target of the installed package names the source tree"
fi
# Any 0.x serves a request for 0.1 (one SONAME, libqor.so.0); 1.0 does not.
mkdir "$work/newer"
printf 'cmake_minimum_required(VERSION 3.18)\nproject(newer NONE)\nfind_package(qor 1.0 REQUIRED)\n' \
  >"$work/newer/CMakeLists.txt"
if cmake -S "$work/newer" -B "$work/newer/build" -DCMAKE_PREFIX_PATH="$prefix" >"$work/newer.log" 2>&1; then
  fail "find_package(qor 1.0) accepted version 0.1.0"
fi
grep -q 'qorConfig.cmake, version: 0.1.0' "$work/newer.log" || {
  show "$work/newer.log"
  fail "find_package(qor 1.0) failed, but not for the version"
}
mv "$work/host/build/embedder-cmake" "$work/host/build/embedder-cmake-static" "$work/"
readelf -d "$work/embedder-cmake" | grep -q 'NEEDED.*\[libqor\.so\.0\]' ||
  fail "embedder-cmake does not need libqor.so.0"
if readelf -d "$work/embedder-cmake-static" | grep -q 'libqor\.so'; then
  fail "embedder-cmake-static needs libqor.so"
fi

# ---- e. run all four, side by side, each on a directory of its own ----------------
run() {
  kind=$1
  shift
  mkdir "$work/run-$kind"
  status=0
  env "$@" "$work/embedder-$kind" "$work/run-$kind" >"$work/$kind.out" 2>"$work/$kind.err" || status=$?
  echo "$status" >"$work/$kind.status"
}
run static -u LD_LIBRARY_PATH &
run shared LD_LIBRARY_PATH="$prefix/$libdir" &
# CMake gives the program the library's folder as its run path.
run cmake -u LD_LIBRARY_PATH &
run cmake-static -u LD_LIBRARY_PATH &
wait

failed=0
for kind in static shared cmake cmake-static; do
  status=$(cat "$work/$kind.status")
  problem=""
  if [ "$status" != 0 ]; then
    problem="exit status $status"
  elif ! grep -qx 'embedder: all checks passed' "$work/$kind.out"; then
    problem="no 'all checks passed'"
  elif ! grep -q "embedder: the watchdog process sees the OS agent as: [0-9]* 4 2 Embedding host" \
    "$work/$kind.out"; then
    problem="no report of the watchdog process"
  elif ! grep -q '^embedder: heard \[22\] Embedded sleeper Operational Event: Agent initial start' \
    "$work/$kind.out"; then
    problem="the initial start was not heard"
  elif ! grep -q '\*\*\*\* qorwd terminated \*\*\*\*' "$work/$kind.err"; then
    problem="stop_exit said nothing"
  fi
  echo "embedder-$kind: ${problem:-ok}"
  if [ -n "$problem" ]; then
    failed=1
    show "$work/$kind.out"
    show "$work/$kind.err"
    echo "---- the last traces of $kind" >&2
    tail -n 40 "$work/run-$kind/trace" >&2 2>/dev/null || true
    tail -n 20 "$work/run-$kind/wdtrace" >&2 2>/dev/null || true
  fi
done
[ "$failed" = 0 ] || fail "the embedder gave a wrong answer"
grep -h '^embedder: ' "$work/static.out"
