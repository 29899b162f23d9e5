#!/bin/bash
# The demo: one notification's round trip through the real daemon. As root,
# from anywhere:
#
#   bash scripts/demo.sh
#
# Installs missing build packages (scripts/deps.sh), builds the daemon, the
# development gateway and the display-program stand-in into build/demo, then
# runs everything inside tests/support/sandbox (private namespaces, tmpfs over
# /usr/sxa, /var/log, /var/cache and /run, a veth eth0): a desktop log-in for
# "alice" on ":0", a stand-in X server, the recording display program, the
# development gateway on 127.0.0.1 and the shipped daemon with its real
# timing. It prints the registration, the notification, what the display
# program received, and the receipt and acknowledgement at the gateway. All
# processes end with the sandbox; nothing outside it changes (build dir aside).
# ND_BUILD_JOBS limits the parallel build (default: every core).
set -euo pipefail

if [ "${1:-}" != --inside ]; then
    root=$(cd "$(dirname "$0")/.." && pwd)
    if [ "$(id -u)" != 0 ]; then
        echo "demo: run as root (it builds, then uses private namespaces)" >&2
        exit 2
    fi
    "$root/scripts/deps.sh"
    build="$root/build/demo"
    echo "== Building into $build"
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build" -j "${ND_BUILD_JOBS:-$(nproc)}" --target notifydaemon devgateway nd_notify_stub \
        >/dev/null
    exec "$root/tests/support/sandbox" --hostname demo-desk -- "$0" --inside "$build"
fi

# ---- inside the sandbox --------------------------------------------------
build=$2
stub="$build/tests/support/stubs/nd_notify_stub"
demo=/run/nd-notify
records=$demo/records
gwout=$demo/gateway.out
log=/var/log/notifydaemon.log

now_ms() { echo $(($(date +%s%N) / 1000000)); }
say() { printf '%s\n' "$*"; }

# Waits up to $2 seconds for an extended regular expression in file $1.
wait_for() {
    local deadline=$(($(date +%s) + $2))
    until grep -Eq "$3" "$1" 2>/dev/null; do
        if [ "$(date +%s)" -ge "$deadline" ]; then
            say "demo: timed out waiting for /$3/ in $1" >&2
            return 1
        fi
        sleep 0.05
    done
}

# Prints a gateway event line as indented KEY=VALUE lines.
fields() { tr ' ' '\n' | sed -n 's/^\([A-Z_]*=\)/     \1/p'; }

mkdir -p "$records" "$demo/xauth"

# The desktop: alice logged in on :0, an X server with an authority file, the
# display program in its place (it acknowledges with flags 1 as alice).
"$stub" --login alice
(exec -a /usr/bin/X "$stub" :0 -auth "$demo/xauth/A:0-demo" -nolisten tcp) &
xserver=$!
cp "$stub" /usr/sxa/gui/message/notifymessage
echo "1 alice" >"$demo/answer"
cp "$build/src/app/notifydaemon" /usr/sxa/daemon/notifydaemon

# The gateway reads commands from a pipe that this script holds open.
mkfifo "$demo/gateway.in"
"$build/tools/devgateway/devgateway" <"$demo/gateway.in" >"$gwout" 2>&1 &
exec 3>"$demo/gateway.in"
wait_for "$gwout" 10 '^listening on '
port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$gwout")

cat >/usr/sxa/daemon/config.dat <<EOF
[gateway]
gatewayip=127.0.0.1
gatewayport=$port
gatewaykey=DEMOKEY
department=Demo
[UI]
FullScreen=0
FullScreenTimeout=30
LargeLogoPath=/usr/sxa/logo.png
EOF

say "== Sandbox: host $(hostname), eth0 $(ip -o link show eth0 | sed -n 's/.*link\/ether \([^ ]*\).*/\1/p'), alice on :0"
say "== Development gateway on 127.0.0.1:$port"
started=$(now_ms)
/usr/sxa/daemon/notifydaemon
say "== Daemon started (pid $(cat /usr/sxa//daemon/notifydaemon.pid)); it registers about"
say "   10 s after connecting (the transport's fixed wait after a connection)"

wait_for "$gwout" 30 ' CMD=OPEN '
registered=$(now_ms)
say "-- Registration after $((registered - started)) ms:"
grep -m1 ' CMD=OPEN ' "$gwout" | fields
wait_for "$log" 10 'Started up successfully\.'
wait_for "$gwout" 10 ' CMD=GETFILEINFO '
say "-- Customisation check at start:"
grep -m1 ' CMD=GETFILEINFO ' "$gwout" | fields

say "-- Sending notification 1001: \"Hello from the demo\", \"30|Notice\", flags 5"
sent=$(now_ms)
echo 'message 1001 "Hello from the demo" "30|Notice" 5' >&3
wait_for "$gwout" 10 ' CMD=MESSAGEACK '
acknowledged=$(now_ms)

say "-- The display program received (argv and its notification environment):"
record=$(ls "$records"/display-1001-*.txt | head -n1)
sed -n 's/^arg:/     argv: /p' "$record"
grep -E '^env:(MESSAGE|CAPTION|TIMEOUT|FLAGS|MESSAGE_ID|WINDOW_ORDER|FULLSCREEN|FULLSCREEN_TIMEOUT|LARGE_LOGO_PATH|DISPLAY|XAUTHORITY)=' \
    "$record" | sed 's/^env:/     /'
say "-- Receipt at the gateway:"
grep -m1 ' CMD=MESSAGERECEIVED ' "$gwout" | fields
say "-- Acknowledgement at the gateway (written by the display program to descriptor 60):"
grep -m1 ' CMD=MESSAGEACK ' "$gwout" | fields
say "-- Round trip, notification sent to acknowledgement received: $((acknowledged - sent)) ms"
say "-- Daemon log:"
sed 's/^/     /' "$log"

kill "$(cat /usr/sxa//daemon/notifydaemon.pid)" 2>/dev/null || true
kill "$xserver"
exec 3>&- # the gateway stops at the end of its input
wait
say "== Done: the gateway and the daemon have stopped; the sandbox goes with them."
