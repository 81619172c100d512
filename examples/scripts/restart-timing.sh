#!/bin/sh
# How long the service takes to bring a killed agent back, measured from the
# outside as a user would see it.
#
#   restart-timing.sh [-n KILLS] [--deadline SECONDS] [--qorhost PATH] [--keep]
#
# Starts qorhost (build/tools/qorhost of this tree unless --qorhost names
# another) on a fresh temporary copy of examples/cap, with qorhost.xml's
# agentPath set to that qorhost (without it the service restarts nothing) and
# the sleeper's maxRestarts raised to KILLS + 10 (so the daily limit never
# stops the series). It waits until the service has started qor-sleeper by
# its start script, then KILLS times (default 10): waits a random part of the
# sleeper's check period, kills the program with SIGKILL, measures the time
# until a new process runs the program again (polling
# /tmp/qor-examples/qor-sleeper.pid and /proc every 50 ms), prints it, and
# waits until the service lists the new process as running. At the end it
# prints
#   median kill-to-restart: X.XX s over KILLS kills
# and stops everything it started: qorhost with SIGINT, the example programs
# with example-daemon.sh. Each wait gives up after --deadline seconds
# (default 30), and then the script fails with the end of qorhost's output.
#
# It uses /tmp/qor-examples, as the example CAP files do, and refuses to run
# while an example program already runs there (stop `make demo` first).
# The temporary folder (CAP copy, qorhost's output and traces) is removed at
# the end, unless the run failed or --keep was given; then the script says
# where it is. Exit status: 0 when every kill was followed by a
# restart, 1 when not, 64 on a bad argument.
set -u

# The comment at the top is the help text.
usage() {
  awk 'NR == 1 { next } /^#/ { sub(/^# ?/, ""); print; next } { exit }' "$0"
}

fail_usage() {
  echo "restart-timing.sh: $1 (try --help)" >&2
  exit 64
}

is_count() {
  case "$1" in '' | *[!0-9]* | 0*) return 1 ;; esac
  return 0
}

here=$(cd "$(dirname "$0")" && pwd)
examples=$(dirname "$here")
kills=10
deadline=30
qorhost=$(dirname "$examples")/build/tools/qorhost
keep=0

while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help)
      usage
      exit 0
      ;;
    -n | --kills)
      [ $# -ge 2 ] || fail_usage "$1 needs a number"
      is_count "$2" || fail_usage "$1 wants a positive whole number, not '$2'"
      kills=$2
      shift 2
      ;;
    --deadline)
      [ $# -ge 2 ] || fail_usage "$1 needs a number of seconds"
      is_count "$2" || fail_usage "$1 wants a positive whole number of seconds, not '$2'"
      deadline=$2
      shift 2
      ;;
    --qorhost)
      [ $# -ge 2 ] || fail_usage "$1 needs a path"
      qorhost=$2
      shift 2
      ;;
    --keep)
      keep=1
      shift
      ;;
    *) fail_usage "unknown argument '$1'" ;;
  esac
done

[ -x "$qorhost" ] || { echo "restart-timing.sh: no executable qorhost at $qorhost (make builds build/tools/qorhost)" >&2; exit 1; }
qorhost=$(readlink -f "$qorhost")

# The example CAP files name the programs under /tmp/qor-examples; a run
# folder chosen elsewhere would leave the service looking in the wrong place.
unset QOR_EXAMPLES_RUN
run=/tmp/qor-examples
daemon=$examples/scripts/example-daemon.sh
programs="qor-sleeper qor-watched qor-pattern"
pidfile=$run/qor-sleeper.pid
program=$run/bin/qor-sleeper

# A program that already runs would be killed by this script, or kept
# alive by some other qorhost, and either spoils the other run or this one.
for name in $programs; do
  if "$daemon" status "$name" >/dev/null 2>&1; then
    echo "restart-timing.sh: $name already runs (pid $(cat "$run/$name.pid")); stop make demo, or run" >&2
    echo "  $daemon stop $name" >&2
    exit 1
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/qor-restart-timing.XXXXXX") || exit 1
host_pid=
ok=0

# Runs on every way out: qorhost is asked to stop as Ctrl-C would, and is
# given the deadline to write its state file; the programs go after it, so
# that it does not start them again.
cleanup() {
  if [ -n "$host_pid" ] && kill -0 "$host_pid" 2>/dev/null; then
    kill -INT "$host_pid"
    waited=0
    while kill -0 "$host_pid" 2>/dev/null && [ "$waited" -lt $((deadline * 20)) ]; do
      sleep 0.05
      waited=$((waited + 1))
    done
    if kill -0 "$host_pid" 2>/dev/null; then
      echo "restart-timing.sh: qorhost did not stop within ${deadline} s of SIGINT; killing it" >&2
      kill -KILL "$host_pid" 2>/dev/null
    fi
    wait "$host_pid" 2>/dev/null
  fi
  for name in $programs; do "$daemon" stop "$name" >/dev/null 2>&1; done
  if [ "$ok" != 1 ] && [ -f "$work/qorhost.out" ]; then
    echo "--- the end of qorhost's output ($work/qorhost.out):" >&2
    tail -n 15 "$work/qorhost.out" >&2
  fi
  if [ "$keep" = 1 ] || [ "$ok" != 1 ]; then
    echo "restart-timing.sh: kept $work" >&2
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

die() {
  echo "restart-timing.sh: $1" >&2
  exit 1
}

now() { date +%s.%N; }
elapsed() { awk -v from="$1" -v to="$2" 'BEGIN { printf "%.2f", to - from }'; }
# True while `from` is less than `limit` seconds ago.
within() { awk -v from="$1" -v to="$(now)" -v limit="$2" 'BEGIN { exit !(to - from < limit) }'; }

host_alive() { kill -0 "$host_pid" 2>/dev/null || die "qorhost ended by itself"; }

# The pid of the program when a process runs it now, empty otherwise. The
# example script writes the pid file before the process becomes the program,
# so the executable is what counts.
running_pid() {
  pid=$(cat "$pidfile" 2>/dev/null) || return 0
  case "$pid" in '' | *[!0-9]*) return 0 ;; esac
  [ "$(readlink "/proc/$pid/exe" 2>/dev/null)" = "$want" ] && echo "$pid"
  return 0
}

