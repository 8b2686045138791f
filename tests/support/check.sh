# shellcheck shell=bash
# For tests that are scripts, which source this.

passed=0 failed=0

# check DESCRIPTION COMMAND...: the case holds when the command succeeds; its output explains when it does not.
check() {
  local said code
  set +e # as the body of an "if" the command would run without "set -e"
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
