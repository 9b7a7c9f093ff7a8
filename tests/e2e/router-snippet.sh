#!/usr/bin/env bash
# tests/e2e/router-snippet.sh: the shell lines of examples/process.cf.snippet,
# taken from the file, read with the router's own rule for command names,
# and run against the real filter and the reference daemon.
# Only a pass line with exit status 0 may leave the message to be routed;
# every other outcome, start-up failures answering the pass line included,
# must move it to the freezer.
# Usage: router-snippet.sh VOREX_ZMAILER QUELT_REFD SNIPPET EXAMPLE_SPOOL_DIR
set -euo pipefail
filter=$(realpath "$1")
refd=$(realpath "$2")
snippet=$3
samples=$(realpath "$4")

tmp=$(mktemp -d "${TMPDIR:-/tmp}/vorex-snippet.XXXXXX")
refd_pid=
cleanup() {
    if [ -n "$refd_pid" ]; then
        kill "$refd_pid" 2>/dev/null || true
        wait "$refd_pid" 2>/dev/null || true
    fi
    rm -rf "$tmp"
}
trap cleanup EXIT
mkdir "$tmp/base" "$tmp/router" "$tmp/freezer"

# ZMailer's router reads an unquoted command name only up to its first "-":
# "/usr/sbin/vorex-zmailer" unquoted runs "/usr/sbin/vorex". The same cut
# here, at the start of a line or of a command substitution, before sh sees
# the lines; a quoted name is left whole.
routed=$(grep -v '^#' "$snippet" |
    sed -E 's#(^[[:space:]]*|\$\()(/[^[:space:]"'"'"'-]+)-[^[:space:]]*#\1\2#')
if [ "$routed" != "$(grep -v '^#' "$snippet")" ]; then
    echo "the router cuts an unquoted command name at its first '-':"
    diff <(grep -v '^#' "$snippet") - <<<"$routed" || true
    exit 1
fi
# The installed paths point into the sandbox; no account is handed entries
# (vorex need not exist here). $extra lets a row add an option.
body=$(sed <<<"$routed" \
    -e 's|"/usr/sbin/vorex-zmailer" |"$filter" $extra |' \
    -e "s|/var/vorex/|$tmp/base/|" \
    -e 's|/etc/vorex/secure-hash|"$tmp/secure-hash"|' \
    -e "s|--user vorex|--user ''|" \
    -e "s|--log-filename syslog|--log-filename $tmp/filter.log|")
for want in '"$filter" $extra' "$tmp/base/" '"$tmp/secure-hash"' "--user ''" "$tmp/filter.log"; do
    if ! grep -qF -- "$want" <<<"$body"; then
        echo "the snippet changed: no place for $want"
        exit 1
    fi
done
eval "process() { file=\$1
$body
echo routed; }"

exec 3< <(exec "$refd" --log-stderr --basedir "$tmp/base/" --test-engine 2>&1)
refd_pid=$!
read -r -u 3 ready
case "$ready" in
*listening*) ;;
*) echo "quelt-refd did not start: $ready"; exit 1 ;;
esac

# name | sample | extra option | secret | where the message ends up
rows=(
    "pass|01-clean.spool||s3cret|router"
    "reject|02-eicar.spool||s3cret|freezer"
    "bad option|01-clean.spool|--no-such-option|s3cret|freezer"
    "empty secret|01-clean.spool|||freezer"
    "unknown level|01-clean.spool|--level loud|s3cret|freezer"
)
failures=0
cd "$tmp/router"
for row in "${rows[@]}"; do
    IFS='|' read -r name sample extra secret expected <<<"$row"
    printf '%s\n' "$secret" >"$tmp/secure-hash"
    cp "$samples/$sample" "$tmp/router/1234"
    (set +e; process 1234 >/dev/null)
    where=gone
    [ -f "$tmp/router/1234" ] && where=router
    [ -f "$tmp/freezer/1234" ] && where=freezer
    if [ "$where" != "$expected" ]; then
        echo "$name: message in $where, wanted $expected"
        failures=$((failures + 1))
    fi
    rm -f "$tmp/router/1234" "$tmp/freezer/1234"
done
[ "$failures" -eq 0 ] && echo "every outcome as expected"
exit "$((failures > 0))"
