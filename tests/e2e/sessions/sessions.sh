#!/bin/bash
# Notifications on today's desktops: real logind sessions (made through PAM)
# running real display servers in a booted Debian 12, one fresh container per
# run. Usage: sessions.sh CASE MODE
#   MODE today      config.dat without [UI] SessionDiscovery (the default)
#        discovery  [UI] SessionDiscovery=1
# Each case pins where the notification lands, who the receipt names, and
# acknowledges it where it is seen; screenshots go to $ND_WORK/shots/.
set -euo pipefail

step="${1:?case}_${2:?mode}"
mode=$2
# shellcheck disable=SC2034 # read by bedcase.sh
deb=$ND_DEB
state=$ND_WORK/run/$step
desk=/root/desk
# shellcheck source=tests/support/bedcase.sh
source "$ND_SUPPORT/bedcase.sh"

config=""
[ "$mode" = today ] || config=$'[UI]\nSessionDiscovery=1\n'

start_bed() {
    boot
    tb copy "$state" "$ND_SUPPORT/desktop/desktop" /root
    install_and_start "$config"
}

add_user() { inside sh -c "id -u '$1' >/dev/null 2>&1 || useradd -m '$1'"; }

# A login session through PAM, as a display manager opens one:
#   session UNIT USER TYPE SEAT [--setenv=... | --property=...]... -- COMMAND...
session() {
    local unit=$1 user=$2 type=$3 seat=$4
    shift 4
    local -a options=(--property=PAMName=login "--property=User=$user"
        "--setenv=XDG_SESSION_TYPE=$type" --setenv=XDG_SESSION_CLASS=user)
    [ -z "$seat" ] || options+=("--setenv=XDG_SEAT=$seat")
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    shift
    add_user "$user"
    inside systemd-run --quiet "--unit=$unit" "${options[@]}" "$@"
}

# What logind made of the unit's session: "Active=yes Class=user ...".
expect_session() {
    local unit=$1 want=$2 pid id got
    pid=$(inside systemctl show -P MainPID "$unit")
    id=$(inside cat "/proc/$pid/sessionid")
    got=$(inside loginctl show-session "$id" -p Active -p Class -p Remote -p Seat -p Type | sort |
        paste -sd' ')
    expect "session of $unit is '$want', not '$got'" [ "$got" = "$want" ]
    # sd-login reads logind's state files, written a moment after the bus
    # already says so.
    [[ "$want" != *Active=yes* ]] ||
        await 5 "logind's file for session $id" "grep -qx STATE=active /run/systemd/sessions/$id"
}

# A root X server outside any session, as display managers run the
# greeter's or the login screen's: "/usr/bin/X DISPLAY -auth FILE".
root_x() {
    local unit=$1 display=$2 authority=$3
    inside systemd-run --quiet "--unit=$unit" /bin/bash -c "umask 077 && mkdir -p \
        \"\$(dirname '$authority')\" && : >'$authority' && xauth -q -f '$authority' add \
        '$display' . \$(mcookie) && exec -a /usr/bin/X /usr/bin/Xvfb '$display' -auth \
        '$authority' -nolisten tcp -noreset -screen 0 1280x800x24"
    await 15 "X server on $display" "test -S /tmp/.X11-unix/X${display#:}"
}

# The user's copy of a cookie, as display managers write one.
user_cookie() {
    local user=$1 display=$2 from=$3 to=$4
    inside sh -c "xauth -q -f '$to' add '$display' . \$(xauth -f '$from' list '$display' |
        awk '{print \$3}') && chown '$user:' '$to' && chmod 600 '$to'"
}

# The cookie mutter writes for its Xwayland in the user's runtime folder.
mutter_cookie() { inside sh -c "ls /run/user/\$(id -u '$1')/.mutter-Xwaylandauth.*"; }

notify() { gateway "message $1 \"Session test $1\" \"120|Sessions\" 5"; }

