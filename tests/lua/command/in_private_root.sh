#!/bin/sh
# Runs a command where the files that the module opens by fixed path are its own: a
# private mount namespace with a copy of /etc (no vx_filter.conf) and an empty /var/opt.
# Exit status 77 where such a namespace cannot be had.
if [ "$1" != --inside ]; then
    flags=-m
    [ "$(id -u)" -eq 0 ] || flags=-rm
    if ! reason=$(unshare $flags --propagation private true 2>&1); then
        echo "SKIPPED: no private mount namespace: $reason"
        exit 77
    fi
    exec unshare $flags --propagation private "$0" --inside "$@"
fi
shift
set -e
mount -t tmpfs tmpfs /mnt
mkdir /mnt/etc /mnt/opt
# Files of other owners may be unreadable in a user namespace; no test needs them.
cp -a /etc/. /mnt/etc 2>/dev/null || true
rm -f /mnt/etc/vx_filter.conf
mount --bind /mnt/etc /etc
mount --bind /mnt/opt /var/opt
exec "$@"
