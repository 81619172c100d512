#!/bin/sh
# Proves that `make package` gives an installable Debian package: builds it
# in OUT_DIR (a build folder of its own, kept between runs so that a second
# run only relinks), then checks the package's name, its fields, its
# maintainer scripts, every file an administrator or an embedder expects in
# it, that its programs run from it, and that lintian finds no error (its
# warnings are printed). Registered with CTest in tests/CMakeLists.txt.
#
#   build-and-check-deb.sh OUT_DIR VERSION
#
# VERSION is the project's version, which the package must carry.
set -eu

if [ $# -ne 2 ]; then
  echo "usage: $0 OUT_DIR VERSION" >&2
  exit 2
fi
out=$1
version=$2
tree=$(cd "$(dirname "$0")/../.." && pwd -P)

# shellcheck source=../support/checks.sh
. "$tree/tests/support/checks.sh"

mkdir -p "$out"
work=$(mktemp -d "${TMPDIR:-/tmp}/qor-deb.XXXXXX")
trap 'rm -rf "$work"' EXIT

# ---- a. make package ------------------------------------------------------------
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
deb=$out/qor_${version}_$arch.deb
rm -f "$out"/*.deb
# A make of its own, not a part of the make that may have started the tests.
env -u MAKEFLAGS -u MFLAGS -u MAKELEVEL make -C "$tree" package PACKAGE_DIR="$out" JOBS=2 >"$work/make.log" 2>&1 || {
  tail -n 60 "$work/make.log" >&2
  fail "make package"
}
[ -f "$deb" ] || fail "no $deb; the folder holds: $(ls "$out"/*.deb 2>/dev/null)"
set -- "$out"/*.deb
[ $# = 1 ] || fail "more than one package: $*"

# ---- b. the control fields --------------------------------------------------------
field() {
  dpkg-deb -f "$deb" "$1"
}
expect_field() {
  [ "$(field "$1")" = "$2" ] || fail "field $1 is '$(field "$1")', not '$2'"
}
expect_field Package qor
expect_field Version "$version"
expect_field Architecture "$arch"
expect_field Section admin
expect_field Priority optional
depends=$(field Depends)
# dpkg-shlibdeps names the packages of the libraries the programs load.
# libsystemd0 for the notifications to systemd.
for wanted in 'adduser' 'libsystemd0[^,]*' 'libc6 (>= [0-9.]*)' 'libexpat1 (>= [0-9.]*)' 'libicu[0-9][0-9]* (>= [^)]*)' \
  'libstdc++6 (>= [0-9]*)'; do
  echo ", $depends," | grep -q ", $wanted," || fail "Depends lacks $wanted: $depends"
done

# ---- c. the maintainer scripts ---------------------------------------------------
dpkg-deb -e "$deb" "$work/control"
for script in postinst prerm postrm; do
  [ -x "$work/control/$script" ] || fail "no executable $script"
  sh -n "$work/control/$script" || fail "$script is not valid sh"
done
grep -q 'systemd-sysusers qor.conf' "$work/control/postinst" || fail "postinst creates no group qor"
grep -q 'addgroup --system qor' "$work/control/postinst" || fail "postinst has no fallback to addgroup"
# Installed, never enabled: the administrator decides when the service runs.
if grep -En '(systemctl|deb-systemd-helper|deb-systemd-invoke)[^#]*(enable|start)' "$work/control/postinst"; then
  fail "postinst enables or starts a unit"
fi
grep -qx 'activate-noawait ldconfig' "$work/control/triggers" || fail "no ldconfig trigger"
grep -qx "libqor 0 qor (= $version)" "$work/control/shlibs" || fail "shlibs: $(cat "$work/control/shlibs")"
# Nothing under /etc but the empty CAP folder, so no conffile.
[ ! -e "$work/control/conffiles" ] || fail "conffiles: $(cat "$work/control/conffiles")"

# ---- d. the files -------------------------------------------------------------------
dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's|/$||' >"$work/contents"
lib=usr/lib/$multiarch
doc=usr/share/doc/qor
for path in ./etc/qor/cap.d \
  ./usr/bin/qorhost ./usr/bin/qorwd ./usr/bin/qorctl \
  "./$lib/libqor.so.0" "./$lib/libqor.so.$version" "./$lib/libqor.so" "./$lib/libqor.a" \
  ./usr/include/qorapi.h "./$lib/pkgconfig/qor.pc" \
  "./$lib/cmake/qor/qorConfig.cmake" "./$lib/cmake/qor/qorConfigVersion.cmake" \
  "./$lib/cmake/qor/qorTargets.cmake" "./$lib/cmake/qor/qorStaticTargets.cmake" \
  ./usr/lib/sysusers.d/qor.conf \
  "./$doc/copyright" "./$doc/changelog.gz" "./$doc/examples/mdhcap.xsd" \
  "./$doc/examples/cap/README" "./$doc/examples/cap/sleeper.xml" "./$doc/examples/cap/qorhost.xml" \
  "./$doc/examples/scripts/qorhost-daemon.sh" "./$doc/examples/suite/bin/vexinf" \
  "./$doc/examples/prometheus/qor-rules.yml" "./$doc/examples/logrotate/qor" \
  ./usr/share/man/man8/qorhost.8.gz ./usr/share/man/man8/qorwd.8.gz ./usr/share/man/man1/qorctl.1.gz \
  ./usr/share/man/man5/qor-cap.5.gz ./usr/share/man/man7/qor-environment.7.gz \
  ./lib/systemd/system/qorhost.service ./lib/systemd/system/qorwd.service; do
  grep -qxF "$path" "$work/contents" || fail "not in the package: $path"
done
# Installed, not enabled: no links in /etc/systemd.
if grep '^\./etc/systemd' "$work/contents"; then
  fail "the package enables a unit"
fi
# The files land under /etc, /lib (the units) and /usr only.
if grep -vE '^\./(etc|lib|usr)(/|$)|^\.$' "$work/contents"; then
  fail "files outside /etc, /lib and /usr"
fi

# ---- e. the programs run from the package -------------------------------------------
dpkg-deb -x "$deb" "$work/root"
# The units run the packaged programs on /etc/qor/cap.d, in the group qor.
for program in qorhost qorwd; do
  unit=$work/root/lib/systemd/system/$program.service
  for line in "ExecStart=/usr/bin/$program" Environment=QOR_CAP_DIR=/etc/qor/cap.d Group=qor; do
    grep -qx "$line" "$unit" || fail "$program.service has no line $line"
  done
done
for program in qorhost qorwd qorctl; do
  # Debian forbids a run path; the library lies where the loader looks.
  if readelf -d "$work/root/usr/bin/$program" | grep -E 'RPATH|RUNPATH'; then
    fail "$program carries a run path"
  fi
  # Built with Debian's hardening flags: relocations read-only and bound at
  # start, string and memory functions checked.
  readelf -d "$work/root/usr/bin/$program" | grep -q 'FLAGS.*BIND_NOW\|FLAGS_1.*NOW' ||
    fail "$program is not linked with -z now"
  readelf -lW "$work/root/usr/bin/$program" | grep -q GNU_RELRO || fail "$program has no RELRO segment"
  LD_LIBRARY_PATH=$work/root/$lib "$work/root/usr/bin/$program" --help >/dev/null ||
    fail "$program --help from the package"
done

readelf -W --dyn-syms "$work/root/$lib/libqor.so.$version" | grep -q '__[a-z]*_chk' ||
  fail "libqor.so calls no checked (fortified) function"

# ---- f. lintian ----------------------------------------------------------------------
status=0
lintian --info "$deb" >"$work/lintian" 2>&1 || status=$?
grep -v '^running with root privileges' "$work/lintian" | grep -v '^N:' || true
if grep -q '^E: ' "$work/lintian" || [ "$status" != 0 ]; then
  show "$work/lintian"
  fail "lintian found errors (exit status $status)"
fi
echo "package: $deb ok, $(grep -c '^W: ' "$work/lintian") lintian warnings"
