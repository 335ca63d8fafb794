# shellcheck shell=bash
# Sourced by scripts/test and scripts/check: runs their stages, shows the progress of each and counts the tests. The
# last line that the script writes is the count.

export LC_ALL=C
passed=0 failed=0 skipped=0 heart=
tmp=$(mktemp -d)
chmod 755 "$tmp" # An ordinary user must reach a folder of its own below it.

finish() {
  local status=$? skips=""
  trap - EXIT
  set +e # The count must come.
  stop_heart
  rm -rf "$tmp"
  if ((status != 0)); then failed=$((failed + 1)); fi # The script itself was stopped.
  if ((skipped)); then skips=", $skipped skipped"; fi
  echo "$passed passed, $failed failed$skips"
  exit $((failed != 0))
}
trap finish EXIT
trap 'exit 130' INT TERM

# Prints every five seconds how far the running command has come, by the last progress line in its log.
beat() {
  local begun=$SECONDS last
  while sleep 5 >/dev/null 2>&1 && kill -0 $$ 2>/dev/null; do
    last=$(grep -aE '^\[[0-9]+/[0-9]+\]|^ *[0-9]+/[0-9]+ Test' "$tmp/log" | tail -n 1) || true
    last=${last:-$(tail -n 1 "$tmp/log")}
    last=${last%% ...*}
    last=${last%%  # GetParam*}
    printf '%6d s  %.100s\n' $((SECONDS - begun)) "${last:-still running}"
  done
}

start_heart() {
  beat &
  heart=$!
  disown "$heart" # Otherwise bash reports that it was killed.
}

# Only KILL is safe: a subshell that has just started may still have the traps of this shell, and would print a count.
stop_heart() {
  if [[ -n $heart ]]; then kill -KILL "$heart" 2>/dev/null || true; fi
  heart=
}

# Shows the log of a command that failed, without its progress lines, or else which tests were skipped.
show_log() {
  if ((status != 0 && status != 77)); then
    grep -avE '^ *Start +[0-9]+:|^ *[0-9]+/[0-9]+ Test .* Passed |^\[[0-9]+/[0-9]+\] ' "$tmp/log" || true
  else
    sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .*\*\*\*Skipped.*/        skipped: \1/p' "$tmp/log"
  fi
}

# execute NAME COMMAND...: leaves the exit code in status. The command may be a function: it runs in a subshell that
# ends at the first command that fails. Bash ignores such failures inside a condition, so execute, step and stage must
# not be called in one.
execute() {
  echo "== $1"
  rm -f "$tmp/report.xml"
  : >"$tmp/log"
  start_heart
  set +e
  (
    set -e
    "${@:2}"
  ) >"$tmp/log" 2>&1
  status=$?
  set -e
  stop_heart
  show_log
}

# step NAME COMMAND...: prepares the tests. If it fails, it counts as one failed test and ends the script.
step() {
  local begun=$SECONDS
  execute "$@"
  if ((status == 0)); then
    echo "done: $1, $((SECONDS - begun)) s"
  else
    echo "FAILED: $1, $((SECONDS - begun)) s"
    exit 1
  fi
}

# count_report: adds up the report of ctest into good, bad and left_out.
count_report() {
  good=$(grep -c '<testcase .*status="run"' "$tmp/report.xml" || true)
  bad=$(grep -c '<testcase .*status="fail"' "$tmp/report.xml" || true)
  left_out=$(grep -cE '<testcase .*status="(notrun|disabled)"' "$tmp/report.xml" || true)
}

# stage NAME COMMAND...: runs tests and counts those in ctest's report, $tmp/report.xml; without a report the command
# counts as one test. A command that cannot run on this machine prints why and returns 77: it counts as skipped.
# The name ends at a colon, and an explanation may follow.
stage() {
  local begun=$SECONDS good=0 bad=0 left_out=0 verdict=passed
  execute "$@"
  if [[ -e $tmp/report.xml ]]; then
    count_report
    if ((status != 0 && bad == 0)); then bad=1; fi # For instance, there was no test to run.
  elif ((status == 0)); then
    good=1
  elif ((status == 77)); then
    left_out=1
    verdict="skipped ($(tail -n 1 "$tmp/log"))"
  else
    bad=1
  fi
  if ((bad)); then verdict=FAILED; fi
  passed=$((passed + good)) failed=$((failed + bad)) skipped=$((skipped + left_out))
  echo "$verdict: ${1%%:*}, $good passed, $bad failed, $left_out skipped, $((SECONDS - begun)) s"
}

# build PRESET [CMAKE OPTION...]
build() {
  cmake --preset "$1" "${@:2}"
  cmake --build --preset "$1" -j "$(nproc)"
}

# The development build as the tests need it: the benchmarks would only add to the time.
build_dev() { build dev -DZEB_BUILD_BENCHMARKS=OFF; }

# run_tests CTEST OPTION...
run_tests() { ctest --output-junit "$tmp/report.xml" "$@"; }
