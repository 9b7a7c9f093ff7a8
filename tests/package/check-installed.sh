#!/usr/bin/env bash
# tests/package/check-installed.sh: installs the Debian package on this
# machine and puts it into service as an administrator would, without
# systemd: the account, directories and secret made by the package;
# the maintainer scripts against a link planted in place of msgs/; the
# installed socket unit emulated (systemd-socket-activate makes the socket as
# root and passes it) and the service's ExecStart run as the vorex account,
# first as shipped (OPTIONS="": it refuses in one line), then with a private
# clamd this script starts; quelt-refd --check on that set-up; then the
# installed smtpserver adapter, with its installed options, passes its
# --check, filters the README's sample (a pass) and a message marked with the
# installed secret (a pass without a check, its X-Vorex-Hash line cut out),
# and answers 451 and #hungry once the daemon is stopped. The package is
# purged again at the end, and the account removed when this script made it.
# Needs root.
# Usage: check-installed.sh PATH/vorex-zmailer_VERSION_ARCH.deb
set -euo pipefail
deb=$(realpath "$1")
tmp=$(mktemp -d "${TMPDIR:-/tmp}/vorex-installed.XXXXXX")
had_account=no
getent passwd vorex >/dev/null && had_account=yes
daemon_pid=
clamd_pid=
cleanup() {
    for pid in $daemon_pid $clamd_pid; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    apt-get purge -y -qq -o DPkg::Lock::Timeout=120 vorex-zmailer >/dev/null 2>&1 || true
    if [ "$had_account" = no ] && getent passwd vorex >/dev/null; then
        userdel vorex || true
        groupdel vorex 2>/dev/null || true
    fi
    rm -rf "$tmp"
}
trap cleanup EXIT

export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq --no-install-recommends -o DPkg::Lock::Timeout=120 "$deb" \
    </dev/null >"$tmp/apt.log" 2>&1 || { cat "$tmp/apt.log"; exit 1; }
# Where systemd runs, the package has started the unit: this check runs its
# own copy of the daemon instead.
if [ -d /run/systemd/system ]; then
    systemctl stop quelt-refd.service
fi

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
same() { [ "$1" = "$2" ] || { echo "got:    $1"; echo "wanted: $2"; return 1; }; }
mode() { stat -c '%U:%G %a' "$1"; }

check "account vorex" getent passwd vorex
check "/var/vorex" same "$(mode /var/vorex)" "root:vorex 750"
check "/var/vorex/msgs" same "$(mode /var/vorex/msgs)" "root:vorex 1770"
check "/etc/vorex/secure-hash" same "$(mode /etc/vorex/secure-hash)" "root:root 600"
secret=$(cat /etc/vorex/secure-hash)
check "secret is 32 random bytes in hex" grep -qxE '[0-9a-f]{64}' /etc/vorex/secure-hash

# What systemd would judge of the installed unit (it needs no running
# systemd), for CI's log.
systemd-analyze security --offline=yes /lib/systemd/system/quelt-refd.service || true

# The account cannot rearrange the base directory: no link in place of msgs/.
check "vorex cannot move msgs/ away" bash -c '! setpriv --reuid=vorex --regid=vorex \
    --init-groups mv /var/vorex/msgs /var/vorex/x || { mv /var/vorex/x /var/vorex/msgs; false; }'

# A link in place of msgs/ (as an account could plant it where the layout
# lets it): reinstalling and reconfiguring report it and leave its target.
mkdir -m 0755 "$tmp/target"
mv /var/vorex/msgs "$tmp/msgs.real"
ln -s "$tmp/target" /var/vorex/msgs
for step in "apt-get install -y -qq --reinstall -o DPkg::Lock::Timeout=120 $deb" \
    "dpkg-reconfigure vorex-zmailer"; do
    $step </dev/null >"$tmp/step.log" 2>&1 || { cat "$tmp/step.log"; exit 1; }
    check "$step: target of a planted msgs/ link unchanged" \
        same "$(mode "$tmp/target")" "root:root 755"
    check "$step: the planted link reported" \
        grep -q "/var/vorex/msgs is not a directory.*left alone" "$tmp/step.log"
done
rm /var/vorex/msgs
mv "$tmp/msgs.real" /var/vorex/msgs

