#!/bin/sh
# A harmless stand-in for a supervised program, used by the example CAP files.
#
#   example-daemon.sh start  NAME   start NAME in the background; exit 0
#   example-daemon.sh stop   NAME   end NAME; exit 0, also when it was not running
#   example-daemon.sh status NAME   exit 0 when NAME runs, 1 when it does not,
#                                   2 when its pid file names a process that is gone
#
# NAME is a copy of sleep(1) at $QOR_EXAMPLES_RUN/bin/NAME (default
# /tmp/qor-examples/bin/NAME), so that its process has an executable of its own
# that a CAP file can name; it sleeps until it is stopped. Its process id is
# kept in $QOR_EXAMPLES_RUN/NAME.pid, and NAME.lock there lets one call for
# NAME act at a time. Nothing else is touched.
set -u

usage() {
  echo "usage: $0 start|stop|status NAME" >&2
  exit 64
}

action=${1:-}
name=${2:-}
case "$name" in '' | */* | .*) usage ;; esac
case "$action" in start | stop | status) ;; *) usage ;; esac
run=${QOR_EXAMPLES_RUN:-/tmp/qor-examples}
program=$run/bin/$name
pidfile=$run/$name.pid

# The service may start one program twice at the same moment, for itself and
# as the dependency of another, and stop it meanwhile: two starts that both
# found it not running would leave two copies, one of them in no pid file.
# Calls for one NAME therefore wait for each other. The program must not
# inherit the lock's descriptor, or it would hold the lock while it runs.
mkdir -p "$run" || exit 1
exec 9>"$run/$name.lock" || exit 1
flock 9 || exit 1

# Runs when the pid file names a live process of the program. A killed
# program that nobody has reaped yet still answers kill -0, but its
# executable is gone from /proc.
running() {
  [ -f "$pidfile" ] && [ -e "$program" ] &&
    [ "$(readlink "/proc/$(cat "$pidfile")/exe" 2>/dev/null)" = "$(readlink -f "$program")" ]
}

case "$action" in
  start)
    if running; then
      echo "$name already runs, pid $(cat "$pidfile")"
      exit 0
    fi
    mkdir -p "$run/bin" || exit 1
    if [ ! -x "$program" ]; then
      cp "$(command -v sleep)" "$program" || exit 1
    fi
    # The program must not keep the caller's output open: whoever runs this
    # script reads its output to the end.
    nohup "$program" 2147483647 </dev/null >/dev/null 2>&1 9>&- &
    pid=$!
    echo "$pid" >"$pidfile"
    # Return once the process is the program, not still nohup, so that a
    # check right after the start finds it under its own name (5 s at most).
    want=$(readlink -f "$program")
    tries=0
    while [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" != "$want" ] && [ "$tries" -lt 50 ]; do
      sleep 0.1
      tries=$((tries + 1))
    done
    echo "$name started, pid $pid"
    ;;
  stop)
    if running; then
      kill "$(cat "$pidfile")"
      echo "$name stopped"
    else
      echo "$name was not running"
    fi
    rm -f "$pidfile"
    ;;
  status)
    if running; then
      echo "$name runs, pid $(cat "$pidfile")"
      exit 0
    fi
    if [ -f "$pidfile" ]; then
      echo "$name is gone; stale pid file $pidfile"
      exit 2
    fi
    echo "$name is not running"
    exit 1
    ;;
  *) usage ;;
esac