# Waits until the service lists the sleeper as running with `pid`, asking
# for a listing once a second; the line also says today's restarts.
listed_line=
wait_listed() {
  start=$(now)
  while within "$start" "$deadline"; do
    host_alive
    kill -USR1 "$host_pid"
    asked=$(now)
    while within "$asked" 1; do
      listed_line=$(grep -F "id example.sleeper managed 1 (managed) state 4 (running) pid $1 " \
        "$work/qorhost.out" | tail -n 1)
      [ -n "$listed_line" ] && return 0
      sleep 0.05
    done
  done
  return 1
}

mkdir -p "$work/cap" "$work/ip" || exit 1
cp "$examples"/cap/*.xml "$work/cap/" || exit 1
sed -i "s|<agentPath>[^<]*</agentPath>|<agentPath>$qorhost</agentPath>|" "$work/cap/qorhost.xml" || exit 1
# Headroom above KILLS: the service may count a restart or two of its own
# around the first start.
limit=$((kills + 10))
sed -i "s|<maxRestarts>[0-9]*</maxRestarts>|<maxRestarts>$limit</maxRestarts>|" "$work/cap/sleeper.xml" || exit 1
grep -qF "<agentPath>$qorhost</agentPath>" "$work/cap/qorhost.xml" || die "could not set qorhost.xml's agentPath"
grep -qF "<maxRestarts>$limit</maxRestarts>" "$work/cap/sleeper.xml" ||
  die "could not raise the sleeper's maxRestarts"

period=$(sed -n 's|.*<checkFrequency>\([0-9]*\)</checkFrequency>.*|\1|p' "$work/cap/sleeper.xml")
[ -n "$period" ] || period=5

echo "qorhost $qorhost on $work/cap; $kills kills of qor-sleeper, each wait at most ${deadline} s"
QOR_EXAMPLES=$examples "$qorhost" --cap-dir "$work/cap" --ip-dir "$work/ip" --trace-level 128 \
  --trace-file "$work/trace" >"$work/qorhost.out" 2>"$work/qorhost.err" </dev/null &
host_pid=$!
# qorhost holds SIGUSR1 for its listings only once it runs its loop; its
# first listing says it got that far.
start=$(now)
until grep -q '^qorhost: [0-9]* agents*$' "$work/qorhost.out" 2>/dev/null; do
  host_alive
  within "$start" "$deadline" || die "qorhost did not list its agents within ${deadline} s"
  sleep 0.05
done
if [ -s "$work/qorhost.err" ]; then
  cat "$work/qorhost.err" >&2
  die "qorhost complained at startup"
fi

want=$(readlink -f "$program" 2>/dev/null || echo "$program")
start=$(now)
pid=
while [ -z "$pid" ]; do
  host_alive
  within "$start" "$deadline" || die "qor-sleeper did not start within ${deadline} s; the service starts it by its start script at its first check"
  sleep 0.05
  want=$(readlink -f "$program" 2>/dev/null || echo "$program")
  pid=$(running_pid)
done
wait_listed "$pid" || die "the service did not list qor-sleeper (pid $pid) as running within ${deadline} s"
echo "qor-sleeper runs, pid $pid, started by the service"

times=
i=1
while [ "$i" -le "$kills" ]; do
  # A kill right after the service saw the program would always fall at the
  # same point of its check period and measure that point only; failures
  # come at any moment, so each kill waits a random part of one period.
  sleep "$(awk -v seed="$$$i" -v period="$period" 'BEGIN { srand(seed); printf "%.2f", rand() * period }')"
  old=$pid
  killed=$(now)
  kill -KILL "$old" || die "could not kill pid $old"
  pid=
  while [ -z "$pid" ] || [ "$pid" = "$old" ]; do
    host_alive
    within "$killed" "$deadline" || die "kill $i: qor-sleeper was not running again within ${deadline} s"
    sleep 0.05
    pid=$(running_pid)
  done
  took=$(elapsed "$killed" "$(now)")
  times="$times$took
"
  wait_listed "$pid" || die "kill $i: the service did not list the new qor-sleeper (pid $pid) as running within ${deadline} s"
  echo "kill $i: pid $old -> $pid after $took s, restarts ${listed_line##* restarts }"
  i=$((i + 1))
done

median=$(printf '%s' "$times" | sort -n | awk '{ v[NR] = $1 } END {
  if (NR % 2) printf "%.2f", v[(NR + 1) / 2]; else printf "%.2f", (v[NR / 2] + v[NR / 2 + 1]) / 2 }')
echo "median kill-to-restart: $median s over $kills kills"
ok=1