expect_receipt() {
    local id=$1 user=$2
    # No name at all when there is none to give.
    local line="CMD=MESSAGERECEIVED ID=$id UF=0${user:+ UN=$user}"
    await 15 "receipt '$line'" "grep -qE ': $line\$' /root/gateway.out"
}

# Nothing started: no display program during a few seconds after the receipt.
expect_nothing_started() {
    local i
    for ((i = 0; i < 10; i++)); do
        expect "no display program" inside sh -c '! pidof notifymessage'
        sleep 0.3
    done
}

# Started but shown to nobody: the display program ends unacknowledged.
expect_nothing_shown() {
    await 10 "display program ended" "! pidof notifymessage"
    expect "nothing acknowledged" inside sh -c "! grep -q 'CMD=MESSAGEACK' /root/gateway.out"
}

# The display program's window on the session described by ENV lines
# ("KIND USER DISPLAY XAUTHORITY WAYLAND_DISPLAY"), screenshot kept, then
# acknowledged by keyboard (Tab reaches the button, Return presses it).
expect_shown_and_acknowledged() {
    local id=$1 kind=$2 user=$3 display=$4 authority=$5 wayland=${6:-} pid uid window x y w h
    await 15 "display program" "pidof notifymessage"
    pid=$(inside pidof notifymessage)
    expect "the display program runs as $user" [ "$(inside ps -o user= -p "$pid")" = "$user" ]
    uid=$(inside id -u "$user")
    inside mkdir -p "$desk"
    local sway=""
    [ "$kind" != sway ] || sway=SWAYSOCK=$(inside sh -c "ls /run/user/$uid/sway-ipc.*.sock")
    inside sh -c "printf '%s\n' ND_DESKTOP_KIND=$kind ND_DESKTOP_USER=$user \
        XDG_RUNTIME_DIR=/run/user/$uid ${display:+DISPLAY=$display} $sway \
        ${authority:+XAUTHORITY=$authority} ${wayland:+WAYLAND_DISPLAY=$wayland} >$desk/env"
    read -r window x y w h < <(inside /usr/bin/python3 /root/desktop window --state "$desk" \
        --pid "$pid") || fail "no window of the display program on $kind $display$wayland"
    mkdir -p "$ND_WORK/shots"
    inside /usr/bin/python3 /root/desktop screenshot --state "$desk" --area "$x,$y,$w,$h" \
        --out /root/shot.png || fail "screenshot"
    inside cat /root/shot.png >"$ND_WORK/shots/$step.png"
    if [ "$kind" = sway ]; then
        # sway gives a new window the keyboard; wtype types through the
        # compositor's virtual keyboard.
        inside /usr/bin/python3 /root/desktop run --state "$desk" -- wtype -s 300 -k Tab -s 200 \
            -k Return
    else
        inside /usr/bin/python3 /root/desktop run --state "$desk" -- xdotool windowfocus --sync \
            "$window" sleep 0.3 key Tab sleep 0.2 key Return
    fi
    await 10 "acknowledged by $user" "grep -qF 'CMD=MESSAGEACK ID=$id UF=1 UN=$user' /root/gateway.out"
    await 5 "display program ended" "! pidof notifymessage"
}

# alice's mutter in a Wayland session on seat0, once the Xwayland it
# starts is up on DISPLAY: mutter_session UNIT DISPLAY
mutter_session() {
    local unit=$1 display=$2
    session "$unit" alice wayland seat0 -- mutter --headless --wayland --virtual-monitor 1280x800
    await 30 "the user's Xwayland on $display" "pgrep -u alice -f '^/usr/bin/Xwayland $display '"
    expect_session "$unit" "Active=yes Class=user Remote=no Seat=seat0 Type=wayland"
}

# Received as alice's, shown on mutter's Xwayland at DISPLAY and acknowledged.
expect_shown_on_mutter() {
    local id=$1 display=$2
    expect_receipt "$id" alice
    expect_shown_and_acknowledged "$id" mutter alice "$display" "$(mutter_cookie alice)" wayland-0
}

