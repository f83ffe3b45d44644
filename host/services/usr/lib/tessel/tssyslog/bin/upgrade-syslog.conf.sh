#!/bin/sh
# Brings an older configuration of inetutils' syslogd up to date: boot messages get a file of their own.
set -eu

# Which is not what rsyslog goes by.
[ ! -x /usr/sbin/rsyslogd ] || exit 0
configuration=/etc/syslog.conf
if ! grep -q '/var/log/boot.log' "$configuration"; then
    {
        cat "$configuration"
        printf 'daemon.*\t/var/log/boot.log\n'
    } >"$configuration.new"
    mv "$configuration.new" "$configuration"
fi
