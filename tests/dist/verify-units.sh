#!/bin/sh
# systemd-analyze verify on the units as the build configured them, ExecStart
# naming the programs of the build tree (verify wants them to exist). It must
# exit 0 and say nothing: a warning, an unknown key or a bad value is a
# failure. The man pages named by Documentation= are looked up among those
# the build made (MAN_DIR, through a MANPATH of links), since the installed
# ones need not be in this machine's manual; without them the look-up is
# left out, and the script says so. Skipped (77) without systemd-analyze.
# CAP_DIR is the CAP folder the install made, which the units must name.
# Usage: verify-units.sh UNIT_DIR CAP_DIR [MAN_DIR]
set -u
dir=$1
capdir=$2
mandir=${3:-}
command -v systemd-analyze >/dev/null 2>&1 || { echo "systemd-analyze not found: skipped"; exit 77; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
man=--man=no
if [ -n "$mandir" ] && ls "$mandir"/*.[0-9].gz >/dev/null 2>&1; then
  mandir=$(cd "$mandir" && pwd)
  for page in "$mandir"/*.[0-9].gz; do
    name=$(basename "$page" .gz)
    mkdir -p "$scratch/man/man${name##*.}"
    ln -s "$page" "$scratch/man/man${name##*.}/$name.gz"
  done
  MANPATH=$scratch/man
  export MANPATH
  man=--man=yes
else
  echo "no built man pages: Documentation= is not looked up"
fi
status=0
for unit in qorhost.service qorwd.service; do
  [ -f "$dir/$unit" ] || { echo "missing: $dir/$unit"; status=1; continue; }
  # The units are named by path; a copy under the unit's own name is not needed.
  output=$(cd "$dir" && systemd-analyze verify $man "./$unit" 2>&1)
  rc=$?
  if [ $rc -ne 0 ] || [ -n "$output" ]; then
    echo "$unit: systemd-analyze verify exited $rc and said:"
    echo "$output"
    status=1
  else
    echo "$unit: accepted"
  fi
  # What the issue asks of each unit, line by line.
  for line in Type=notify NotifyAccess=main KillMode=process Restart=on-failure RuntimeDirectory=qor \
              Environment=QOR_CAP_DIR=$capdir Environment=QOR_IP_DIR=%t/qor Group=qor; do
    grep -qx "$line" "$dir/$unit" || { echo "$unit: no line '$line'"; status=1; }
  done
  grep -q '^WatchdogSec=[1-9]' "$dir/$unit" || { echo "$unit: no WatchdogSec="; status=1; }
done
# A unit with a mistake is refused, so that the check above can fail.
mkdir "$scratch/broken"
sed 's/^Type=notify$/Type=notified/' "$dir/qorhost.service" >"$scratch/broken/qorhost.service"
output=$(cd "$scratch/broken" && systemd-analyze verify --man=no ./qorhost.service 2>&1)
if [ -z "$output" ]; then
  echo "a unit with Type=notified passed verify in silence: the check proves nothing"
  status=1
fi
exit $status