# GNOME on Wayland: mutter and the Xwayland it starts, the session on seat0.
case_gnome_wayland() {
    start_bed
    mutter_session nd-gnome :0
    notify 101
    if [ "$mode" = today ]; then
        # Xwayland does not look like "/…/X -auth": no window, receipt still sent.
        expect_receipt 101 ""
        expect_nothing_started
        return
    fi
    expect_shown_on_mutter 101 :0
}

# GNOME as it runs today: the session's scope holds only its leader; the
# shell (mutter) runs as a service of the user's service manager, hands its
# display to the manager's environment, and starts Xwayland when the first X
# client connects. A settings service started after it carries the display.
case_gnome_user_service() {
    start_bed
    session nd-gnome-session alice wayland seat0 -- sleep infinity
    expect_session nd-gnome-session "Active=yes Class=user Remote=no Seat=seat0 Type=wayland"
    local uid authority
    uid=$(inside id -u alice)
    user_manager() {
        inside runuser -u alice -- env "XDG_RUNTIME_DIR=/run/user/$uid" \
            "DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/$uid/bus" "$@"
    }
    user_manager systemd-run --user --quiet --unit=nd-shell mutter --headless --wayland \
        --virtual-monitor 1280x800
    await 30 "mutter's X display" "ls /run/user/$uid/.mutter-Xwaylandauth.* && test -S /tmp/.X11-unix/X0"
    authority=$(mutter_cookie alice)
    user_manager systemctl --user set-environment DISPLAY=:0 WAYLAND_DISPLAY=wayland-0 \
        "XAUTHORITY=$authority"
    user_manager systemd-run --user --quiet --unit=nd-settings sleep infinity
    notify 110
    expect_shown_on_mutter 110 :0
}

# GNOME on Xorg: the greeter's root X server stays on :0, the user's own X
# server runs in the session on :1 with the user's cookie.
case_gnome_xorg() {
    start_bed
    root_x nd-greeter-x :0 /run/gdm/greeter/Xauthority
    add_user alice
    local uid authority
    uid=$(inside id -u alice)
    authority=/run/user/$uid/gdm/Xauthority
    session nd-gnome-xorg alice x11 seat0 --setenv=DISPLAY=:1 "--setenv=XAUTHORITY=$authority" \
        -- /bin/bash -c "umask 077 && mkdir -p \"\$(dirname $authority)\" && : >$authority &&
            xauth -q -f $authority add :1 . \$(mcookie) && exec -a /usr/lib/xorg/Xorg \
            /usr/bin/Xvfb :1 -auth $authority -nolisten tcp -noreset -screen 0 1280x800x24"
    await 15 "the user's X server on :1" "test -S /tmp/.X11-unix/X1"
    expect_session nd-gnome-xorg "Active=yes Class=user Remote=no Seat=seat0 Type=x11"
    notify 102
    if [ "$mode" = today ]; then
        # The probe takes the last server's cookie (the user's, for :1) and
        # gives it with ":0.0": the greeter's server refuses it. No name: no
        # login record on ":0".
        expect_receipt 102 ""
        expect_nothing_shown
        return
    fi
    expect_receipt 102 alice
    expect_shown_and_acknowledged 102 xvfb alice :1 "$authority"
}

# Plasma on Wayland: SDDM's greeter X server (root's) stays on :0; the user's
# compositor (mutter standing in for KWin) gets its Xwayland on :1.
case_plasma_wayland() {
    start_bed
    root_x nd-sddm-x :0 /var/run/sddm/xauth_nd
    mutter_session nd-plasma :1
    notify 104
    if [ "$mode" = today ]; then
        # The probe finds the greeter's server; its cookie is root's and no
        # login record is on ":0", so the display program refuses.
        expect_receipt 104 ""
        expect_nothing_shown
        return
    fi
    expect_shown_on_mutter 104 :1
}

