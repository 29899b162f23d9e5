# shellcheck shell=bash disable=SC2154 # state, step and deb are the caller's
# Sourced by booted-container test scripts (bash, set -euo pipefail): one
# case in a fresh container booted from tests/support/testbed, the package
# installed, the development gateway inside on 127.0.0.1:$kBedPort.
# The caller sets: ND_TESTBED, ND_BED_CACHE, ND_DEVGATEWAY, deb (the package),
# state (the container's state directory), step (the case, for messages).

kBedPort=9000
kBedKey=Bed-Key-15bytes

tb() { "$ND_TESTBED" "$@"; }
inside() { tb run "$state" "$@"; }

fail() {
    echo "FAIL ($step): $*" >&2
    if [ -f "$state/leader" ]; then
        inside sh -c 'systemctl status --no-pager notifydaemon.service; journalctl -b --no-pager -n 40
            echo "-- daemon log"; cat /var/log/notifydaemon.log
            echo "-- gateway"; tail -n 30 /root/gateway.out' >&2 || true
    fi
    exit 1
}

expect() {
    local what=$1
    shift
    "$@" || fail "$what"
}

# Until the shell snippet succeeds inside.
await() {
    tb wait "$state" "$1" sh -c "$3" || fail "$2 (not within $1 s)"
}

boot() {
    local bed
    bed=$(tb build "$ND_BED_CACHE" "$deb")
    rm -rf "$state"
    trap 'tb stop "$state"' EXIT
    tb boot "$bed" "$state"
    tb copy "$state" "$deb" "$ND_DEVGATEWAY" /root
    inside sh -c 'printf "logo=bed\n" >/root/custom.txt'
}

# Lines appended to /root/gateway.in are the gateway's commands,
# /root/gateway.out what it saw; it serves /root/custom.txt as the
# customisation file.
start_gateway() {
    inside touch /root/gateway.in
    inside systemd-run --quiet --unit=devgateway --property=StandardOutput=file:/root/gateway.out \
        sh -c "tail -f /root/gateway.in | exec /root/devgateway --port $kBedPort --cmpi 2 \
            --serve notify-customization.lnk=/root/custom.txt"
    await 10 "gateway listening" "grep -q '^listening on 127.0.0.1:$kBedPort' /root/gateway.out"
}

gateway() { inside sh -c 'printf "%s\n" "$1" >>/root/gateway.in' sh "$1"; }

apt_get() {
    inside sh -c 'cd /root && DEBIAN_FRONTEND=noninteractive apt-get -y -q "$@"' sh "$@" \
        >"$state/apt.out" 2>&1 || { cat "$state/apt.out" >&2; fail "apt-get $*"; }
}

# As an admin does it: install, write config.dat (the gateway section, then
# EXTRA verbatim), enable and start; then wait for the registration.
install_and_start() {
    local extra=${1:-}
    apt_get install "./$(basename "$deb")"
    local stored
    stored=$(inside /usr/sxa/daemon/notifykey "$kBedKey")
    inside sh -c 'printf "[gateway]\ngatewayip=127.0.0.1\ngatewayport=%s\ngatewaykey=%s\n%s" \
        "$1" "$2" "$3" >/usr/sxa/daemon/config.dat' sh "$kBedPort" "$stored" "$extra"
    start_gateway
    inside systemctl enable --now notifydaemon.service 2>/dev/null || fail "systemctl enable --now"
    await 40 "daemon registered" "grep -q ' Started up successfully\.$' /var/log/notifydaemon.log"
}
