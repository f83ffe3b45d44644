#!/bin/sh
# Brings an older syslog configuration up to date: boot messages get a file of their own.
set -eu

configuration=/etc/syslog.conf
if ! grep -q '/var/log/boot.log' "$configuration"; then
    {
        cat "$configuration"
        printf 'daemon.*\t/var/log/boot.log\n'
    } >"$configuration.new"
    mv "$configuration.new" "$configuration"
fi
