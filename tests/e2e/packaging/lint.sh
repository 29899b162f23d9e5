#!/bin/bash
# No lintian error and no warning that the package's overrides do not explain,
# in either package (lintian also runs the manual pages through man
# --warnings); every manual page shipped; the unit's confinement rated at most
# 4.5 of 10 by systemd-analyze security.
set -euo pipefail
work=$ND_WORK/lint
deb=$work/notifydaemon_${ND_VERSION}_amd64.deb
rm -rf "$work"
mkdir -p "$work"
cpack --config "$ND_CPACK_CONFIG" -G DEB -B "$work" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log" >&2; exit 1; }

lintian --fail-on error,warning "$deb" "$work/notifydaemon-dbgsym_${ND_VERSION}_amd64.deb"

listing=$(dpkg-deb -c "$deb")
for page in man8/notifydaemon.8 man1/notifykey.1 man1/notifymessage.1 man5/config.dat.5; do
    grep -q " \./usr/share/man/$page\.gz\$" <<<"$listing" || { echo "no $page" >&2; exit 1; }
done

dpkg-deb -x "$deb" "$work/root"
systemd-analyze security --offline=true --threshold=45 \
    "$work/root/lib/systemd/system/notifydaemon.service"
echo "PASS"
