# The two words of the shell tests: fail says what went wrong and ends the
# test; show prints a file for whoever reads a failure. Sourced by the
# install and package tests.

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

show() {
  echo "---- $1" >&2
  cat "$1" >&2 2>/dev/null || true
}
