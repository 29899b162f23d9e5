#!/bin/bash
# The Debian package under a real systemd. One step per run:
#   package   builds the package, and a copy one version newer for upgrades
#   bed       builds (or reuses) the test bed for it
#   notify | stop_restart | logrotate | upgrade_purge
#             a case, in a fresh container booted from the bed
# Paths come from the environment that CMakeLists.txt sets.
set -euo pipefail

step=${1:?step}
deb=$ND_WORK/deb/notifydaemon_${ND_VERSION}_amd64.deb
next_version=${ND_VERSION}+1
next_deb=$ND_WORK/deb/next/notifydaemon_${next_version}_amd64.deb
state=$ND_WORK/run/$step
# shellcheck source=tests/support/bedcase.sh
source "$ND_SUPPORT/bedcase.sh"

show() { inside systemctl show -P "$1" notifydaemon.service; }

fetch_customisation() {
    gateway "fileinfo notify-customization.lnk sxa-custom.dat $1"
    await 15 "customisation file in the cache" \
        "cmp -s /root/custom.txt /var/cache/notifydaemon/custom.dat"
}

# The desktop user's notification window, acknowledged from the keyboard as
# a user without a mouse does: focus on the window, Tab to the button, Enter;
# again until the acknowledgement reaches the gateway (xdotool's events can
# get lost). Escape first, which must never acknowledge.
acknowledge() {
    local id=$1 user=$2 authority=$3 pid window attempt
    local -a x11=(env DISPLAY=:0 XAUTHORITY="$authority")
    await 15 "notification window" \
        "${x11[*]} xdotool search --onlyvisible --pid \"\$(pidof notifymessage)\""
    pid=$(inside pidof notifymessage)
    expect "the display program runs as $user" [ "$(inside ps -o user= -p "$pid")" = "$user" ]
    window=$(inside "${x11[@]}" xdotool search --onlyvisible --pid "$pid" | head -n 1)
    inside timeout 5 "${x11[@]}" xdotool windowfocus --sync "$window" key Escape sleep 0.5 ||
        fail "no focus on the notification window"
    expect "nothing acknowledged before the button" \
        inside sh -c "! grep -q 'CMD=MESSAGEACK ID=$id ' /root/gateway.out"
    for attempt in 1 2 3; do
        inside timeout 5 "${x11[@]}" xdotool windowfocus --sync "$window" sleep 0.2 key Tab \
            sleep 0.2 key Return || true
        if tb wait "$state" 5 grep -qF "CMD=MESSAGEACK ID=$id UF=1 UN=$user" /root/gateway.out; then
            break
        fi
        [ $attempt -lt 3 ] || fail "no acknowledgement of $id after three tries"
    done
    await 5 "display program ended" "! pidof notifymessage"
}

# Every file outside the volatile places, for comparing before and after.
files() {
    inside find / -xdev \( -path /root -o -path /var/lib/dpkg -o -path /var/lib/apt \
        -o -path /var/cache/apt -o -path /var/cache/debconf -o -path /var/log/journal \
        -o -path /var/log/apt -o -path /var/log/dpkg.log -o -path /var/cache/ldconfig \) \
        -prune -o -print | sort
}

case_notify() {
    boot
    local authority
    authority=$(tb x-session "$state" alice)
    install_and_start
    # --man=no: the bed has no man-db to look up the manual pages the unit names.
    expect "the unit verifies" inside systemd-analyze verify --man=no notifydaemon.service
    local open
    open=$(inside grep -m 1 -F 'CMD=OPEN ' /root/gateway.out)
    # The transport upper-cases the clear key before deriving its wire form.
    expect "registered with the key notifykey stored: $open" \
        grep -qF " GSK=$("$ND_PROBE" wire-key "${kBedKey^^}") " <<<"$open"
    fetch_customisation 1000
    expect "customisation readable by all" [ "$(inside stat -c %a /var/cache/notifydaemon/custom.dat)" = 644 ]

    gateway 'message 4711 "Hello from the booted system" "120|Maintenance" 5'
    await 15 "receipt reported" "grep -qF 'CMD=MESSAGERECEIVED ID=4711 UF=0 UN=alice' /root/gateway.out"
    acknowledge 4711 alice "$authority"
}

case_stop_restart() {
    boot
    install_and_start
    local first second third
    first=$(show MainPID)
    expect "pid file names the main process" [ "$(inside cat /usr/sxa/daemon/notifydaemon.pid)" = "$first" ]
    # systemd deletes the pid file after the stop; a second name keeps what
    # the daemon left in it.
    inside ln /usr/sxa/daemon/notifydaemon.pid /root/pid.link
    inside systemctl stop notifydaemon.service
    expect "stop ends with status 1, a success" [ "$(show Result) $(show ExecMainStatus)" = "success 1" ]
    expect "pid file emptied" [ "$(inside stat -c %s /root/pid.link)" = 0 ]
    expect "no process left" inside sh -c "! pgrep -f '^/usr/sxa/'"

    inside systemctl start notifydaemon.service
    second=$(show MainPID)
    inside systemctl restart notifydaemon.service
    third=$(show MainPID)
    expect "restart runs a new daemon" [ "$second" != "$third" ]
    expect "the old one is gone" inside sh -c "! kill -0 $second 2>/dev/null"
    expect "pid file names the new one" [ "$(inside cat /usr/sxa/daemon/notifydaemon.pid)" = "$third" ]

    expect "no restart so far" [ "$(show NRestarts)" = 0 ]
    inside kill -KILL "$third"
    # RestartSec is 30 s.
    await 60 "restart after SIGKILL" "[ \$(systemctl show -P NRestarts notifydaemon.service) = 1 ]"
    tb wait-unit "$state" notifydaemon.service active 10 || fail "not active after SIGKILL"
    # Active again means the new daemon got past the stale pid file.
    expect "a new daemon after SIGKILL" [ "$(show MainPID)" != "$third" ]
}

