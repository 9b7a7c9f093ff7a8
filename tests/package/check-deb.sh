#!/usr/bin/env bash
# tests/package/check-deb.sh: what the Debian package holds, read with
# dpkg-deb -c, and its programs run from a copy extracted with dpkg-deb -x:
# the paths and modes an administrator relies on, stripped binaries that
# start, the smtpserver adapter with its configuration, the unit and the
# conffiles.
# Usage: check-deb.sh PATH/vorex-zmailer_VERSION_ARCH.deb
set -euo pipefail
deb=$1
version=$(dpkg-deb -f "$deb" Version)
tmp=$(mktemp -d "${TMPDIR:-/tmp}/vorex-deb.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
dpkg-deb -c "$deb" | awk '{print $1, $2, $6}' >"$tmp/contents"
dpkg-deb -x "$deb" "$tmp/root"
dpkg-deb -e "$deb" "$tmp/control"

passed=0
failed=0
check() { # name, then the command that must succeed
    local name=$1
    shift
    if "$@" >"$tmp/out" 2>&1; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAILED: $name"
        sed 's/^/    /' "$tmp/out"
    fi
}
listed() { grep -qxF -- "$1" "$tmp/contents"; }
same() { [ "$1" = "$2" ] || { echo "got:    $1"; echo "wanted: $2"; return 1; }; }
stripped() { ! readelf -S "$1" | grep -q '\.debug_info'; }

# mode owner path, as dpkg-deb -c lists them
for entry in \
    "-rwxr-xr-x root/root ./usr/sbin/vorex-zmailer" \
    "-rwxr-xr-x root/root ./usr/sbin/quelt-refd" \
    "-rwxr-xr-x root/root ./usr/sbin/vorex-zmailer-filter" \
    "-rwxr-xr-x root/root ./usr/sbin/vorex-quarantine" \
    "-rw-r--r-- root/root ./usr/share/man/man8/vorex-quarantine.8.gz" \
    "-rw-r--r-- root/root ./usr/share/man/man8/vorex-zmailer.8.gz" \
    "-rw-r--r-- root/root ./usr/share/man/man8/quelt-refd.8.gz" \
    "-rw-r--r-- root/root ./lib/systemd/system/quelt-refd.service" \
    "-rw-r--r-- root/root ./lib/systemd/system/quelt-refd.socket" \
    "-rw-r--r-- root/root ./etc/default/quelt-refd" \
    "-rw-r--r-- root/root ./usr/share/doc/vorex-zmailer/README.md.gz" \
    "-rw-r--r-- root/root ./usr/share/doc/vorex-zmailer/examples/process.cf.snippet" \
    "-rw-r--r-- root/root ./usr/share/doc/vorex-zmailer/examples/zmailer-filter.conf" \
    "-rw-r--r-- root/root ./usr/share/doc/vorex-zmailer/examples/prometheus/prometheus.yml" \
    "-rw-r--r-- root/root ./etc/vorex/zmailer-filter.conf" \
    "-rw-r--r-- root/root ./usr/share/doc/vorex-zmailer/examples/spool/01-clean.spool"; do
    check "listed: $entry" listed "$entry"
done
check "a man page for the adapter" test -e "$tmp/root/usr/share/man/man8/vorex-zmailer-filter.8.gz"
check "nothing under /usr/local or /var" bash -c "! grep -E ' \./(usr/local|var)/' '$tmp/contents'"

root=$tmp/root
check "vorex-zmailer --version" same "$("$root/usr/sbin/vorex-zmailer" --version 2>&1)" \
    "vorex-zmailer - version $version"
for program in quelt-refd vorex-zmailer-filter vorex-quarantine; do
    check "$program --version" same "$("$root/usr/sbin/$program" --version 2>&1)" "$program $version"
done
check "quelt-refd --help" "$root/usr/sbin/quelt-refd" --help
check "vorex-zmailer stripped" stripped "$root/usr/sbin/vorex-zmailer"
check "quelt-refd stripped" stripped "$root/usr/sbin/quelt-refd"
check "adapter stripped" stripped "$root/usr/sbin/vorex-zmailer-filter"
check "vorex-quarantine --help" "$root/usr/sbin/vorex-quarantine" --help
check "vorex-quarantine stripped" stripped "$root/usr/sbin/vorex-quarantine"
check "adapter runs the installed filter with the installed options" \
    grep -q -- '--filter arg (=/usr/sbin/vorex-zmailer)$' \
    <("$root/usr/sbin/vorex-zmailer-filter" --help)
check "adapter reads /etc/vorex/zmailer-filter.conf" \
    grep -q '(=/etc/vorex/zmailer-filter.conf)' <("$root/usr/sbin/vorex-zmailer-filter" --help)
check "shipped options are the former wrapper's" same "$(grep -v '^#' "$root/etc/vorex/zmailer-filter.conf")" \
    "$(printf '%s\n' '--basedir /var/vorex/' '--user vorex' '--timeout 30' '--error-action tempfail' \
        '--log-filename syslog --facility mail --level info')"

unit=$root/lib/systemd/system/quelt-refd.service
for line in "Type=notify" "StartLimitIntervalSec=0" "User=vorex" "Group=vorex" "EnvironmentFile=-/etc/default/quelt-refd" \
    "RestartPreventExitStatus=2" \
    "ExecStart=/usr/sbin/quelt-refd --basedir /var/vorex --facility mail \$OPTIONS" \
    "Wants=quelt-refd.socket" "ProtectProc=invisible" "IPAddressDeny=any"; do
    check "unit: $line" grep -qxF -- "$line" "$unit"
done
for line in "ListenStream=/var/vorex/quelt.sock" "SocketUser=vorex" "SocketGroup=vorex" \
    "SocketMode=0660"; do
    check "socket unit: $line" grep -qxF -- "$line" "${unit%.service}.socket"
done
check "conffile /etc/default/quelt-refd" grep -qx /etc/default/quelt-refd "$tmp/control/conffiles"
check "conffile /etc/vorex/zmailer-filter.conf" grep -qx /etc/vorex/zmailer-filter.conf \
    "$tmp/control/conffiles"
check "OPTIONS= in /etc/default/quelt-refd" grep -q '^OPTIONS=' "$root/etc/default/quelt-refd"

echo "package-contents: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
