# Sourced by the package tests: skipping, failed checks counted, time in milliseconds, waiting
# for a condition, and stopping what a test started.
failures=0

# CTest reads exit code 77 as "skipped" (SKIP_RETURN_CODE).
skip() {
  echo "SKIP: $*"
  exit 77
}

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

now_ms() { echo $(($(date +%s%N) / 1000000)); }

# Waits up to $1 seconds for the command that follows to succeed.
wait_for() {
  local limit=$1
  shift
  local deadline=$(($(now_ms) + limit * 1000))
  until "$@"; do
    [ "$(now_ms)" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

# SIGTERM to each process still running (empty arguments are skipped), then waits for it.
stop_processes() {
  local pid
  for pid in "$@"; do
    if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
      kill -TERM "$pid" 2>/dev/null || true
      wait "$pid" 2>/dev/null || true
    fi
  done
}

# Runs the command that follows up to twice, its output in the log $1: for steps that fetch
# from the package mirror, where one failed download should not fail the test.
twice() {
  local log=$1
  shift
  local attempt
  for attempt in 1 2; do
    "$@" >"$log" 2>&1 && return 0
    echo "failed (attempt $attempt): $*"
    tail -20 "$log"
  done
  return 1
}