# The socket unit as systemd runs it: the socket made by root with its
# SocketUser, SocketGroup and SocketMode; the service's command line ($OPTIONS
# from the environment file, split into words) started as vorex on the first
# connection, with the socket as its descriptor 3.
sed -n 's/^ListenStream=//p' /lib/systemd/system/quelt-refd.socket >"$tmp/listen"
check "socket unit listens on /var/vorex/quelt.sock" same "$(cat "$tmp/listen")" /var/vorex/quelt.sock
execstart=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/quelt-refd.service)
OPTIONS=
# shellcheck disable=SC1091
. /etc/default/quelt-refd
execstart=${execstart//\$OPTIONS/$OPTIONS}
read -r -a command <<<"$execstart"
as_vorex=(setpriv --reuid=vorex --regid=vorex --init-groups)
status=0
"${as_vorex[@]}" "${command[@]}" 2>"$tmp/refused.err" || status=$?
check "as shipped the daemon refuses to start (status 2)" same "$status" 2
check "and says why in one line" same "$(wc -l <"$tmp/refused.err") $(cut -c1-23 "$tmp/refused.err")" \
    "1 quelt-refd: no engine: "

# A private clamd (the anti-virus test file's MD5 as its database) where the
# account can reach its socket.
chmod 0755 "$tmp"
mkdir -p "$tmp/clamd/db"
echo "44d88612fea8a8f36de82e1278abb02f:68:eicar.com" >"$tmp/clamd/db/t.hdb"
printf 'LocalSocket %s\nDatabaseDirectory %s\nForeground yes\nLogFile %s\n' \
    "$tmp/clamd/clamd.sock" "$tmp/clamd/db" "$tmp/clamd/clamd.log" >"$tmp/clamd/clamd.conf"
/usr/sbin/clamd -c "$tmp/clamd/clamd.conf" >/dev/null 2>&1 &
clamd_pid=$!
for _ in $(seq 300); do
    [ -S "$tmp/clamd/clamd.sock" ] && break
    sleep 0.1
done
command+=(--clamd "$tmp/clamd/clamd.sock")
systemd-socket-activate -l /var/vorex/quelt.sock -- \
    "${as_vorex[@]}" "${command[@]}" 2>"$tmp/daemon.err" &
daemon_pid=$!
# The wait for the socket is bounded, not timed.
for _ in $(seq 100); do
    [ -S /var/vorex/quelt.sock ] && break
    sleep 0.1
done
chown vorex:vorex /var/vorex/quelt.sock
chmod 0660 /var/vorex/quelt.sock
# The doctor on this set-up, with messages through the daemon (the first
# starts it); no ZMailer here, so that part is skipped.
if ! /usr/sbin/quelt-refd --check --clamd "$tmp/clamd/clamd.sock" >"$tmp/check.out" 2>&1; then
    echo "FAILED: quelt-refd --check against the emulated units: ${command[*]}"
    sed 's/^/    /' "$tmp/check.out" "$tmp/daemon.err"
    echo "package-installed: $passed passed, $((failed + 1)) failed"
    exit 1
fi
passed=$((passed + 1))
check "the daemon runs as vorex" same "$(ps -o user= -p "$daemon_pid")" vorex

# The adapter as smtpserver runs it: one job line, then the end of input.
filter() {
    printf '%s\n' "$1" | /usr/sbin/vorex-zmailer-filter -Z /etc/zmailer/zmailer.conf
}
samples=/usr/share/doc/vorex-zmailer/examples/spool
install -m 0600 "$samples/01-clean.spool" "$tmp/clean"
out=$(filter "$tmp/clean")
check "adapter --check finds only ok" same "$(/usr/sbin/vorex-zmailer-filter --check | cut -d' ' -f1 | sort -u)" ok
check "adapter passes the README's sample" grep -qx '0 250 2.6.0 Okey. Go ahead!.*' <<<"$out"
check "adapter answers as smtpserver expects" same "$(sed -n '1p;3p' <<<"$out")" $'#hungry\n#hungry'

# Mail the daemon sends back carries the installed secret: it passes
# unchecked and loses exactly its X-Vorex-Hash line.
sed "s/^X-Vorex-Hash: .*/X-Vorex-Hash: $secret/" "$samples/04-reinjected.spool" >"$tmp/returned"
chmod 0600 "$tmp/returned"
grep -v '^X-Vorex-Hash: ' "$tmp/returned" >"$tmp/returned.expected"
out=$(filter "$tmp/returned")
check "returned mail passes unchecked" same "$(sed -n 2p <<<"$out")" "0 250 2.6.0 Okey. Go ahead!"
check "returned mail loses its X-Vorex-Hash line" cmp "$tmp/returned" "$tmp/returned.expected"

# A rejected message stays; the admin's tool reads the account's entry.
install -m 0600 "$samples/05-eicar-attachment.spool" "$tmp/infected"
filter "$tmp/infected" >/dev/null
check "vorex-quarantine lists the kept virus" grep -q \
    '  reject  <alice@corp.example> -> <partner@other.example>,<team+sales@corp.example>  infected: ' \
    <(/usr/sbin/vorex-quarantine list)

kill "$daemon_pid"
wait "$daemon_pid" 2>/dev/null || true
daemon_pid=
install -m 0600 "$samples/01-clean.spool" "$tmp/clean"
check "daemon stopped: 451 and #hungry" same "$(filter "$tmp/clean")" \
    $'#hungry\n1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later. Internal error\n#hungry'
echo "package-installed: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
