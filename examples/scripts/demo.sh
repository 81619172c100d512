#!/bin/bash
# The whole host of `make demo`: qorwd keeps qorhost alive as the OS agent,
# and qorhost supervises the example agents.
#
#   demo.sh [--build DIR] [--dir DIR] [--qorhost PATH]
#
# --build  the build folder with tools/qorwd and tools/qorhost (default
#          build/ of this tree)
# --dir    the demo's folder (default build/demo): cap/ holds a copy of
#          examples/cap, whose state file teo.dat survives the runs, ip/ the
#          two local sockets, qorwd.trace the watchdog's traces
# --qorhost the qorhost to run (default tools/qorhost of the build folder)
#
# Starts qorwd on the copy; qorwd finds qorhost not running and starts it by
# the start script of qorhost.xml (scripts/qorhost-daemon.sh) within its first
# check period, and qorhost starts each example program at its first check.
# qorhost finds instances of the multi-instance agent (cap/multi.xml) that
# start meanwhile every QOR_DISCOVERY_INTERVAL seconds (default 5 here),
# asking the example suite's status tool, suite/bin/vexinf ($MARLOWHOME).
# qorhost's output is shown as it comes (it is $QOR_EXAMPLES_RUN/qorhost.log,
# default /tmp/qor-examples), and every line typed here is a command for
# qorhost (help lists them). Ctrl-C (or SIGTERM) stops qorwd first, so that
# nothing restarts qorhost, then qorhost, which writes its state file, then
# the example programs. Exit status 0 after such a stop, 1 when something
# could not be set up or qorwd ended by itself, 64 on a bad argument.
set -u

usage() {
  awk 'NR == 1 { next } /^#/ { sub(/^# ?/, ""); print; next } { exit }' "$0"
}

fail_usage() {
  echo "demo.sh: $1 (try --help)" >&2
  exit 64
}

die() {
  echo "demo.sh: $1" >&2
  exit 1
}

here=$(cd "$(dirname "$0")" && pwd)
examples=$(dirname "$here")
build=$(dirname "$examples")/build
dir=
qorhost=

while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help)
      usage
      exit 0
      ;;
    --build | --dir | --qorhost)
      [ $# -ge 2 ] || fail_usage "$1 needs a path"
      case "$1" in
        --build) build=$2 ;;
        --dir) dir=$2 ;;
        --qorhost) qorhost=$2 ;;
      esac
      shift 2
      ;;
    *) fail_usage "unknown argument '$1'" ;;
  esac
done

dir=${dir:-$build/demo}
qorhost=${qorhost:-$build/tools/qorhost}
qorwd=$build/tools/qorwd
[ -x "$qorwd" ] || die "no qorwd at $qorwd (make builds it)"
[ -x "$qorhost" ] || die "no qorhost at $qorhost (make builds it)"
qorhost=$(readlink -f "$qorhost")
run=${QOR_EXAMPLES_RUN:-/tmp/qor-examples}
programs=(qor-sleeper qor-watched qor-pattern)
daemon=$examples/scripts/example-daemon.sh
hostd=$examples/scripts/qorhost-daemon.sh
export QOR_EXAMPLES=$examples QOR_EXAMPLES_RUN=$run QORHOST=$qorhost
# qorwd hands its environment down to qorhost through qorhost-daemon.sh. The
# suite's tool lives under $MARLOWHOME/bin; the discovery interval is off
# unless set, and qorwd itself never discovers.
export MARLOWHOME=$examples/suite QOR_DISCOVERY_INTERVAL=${QOR_DISCOVERY_INTERVAL:-5}

