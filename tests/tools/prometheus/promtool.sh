#!/bin/sh
# Runs one promtool check on the example Prometheus files for CTest:
#   promtool.sh rules|config|test FILE
# Exit 77 (skipped) when promtool is not installed (make deps installs it),
# otherwise promtool's own status, with its output.
set -u
command -v promtool >/dev/null 2>&1 || { echo "promtool is not installed: skipped"; exit 77; }
case "$1" in
  rules) exec promtool check rules "$2" ;;
  config) exec promtool check config "$2" ;;
  test) exec promtool test rules "$2" ;;
  *) echo "promtool.sh: unknown check '$1'" >&2; exit 2 ;;
esac
