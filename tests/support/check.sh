# shellcheck shell=bash
# Counts cases for tests that are scripts; these source it.

passed=0 failed=0

# check DESCRIPTION COMMAND...: the case passes when the command succeeds; otherwise the command's output is shown.
check() {
  local said code
  set +e # not "if command": that would switch "set -e" off inside the command
  said=$(set -e; "${@:2}" 2>&1)
  code=$?
  set -e
  if ((code == 0)); then
    echo "[       OK ] $1"
    passed=$((passed + 1))
  else
    printf '[  FAILED  ] %s (0 ms)\n%s\n' "$1" "${said:-no message}"
    failed=$((failed + 1))
  fi
}

equal() { [[ $1 == "$2" ]] || { echo "expected '$1', found '$2'" && return 1; }; }
