#!/bin/sh
# Proves that a host program builds and runs against an installed qor alone:
# installs the build tree into a temporary prefix, compiles embedder.cpp with
# -I<prefix>/include only, links it once with libqor.a (pkg-config --static)
# and once with libqor.so (pkg-config), and runs both, each on a fresh
# directory. Registered with CTest in tests/CMakeLists.txt.
#
#   build-and-run.sh BUILD_DIR CXX LIBDIR INCLUDEDIR SOURCE [FLAGS]
#
# LIBDIR and INCLUDEDIR are relative to the prefix, as GNUInstallDirs has
# them; FLAGS are the sanitizer flags the library was built with, which a
# program that links it needs as well.
set -eu

if [ $# -lt 5 ]; then
  echo "usage: $0 BUILD_DIR CXX LIBDIR INCLUDEDIR SOURCE [FLAGS]" >&2
  exit 2
fi
build=$1
cxx=$2
libdir=$3
includedir=$4
source=$5
flags=${6:-}

work=$(mktemp -d "${TMPDIR:-/tmp}/qor-embedder.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# Prints a file, for the reader of a failure.
show() {
  echo "---- $1" >&2
  cat "$1" >&2 2>/dev/null || true
}

# ---- a. install ------------------------------------------------------------
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || {
  show "$work/install.log"
  fail "cmake --install $build"
}
for file in "$includedir/qorapi.h" "$libdir/libqor.a" "$libdir/libqor.so" "$libdir/libqor.so.0" \
  "$libdir/pkgconfig/qor.pc" bin/qorhost bin/qorwd bin/qorctl; do
  [ -e "$prefix/$file" ] || fail "not installed: $file (build all targets before the tests)"
done
# The header is all a host gets: it must name nothing beyond the standard headers.
if grep -n '#include *"' "$prefix/$includedir/qorapi.h"; then
  fail "qorapi.h includes a file of the source tree"
fi
# The programs find the shared library of their own prefix.
for program in qorhost qorwd qorctl; do
  env -u LD_LIBRARY_PATH "$prefix/bin/$program" --help >/dev/null || fail "installed $program --help"
done

# ---- b. build against the prefix alone ---------------------------------------
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
# ---- d. the same program against the shared library -----------------------------
shared_libs=$(pkg-config --libs qor)
# shellcheck disable=SC2086 # a list of words
compile "$work/embedder-shared" $shared_libs
readelf -d "$work/embedder-shared" | grep -q 'NEEDED.*\[libqor\.so\.0\]' ||
  fail "embedder-shared does not need libqor.so.0"

# ---- c. run both, side by side, each on a directory of its own -----------------
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
wait

failed=0
for kind in static shared; do
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