# LightDM: one root X server on :0, its cookie root's; the user's session
# holds its own copy in ~/.Xauthority.
case_lightdm() {
    start_bed
    root_x nd-lightdm-x :0 /var/run/lightdm/root/:0
    add_user alice
    user_cookie alice :0 /var/run/lightdm/root/:0 /home/alice/.Xauthority
    # TTYPath puts ":0" into the login record's line, as LightDM writes it
    # (logind then reports the display as "/dev/:0").
    session nd-xfce alice x11 seat0 --property=TTYPath=/dev/:0 --property=UtmpIdentifier=:0 \
        --property=UtmpMode=user --setenv=DISPLAY=:0 --setenv=XAUTHORITY=/home/alice/.Xauthority \
        -- sleep infinity
    expect_session nd-xfce "Active=yes Class=user Remote=no Seat=seat0 Type=x11"
    notify 103
    expect_receipt 103 alice
    expect_shown_and_acknowledged 103 xvfb alice :0 /home/alice/.Xauthority
}

# No graphical session at all, only a text login.
case_none() {
    start_bed
    session nd-tty alice tty "" -- sleep infinity
    expect_session nd-tty "Active=yes Class=user Remote=no Seat= Type=tty"
    notify 107
    expect_receipt 107 ""
    [ "$mode" = today ] || await 5 "the reason logged" \
        "grep -q ' Notification 107 not shown: ' /var/log/notifydaemon.log"
    expect_nothing_started
}

# XRDP: a remote session without a seat, its X server on :10 started in the
# user's home with "-auth .Xauthority", the cookie the user's; the session's
# programs know DISPLAY only.
case_xrdp() {
    start_bed
    add_user alice
    tb copy "$state" "$(dirname "$0")/remote-login" /root
    inside sh -c "cd /home/alice && xauth -q -f .Xauthority add :10 . \$(mcookie) &&
        chown alice: .Xauthority && chmod 600 .Xauthority"
    inside systemd-run --quiet --unit=nd-xrdp /usr/bin/python3 /root/remote-login alice 192.0.2.7 \
        DISPLAY=:10 -- /bin/bash -c "(exec -a /usr/lib/xorg/Xorg /usr/bin/Xvfb :10 -auth .Xauthority \
            -nolisten tcp -noreset -screen 0 1280x800x24) & exec sleep infinity"
    await 15 "X server on :10" "test -S /tmp/.X11-unix/X10"
    expect_session nd-xrdp "Active=yes Class=user Remote=yes Seat= Type=x11"
    notify 105
    if [ "$mode" = today ]; then
        expect_receipt 105 ""
        expect_nothing_shown
        return
    fi
    expect_receipt 105 alice
    expect_shown_and_acknowledged 105 xvfb alice :10 /home/alice/.Xauthority
}

# Native Wayland: sway headless, no X server at all.
case_sway() {
    start_bed
    add_user alice
    inside sh -c 'mkdir -p /home/alice/.config/sway && printf "%s\n" "output HEADLESS-1 resolution \
        1280x800" "xwayland disable" "default_border none" \
        "bar {" "position top" "}" >/home/alice/.config/sway/config &&
        chown -R alice: /home/alice/.config'
    session nd-sway alice wayland seat0 --setenv=WLR_BACKENDS=headless \
        --setenv=WLR_RENDERER=pixman --setenv=WLR_LIBINPUT_NO_DEVICES=1 -- sway
    # A session's clients (here its bar) carry WAYLAND_DISPLAY; the compositor does not.
    await 30 "sway's bar" "pgrep -u alice -x swaybar"
    expect_session nd-sway "Active=yes Class=user Remote=no Seat=seat0 Type=wayland"
    notify 106
    if [ "$mode" = today ]; then
        expect_receipt 106 ""
        expect_nothing_started
        return
    fi
    expect_shown_and_acknowledged 106 sway alice "" "" wayland-1
}