case_logrotate() {
    boot
    tb x-session "$state" alice >/dev/null
    install_and_start
    # Without its display program the daemon logs one line per notification
    # (from the forked child, through the daemon's open log).
    inside mv /usr/sxa/gui/message/notifymessage /root/notifymessage
    local failure="Error launching child process" kept
    gateway 'message 1 "one"'
    await 15 "first failure logged" "grep -q ' $failure\$' /var/log/notifydaemon.log"
    kept=$(inside md5sum /var/log/notifydaemon.log | cut -d' ' -f1)

    inside logrotate -f /etc/logrotate.d/notifydaemon
    expect "rotated log kept whole" \
        [ "$(inside md5sum /var/log/notifydaemon.log.1 | cut -d' ' -f1)" = "$kept" ]
    expect "log emptied" [ "$(inside stat -c %s /var/log/notifydaemon.log)" = 0 ]
    gateway 'message 2 "two"'
    await 15 "daemon writes on" "grep -q ' $failure\$' /var/log/notifydaemon.log"
    # Append mode: the line lands at the new start, not after a hole.
    expect "one line, no hole" [ "$(inside sh -c 'tr -d "\0" </var/log/notifydaemon.log | wc -c')" = \
        "$(inside stat -c %s /var/log/notifydaemon.log)" ]
    expect "nothing before it" [ "$(inside wc -l /var/log/notifydaemon.log | cut -d' ' -f1)" = 1 ]

    inside logrotate -f /etc/logrotate.d/notifydaemon
    gateway 'message 3 "three"'
    await 15 "daemon writes on after a second rotation" "grep -q ' $failure\$' /var/log/notifydaemon.log"
    expect "the older rotation compressed, whole" \
        [ "$(inside sh -c 'zcat /var/log/notifydaemon.log.2.gz | md5sum' | cut -d' ' -f1)" = "$kept" ]
    expect "no line lost" [ "$(inside sh -c 'zcat /var/log/notifydaemon.log.2.gz;
        cat /var/log/notifydaemon.log.1 /var/log/notifydaemon.log' | grep -c " $failure\$")" = 3 ]
}

case_upgrade_purge() {
    boot
    local before
    before=$(files)
    install_and_start
    fetch_customisation 1000
    local old config
    old=$(show MainPID)
    config=$(inside md5sum /usr/sxa/daemon/config.dat)
    tb copy "$state" "$next_deb" /root

    apt_get install "./$(basename "$next_deb")"
    expect "upgraded" [ "$(inside dpkg-query -W -f '${Version}' notifydaemon)" = "$next_version" ]
    local new
    new=$(show MainPID)
    expect "restarted by the upgrade" [ "$new" != "$old" ]
    expect "running the new program" \
        [ "$(inside readlink "/proc/$new/exe")" = /usr/sxa/daemon/notifydaemon ]
    expect "config.dat kept" [ "$(inside md5sum /usr/sxa/daemon/config.dat)" = "$config" ]
    await 40 "registered after the upgrade" \
        "[ \$(grep -c ' Started up successfully\.$' /var/log/notifydaemon.log) = 2 ]"

    apt_get remove notifydaemon
    expect "remove stops the daemon" inside sh -c "! pgrep -f '^/usr/sxa/'"
    expect "remove keeps config.dat" inside test -f /usr/sxa/daemon/config.dat
    expect "no pid file after remove" inside test ! -e /usr/sxa/daemon/notifydaemon.pid
    apt_get purge notifydaemon
    local left
    left=$(diff <(echo "$before") <(files)) || true
    expect "purge leaves nothing behind: $left" [ -z "$left" ]
}

# A copy of the package one version newer: what an upgrade installs.
make_package() {
    rm -rf "$ND_WORK/deb"
    mkdir -p "$ND_WORK/deb/next"
    cpack --config "$ND_CPACK_CONFIG" -G DEB -B "$ND_WORK/deb" >"$ND_WORK/deb/cpack.log" 2>&1 ||
        { cat "$ND_WORK/deb/cpack.log" >&2; fail "cpack"; }
    # The package names what the daemon runs through the shell.
    local depends
    depends=$(dpkg-deb -f "$deb" Depends)
    for needed in procps wget; do
        expect "Depends names $needed: $depends" grep -qw "$needed" <<<"$depends"
    done
    expect "the admin's config.dat is never shipped" \
        sh -c "! dpkg-deb -c '$deb' | grep -q ' ./usr/sxa/daemon/config.dat\$'"
    local tree=$ND_WORK/deb/next/tree
    dpkg-deb -R "$deb" "$tree"
    sed -i "s/^Version: .*/Version: $next_version/" "$tree/DEBIAN/control"
    dpkg-deb --build --root-owner-group "$tree" "$next_deb" >/dev/null
    rm -rf "$tree"
}

case "$step" in
package) make_package ;;
bed) tb build "$ND_BED_CACHE" "$deb" >/dev/null ;;
notify | stop_restart | logrotate | upgrade_purge) "case_$step" ;;
*) fail "unknown step" ;;
esac
echo "PASS ($step) in $SECONDS s"
