#!/usr/bin/env bash
# tests/valgrind/filter-under-valgrind.sh: the real filter under valgrind's
# memcheck, as smtpserver runs it: content-filter mode over the example spool
# files (a changed message, a reject, a bounce, a hash pass) against the
# reference daemon at debug level, then a run whose job fails (missing file),
# so that the error path is checked as well. Every answer must be the
# expected one, and valgrind must report no error and no definite or
# indirect leak.
# Usage: filter-under-valgrind.sh VOREX_ZMAILER QUELT_REFD EXAMPLE_SPOOL_DIR
# Exit status: 0 clean, 1 a finding or a wrong answer, 77 (CTest: skipped)
# when valgrind is not installed.
set -euo pipefail
filter=$1
refd=$2
samples=$3

if ! command -v valgrind >/dev/null; then
    echo "valgrind is not installed: skipped"
    exit 77
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/vorex-valgrind.XXXXXX")
refd_pid=
cleanup() {
    if [ -n "$refd_pid" ]; then
        kill "$refd_pid" 2>/dev/null || true
        wait "$refd_pid" 2>/dev/null || true
    fi
    rm -rf "$tmp"
}
trap cleanup EXIT
mkdir "$tmp/base" "$tmp/spool"
cp "$samples"/01-clean.spool "$samples"/02-eicar.spool "$samples"/03-bounce.spool \
    "$samples"/04-reinjected.spool "$tmp/spool/"

# The daemon's first line on standard error says that it listens.
exec 3< <(exec "$refd" --log-stderr --basedir "$tmp/base/" --test-engine \
    --add-header "X-Vorex-Checked: clean" 2>&1)
refd_pid=$!
read -r -u 3 ready
case "$ready" in
*listening*) ;;
*) echo "quelt-refd did not start: $ready"; exit 1 ;;
esac

# log4cxx keeps its logger repository and level objects until the process
# image goes; valgrind lists them as "still reachable", which is no leak.
# Only definite and indirect leaks (memory nothing points to any more) and
# memory errors count; no suppression file is needed.
memcheck() {
    local exitcode=$1
    shift
    valgrind --leak-check=full --show-leak-kinds=definite,indirect \
        --errors-for-leak-kinds=definite,indirect \
        --error-exitcode="$exitcode" --quiet --log-file="$tmp/valgrind.log" "$@"
}
args=(-Z /etc/zmailer/zmailer.conf --user "" --basedir "$tmp/base/"
      --log-filename "$tmp/base/zmailer.log" --level debug --hash demo-secret
      --interface 1 --error-action tempfail)
failures=0
check() {
    local what=$1 got=$2 wanted=$3
    if [ "$got" != "$wanted" ]; then
        printf '%s: got\n%s\nwanted\n%s\n' "$what" "$got" "$wanted"
        failures=$((failures + 1))
    fi
}
report_valgrind() {
    if [ -s "$tmp/valgrind.log" ]; then
        echo "== valgrind ($1)"
        cat "$tmp/valgrind.log"
        failures=$((failures + 1))
    fi
}

hungry='#hungry'
jobs=$(printf '%s\n' "$tmp"/spool/*.spool)
status=0
memcheck 1 "$filter" "${args[@]}" <<<"$jobs" >"$tmp/out" 2>"$tmp/err" || status=$?
check "four jobs: exit status" "$status" 0
check "four jobs: replies" "$(cat "$tmp/out")" "$hungry
0 250 2.6.0 Okey. Go ahead! clean
$hungry
-1 550 5.7.1 Rejected by Vorex Quelt! infected: EICAR-Test-File
$hungry
0 250 2.6.0 Okey. Go ahead! clean
$hungry
0 250 2.6.0 Okey. Go ahead!
$hungry"
check "four jobs: standard error" "$(cat "$tmp/err")" ""
report_valgrind "four jobs"

# Here the filter itself exits 1, so valgrind's own finding gets another
# status to be told apart.
status=0
memcheck 99 "$filter" "${args[@]}" <<<"$tmp/spool/missing.spool" >"$tmp/out" 2>"$tmp/err" ||
    status=$?
check "failing job: exit status" "$status" 1
check "failing job: replies" "$(cat "$tmp/out")" "$hungry
1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later. Internal error"
check "failing job: standard error" "$(cat "$tmp/err")" \
    "error: can not open file $tmp/spool/missing.spool for read/write:No such file or directory"
report_valgrind "failing job"

if [ "$failures" -ne 0 ]; then
    echo "filter-under-valgrind: $failures finding(s)"
    exit 1
fi
echo "filter-under-valgrind: no errors, no leaks"