# A user who plants hostile values where the daemon looks: in the session's
# environment, and (for today's probe) a process dressed as an X server.
kHostileMark=/tmp/nd-hostile-ran
case_hostile() {
    start_bed
    # PAM sets XDG_RUNTIME_DIR and DBUS_SESSION_BUS_ADDRESS itself: the
    # 100 kB values are planted by the session's own process.
    session nd-mallory mallory x11 seat0 --property=UtmpIdentifier=:0 --property=UtmpMode=user \
        "--setenv=DISPLAY=:0;touch $kHostileMark;\$(touch $kHostileMark)" \
        --setenv=XAUTHORITY=/etc/shadow --setenv=WAYLAND_DISPLAY=../../root/x \
        -- /bin/bash -c "long=\$(head -c 100000 /dev/zero | tr '\\0' x) &&
            export XDG_RUNTIME_DIR=/run/user/0/\$long DBUS_SESSION_BUS_ADDRESS=unix:path=\$long &&
            exec -a /usr/bin/X /usr/bin/python3 -c 'import time; time.sleep(600)' \
            ':0;touch $kHostileMark' -auth /etc/shadow"
    await 10 "the process dressed as an X server" "pgrep -u mallory -f '^/usr/bin/X .*-auth '"
    expect_session nd-mallory "Active=yes Class=user Remote=no Seat=seat0 Type=x11"
    notify 108
    expect_receipt 108 mallory
    if [ "$mode" = discovery ]; then
        local why
        for why in 'WAYLAND_DISPLAY rejected (not a plain socket name): "../../root/x"' \
            "DISPLAY rejected (not of the form :N or :N.M): \":0;touch $kHostileMark;" \
            'XAUTHORITY rejected (owned by root outside a display manager'"'"'s folder): "/etc/shadow"' \
            'XDG_RUNTIME_DIR rejected (longer than 4096 bytes)' \
            'DBUS_SESSION_BUS_ADDRESS rejected (longer than 4096 bytes)' \
            'Notification 108 not shown: session [0-9]* of user id [0-9]* has no usable display'; do
            expect "logged: $why" inside grep -q " $why" /var/log/notifydaemon.log
        done
    fi
    sleep 3
    expect "nothing ran from the planted values" inside test ! -e "$kHostileMark"
    expect "no display program" inside sh -c '! pidof notifymessage'
}

# [agent] KeepUndelivered=1 (discovery only): a notification while nobody is
# logged in waits for the next graphical login (a LightDM-like one), is shown
# there once and acknowledged; a second login shows nothing. Today: never
# shown, as without the setting.
case_kept_login() {
    local login shown=0
    [ "$mode" = today ] || { config+=$'[agent]\nKeepUndelivered=1\n' && shown=1; }
    start_bed
    notify 109
    expect_receipt 109 ""
    [ "$shown" = 0 ] || await 5 "kept" \
        "grep -q ' Notification 109 kept until the next graphical login$' /var/log/notifydaemon.log"
    expect_nothing_started
    root_x nd-lightdm-x :0 /var/run/lightdm/root/:0
    add_user alice
    user_cookie alice :0 /var/run/lightdm/root/:0 /home/alice/.Xauthority
    for login in 1 2; do
        session "nd-xfce-$login" alice x11 seat0 --property=TTYPath=/dev/:0 \
            --property=UtmpIdentifier=:0 --property=UtmpMode=user --setenv=DISPLAY=:0 \
            --setenv=XAUTHORITY=/home/alice/.Xauthority -- sleep infinity
        expect_session "nd-xfce-$login" "Active=yes Class=user Remote=no Seat=seat0 Type=x11"
        if [ "$login$shown" = 11 ]; then
            expect_shown_and_acknowledged 109 xvfb alice :0 /home/alice/.Xauthority
        else
            expect_nothing_started
        fi
        inside systemctl stop "nd-xfce-$login"
    done
    expect "shown $shown time(s)" [ "$(inside grep -c ' Kept notification 109 shown in session ' \
        /var/log/notifydaemon.log)" = "$shown" ]
    expect "acknowledged $shown time(s)" \
        [ "$(inside grep -c 'CMD=MESSAGEACK ID=109 ' /root/gateway.out)" = "$shown" ]
}

case "$step" in
*_today | *_discovery) "case_$1" ;;
*) fail "unknown mode" ;;
esac
echo "PASS ($step) in $SECONDS s"
