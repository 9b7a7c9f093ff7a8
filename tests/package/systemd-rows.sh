#!/bin/bash
# tests/package/systemd-rows.sh: the package's units under a real systemd.
# Runs once inside a Debian 12 tree booted with systemd-nspawn -b, with the
# package and clamav-daemon installed (OPTIONS as shipped) and the same
# .deb at /root/new.deb; writes /root/rows.out and powers off. Not run by
# CI (it needs a booted systemd). How it was run:
#   debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus bookworm ROOT
#   chroot ROOT apt-get install clamav-daemon curl bc procps /root/new.deb
#   a unit in ROOT (Type=simple, WantedBy=multi-user.target) with ExecStart=/root/rows.sh
#   systemd-nspawn -b -D ROOT --register=no --keep-unit --private-network
# Rows: a fresh install (skipped, not failed; the filter defers at once),
# a typo in OPTIONS (restart fails; no start-limit trap after the fix), an
# unreachable clamd named at the start (log line, quelt_upstream_up 0),
# and 60 messages through the adapter while the socket and service are
# restarted, then while dpkg -i upgrades the package.
exec >/root/rows.out 2>&1
set -u
say() { printf '\n== %s\n' "$*"; }
samples=/usr/share/doc/vorex-zmailer/examples/spool
filter() { # one job through the installed adapter; prints the reply line
    install -m 0600 "$samples/01-clean.spool" /root/job
    printf '/root/job\n' | /usr/sbin/vorex-zmailer-filter | sed -n 2p
}
sleep 5
say "row 4: fresh install, OPTIONS empty"
systemctl is-system-running
systemctl --failed --no-legend
echo "service: $(systemctl is-active quelt-refd.service) failed? $(systemctl is-failed quelt-refd.service)"
echo "socket: $(systemctl is-active quelt-refd.socket)"
journalctl -b -u quelt-refd --no-pager | grep -v '^--' | tail -5
start=$(date +%s.%N); echo "filter: $(filter)"; echo "took $(echo "$(date +%s.%N) - $start" | bc) s"

# a private clamd (database written here) for the rest
mkdir -p /srv/clamd && echo "44d88612fea8a8f36de82e1278abb02f:68:eicar.com" >/srv/clamd/t.hdb
printf 'LocalSocket /srv/clamd/clamd.sock\nLocalSocketMode 666\nDatabaseDirectory /srv/clamd\nForeground yes\nUser clamav\n' >/srv/clamd/clamd.conf
chown -R clamav /srv/clamd
systemd-run --unit=testclamd /usr/sbin/clamd -c /srv/clamd/clamd.conf
for _ in $(seq 100); do [ -S /srv/clamd/clamd.sock ] && break; sleep 0.2; done

say "row 3: a typo in OPTIONS"
echo 'OPTIONS="--clamd /srv/clamd/clamd.sock --spam-rejectt 5"' >>/etc/default/quelt-refd
systemctl restart quelt-refd; echo "restart status: $?"
for i in 1 2 3 4 5 6 7; do echo "filter $i: $(filter)"; done
echo "service: $(systemctl is-active quelt-refd.service) socket: $(systemctl is-active quelt-refd.socket)"
echo "journal lines since the restart: $(journalctl -u quelt-refd --since '-60s' --no-pager | wc -l)"
journalctl -u quelt-refd --since '-60s' --no-pager | tail -6
sed -i '$d' /etc/default/quelt-refd
echo 'OPTIONS="--clamd /srv/clamd/clamd.sock --clamd /srv/clamd/missing.sock --metrics 127.0.0.1:9733"' >>/etc/default/quelt-refd
say "after the fix, no reset-failed"
systemctl restart quelt-refd; echo "restart status: $?"
echo "service: $(systemctl is-active quelt-refd.service) socket: $(systemctl is-active quelt-refd.socket)"
say "row 5: a wrong path is named at the start"
journalctl -u quelt-refd --since '-20s' --no-pager | grep -E 'down|listening' 
curl -s http://127.0.0.1:9733/metrics | grep '^quelt_upstream_up'
echo "filter: $(filter)"
quelt-refd --check | grep -v '^ok'

say "row 2 before: the old postinst's restart of the socket and the service, under load"
: >/root/replies
( for i in $(seq 60); do filter >>/root/replies; done ) &
load=$!
sleep 1
systemctl restart quelt-refd.socket quelt-refd.service; echo "restart status: $?"
wait $load
echo "replies: $(wc -l </root/replies), passed: $(grep -c '^0 250' /root/replies), other:"
grep -v '^0 250' /root/replies | sort | uniq -c

say "row 2: an upgrade under load"
: >/root/replies
( for i in $(seq 60); do filter >>/root/replies; done ) &
load=$!
sleep 1
DEBIAN_FRONTEND=noninteractive dpkg -i /root/new.deb >/root/dpkg.log 2>&1; echo "dpkg status: $?"
wait $load
echo "replies: $(wc -l </root/replies), passed: $(grep -c '^0 250' /root/replies), other:"
grep -v '^0 250' /root/replies | sort | uniq -c
grep -i 'restart\|quelt' /root/dpkg.log | head
echo "service: $(systemctl is-active quelt-refd.service) since $(systemctl show -P ActiveEnterTimestamp quelt-refd.service)"
echo "socket since $(systemctl show -P ActiveEnterTimestamp quelt-refd.socket)"
say done
systemctl poweroff