# A copy of the CAP files, so that the state file and any file added or
# removed stay out of the source tree. qorhost.xml's agentPath becomes the
# qorhost run here: the watchdog tells the OS agent by its executable. The
# example files name their programs under /tmp/qor-examples; another run
# folder is written into the copies.
prepare() {
  mkdir -p "$dir/cap" "$dir/ip" "$run" || exit 1
  chmod 700 "$dir/ip" || exit 1
  cp "$examples"/cap/*.xml "$dir/cap/" || exit 1
  # The service takes an agent whose program file is missing out of
  # management, and the example script makes the file only at its first
  # start; so the copies of sleep are made here.
  mkdir -p "$run/bin" || exit 1
  # The multi-instance agent's agentPath, qor-multi, never runs itself; its
  # instance alpha is configured from the start (the example suite counts an
  # instance configured once its program exists).
  for p in "${programs[@]}" qor-multi qor-multi.alpha; do
    [ -x "$run/bin/$p" ] || cp "$(command -v sleep)" "$run/bin/$p" || exit 1
  done
  sed -i "s|<agentPath>[^<]*</agentPath>|<agentPath>$qorhost</agentPath>|" "$dir/cap/qorhost.xml" || exit 1
  if [ "$run" != /tmp/qor-examples ]; then
    sed -i "s|/tmp/qor-examples|$run|g" "$dir"/cap/*.xml || exit 1
  fi
}

# Whatever an earlier run left behind goes first, so that every demo begins
# with the programs stopped and no qorhost running.
stop_all() {
  "$hostd" stop >/dev/null
  for p in "${programs[@]}"; do "$daemon" stop "$p" >/dev/null; done
  # Every instance of the multi-instance agent with a pid file, started by
  # qorhost or by hand. A glob, not a word list: Ctrl-C may come while the
  # loop below reads a line with IFS empty.
  for f in "$run"/qor-multi.*.pid; do
    [ -f "$f" ] && "$daemon" stop "$(basename "$f" .pid)" >/dev/null
  done
}

wd_pid=
tail_pid=
finish() {
  # A second Ctrl-C must not cut the stop short.
  trap '' INT TERM
  if [ -n "$wd_pid" ] && kill -0 "$wd_pid" 2>/dev/null; then
    kill -TERM "$wd_pid" 2>/dev/null
    wait "$wd_pid" 2>/dev/null
  fi
  echo "demo.sh: stopping qorhost and the example programs"
  stop_all
  [ -n "$tail_pid" ] && kill "$tail_pid" 2>/dev/null
  exit "$1"
}

prepare
stop_all
: >"$run/qorhost.log"
cat <<EOF
qorwd and qorhost on $dir/cap (a copy of examples/cap): add or remove CAP files there.
qorwd starts qorhost within about 5 s; qorhost starts each example program at its first check, about 5 s later.
kill -9 \$(cat $run/qor-sleeper.pid): qorhost's next check reports it and restarts it.
kill -9 \$(cat $run/qorhost.pid): qorwd's next check starts qorhost again, which then shows the events it missed.
QOR_EXAMPLES_RUN=$run $daemon start qor-multi.beta: a second instance, found within $QOR_DISCOVERY_INTERVAL s (list shows it).
Type commands for qorhost: list, stop NAME, start NAME, reset NAME ... (help lists them).
qorhost's output: $run/qorhost.log, its traces $run/qorhost.trace; qorwd's traces: $dir/qorwd.trace.
Press Ctrl-C to stop both.
EOF

trap 'finish 0' INT TERM
"$qorwd" --cap-dir "$dir/cap" --ip-dir "$dir/ip" --trace-level "${QOR_TRACE_LEVEL:-128}" \
  --trace-file "$dir/qorwd.trace" </dev/null &
wd_pid=$!
tail -n +1 -F "$run/qorhost.log" 2>/dev/null &
tail_pid=$!

# Each line typed goes to qorhost's FIFO. Opened for reading and writing, the
# FIFO never makes this wait, also while qorwd brings qorhost back.
while IFS= read -r line; do
  if [ -p "$run/qorhost.in" ]; then
    printf '%s\n' "$line" 1<>"$run/qorhost.in"
  else
    echo "demo.sh: qorhost has not started yet" >&2
  fi
done
# The end of the input ends the commands, not the demo.
wait "$wd_pid"
wd_pid=
echo "demo.sh: qorwd ended by itself" >&2
finish 1
