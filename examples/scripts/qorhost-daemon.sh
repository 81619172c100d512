#!/bin/sh
# Starts and stops qorhost as a background daemon, for the watchdog process:
# the start and stop scripts of examples/cap/qorhost.xml.
#
#   qorhost-daemon.sh start    start qorhost in the background; exit 0
#   qorhost-daemon.sh stop     end qorhost with SIGTERM and wait until it has
#                              written its state file (10 s, then SIGKILL);
#                              exit 0, also when it was not running
#   qorhost-daemon.sh status   exit 0 when qorhost runs, 1 when it does not
#
# qorhost is $QORHOST (default: the qorhost on PATH), and it runs on the
# directories its watchdog runs on: QOR_CAP_DIR and QOR_IP_DIR come from
# qorwd, which sets them from its --cap-dir and --ip-dir. Its files lie in
# $QOR_EXAMPLES_RUN (default /tmp/qor-examples):
#   qorhost.log   what qorhost prints (events, listings, answers)
#   qorhost.trace its traces, at the level of QOR_TRACE_LEVEL (qorwd sets it
#                 from its --trace-level)
#   qorhost.pid   its process id
#   qorhost.in    a FIFO read as its standard input: write commands to it,
#                 one a line (echo list >qorhost.in); `make demo` forwards
#                 what you type there.
set -u

run=${QOR_EXAMPLES_RUN:-/tmp/qor-examples}
qorhost=${QORHOST:-$(command -v qorhost)}
pidfile=$run/qorhost.pid
fifo=$run/qorhost.in

usage() {
  echo "usage: $0 start|stop|status" >&2
  exit 64
}

running() {
  [ -f "$pidfile" ] && [ -n "$qorhost" ] &&
    [ "$(readlink "/proc/$(cat "$pidfile")/exe" 2>/dev/null)" = "$(readlink -f "$qorhost")" ]
}

start() {
  if running; then
    echo "qorhost already runs, pid $(cat "$pidfile")"
    return 0
  fi
  if [ -z "$qorhost" ] || [ ! -x "$qorhost" ]; then
    echo "qorhost-daemon.sh: no qorhost to start; set QORHOST to its path" >&2
    return 1
  fi
  mkdir -p "$run" || return 1
  [ -p "$fifo" ] || mkfifo "$fifo" || return 1
  # Its own session: a Ctrl-C meant for whoever started the watchdog must
  # not reach qorhost, which is stopped after the watchdog instead, lest the
  # watchdog restart it on its way out. The FIFO is opened for reading and
  # writing, so that opening it never waits for a writer and qorhost never
  # reads an end of input. None of the caller's output stays open: the
  # watchdog reads this script's output to its end. The traces get a file
  # of their own, apart from the watchdog's and from the events.
  QOR_TRACE_FILE=$run/qorhost.trace setsid "$qorhost" <>"$fifo" >>"$run/qorhost.log" 2>&1 &
  pid=$!
  echo "$pid" >"$pidfile"
  # Return once the process is qorhost in its own session, so that a status
  # or a check right after the start finds it (5 s at most).
  want=$(readlink -f "$qorhost")
  tries=0
  while [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" != "$want" ] && [ "$tries" -lt 50 ]; do
    sleep 0.1
    tries=$((tries + 1))
  done
  echo "qorhost started, pid $pid"
}

stop() {
  if ! running; then
    echo "qorhost was not running"
    rm -f "$pidfile"
    return 0
  fi
  pid=$(cat "$pidfile")
  kill -TERM "$pid"
  tries=0
  while kill -0 "$pid" 2>/dev/null && [ "$tries" -lt 100 ]; do
    sleep 0.1
    tries=$((tries + 1))
  done
  if kill -0 "$pid" 2>/dev/null; then
    echo "qorhost did not stop within 10 s of SIGTERM; killing it" >&2
    kill -KILL "$pid"
  fi
  rm -f "$pidfile"
  echo "qorhost stopped"
}

case "${1:-}" in
  start) start ;;
  stop) stop ;;
  status)
    if running; then
      echo "qorhost runs, pid $(cat "$pidfile")"
      exit 0
    fi
    echo "qorhost is not running"
    exit 1
    ;;
  *) usage ;;
esac
