#!/bin/bash
# The demo: one notification's round trip through the real daemon and the
# real display program. As root, from anywhere:
#
#   bash scripts/demo.sh
#
# Installs missing build packages (scripts/deps.sh), builds the daemon, the
# display program and the development gateway into build/demo, then runs
# everything inside tests/support/sandbox (private namespaces, tmpfs over
# /usr/sxa, /var/log, /var/cache, /run and /tmp, a veth eth0): a desktop
# log-in for "nobody" on ":0", an X server (Xvfb) whose authority file belongs
# to that user, the development gateway on 127.0.0.1 and the shipped daemon
# with its real timing. It prints the registration and the notification, saves
# a screenshot of the window the display program shows (a PNG under
# build/demo, its path printed), clicks "Acknowledge" with xdotool, and prints
# the receipt and the acknowledgement at the gateway. All processes end with
# the sandbox; nothing outside it changes (build dir aside).
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
    cmake --build "$build" -j "${ND_BUILD_JOBS:-$(nproc)}" --target notifydaemon devgateway \
        nd_notify_stub notifymessage >/dev/null
    exec "$root/tests/support/sandbox" --hostname demo-desk -- "$0" --inside "$build"
fi

# ---- inside the sandbox --------------------------------------------------
build=$2
stub="$build/tests/e2e/notify/nd_notify_stub"
demo=/run/nd-notify
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

mkdir -p "$demo/xauth"
# The X server's lock and socket stay inside the sandbox.
mount -t tmpfs -o mode=1777 nd-demo-tmp /tmp

# The desktop: nobody logged in on :0, an X server whose authority file is
# nobody's (as a display manager leaves it), the display program in its place.
"$stub" --login nobody
auth="$demo/xauth/A:0-demo"
xauth -q -f "$auth" add :0 . "$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')" 2>/dev/null
chown nobody: "$auth"
(exec -a /usr/bin/X Xvfb :0 -auth "$auth" -screen 0 1280x800x24 -nolisten tcp -noreset \
    >"$demo/xserver.log" 2>&1) &
xserver=$!
export DISPLAY=:0 XAUTHORITY=$auth
for _ in $(seq 100); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
mkdir -p /usr/sxa/gui/message
cp "$build/tools/notifymessage/notifymessage" /usr/sxa/gui/message/notifymessage
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
LargeLogoPath=/usr/sxa/logo.svg
EOF

cat >/usr/sxa/logo.svg <<'SVG'
<svg xmlns="http://www.w3.org/2000/svg" width="120" height="120" viewBox="0 0 120 120">
  <circle cx="60" cy="60" r="56" fill="#2b63c6"/>
  <path d="M34 62 L52 80 L88 40" stroke="#fff" stroke-width="12" fill="none"
        stroke-linecap="round" stroke-linejoin="round"/>
</svg>
SVG

say "== Sandbox: host $(hostname), eth0 $(ip -o link show eth0 | sed -n 's/.*link\/ether \([^ ]*\).*/\1/p'), nobody on :0"
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

text="The network will be down for maintenance tonight from 18:00 to 20:00. Please save your work and log off before 18:00: unsaved work may be lost. Details: https://intranet.example.org/it/maintenance/2026-11-23-network"
say "-- Sending notification 1001 with \"30|Maintenance tonight\", flags 5:"
say "   \"$text\""
sent=$(now_ms)
echo "message 1001 \"$text\" \"30|Maintenance tonight\" 5" >&3
wait_for "$gwout" 10 ' CMD=MESSAGERECEIVED '

# The window, as the user sees it; then a click on its button.
window=
for _ in $(seq 100); do
    window=$(xdotool search --name 'Maintenance tonight' 2>/dev/null | head -n1) && [ -n "$window" ] && break
    sleep 0.1
done
[ -n "$window" ] || { say "demo: the display program showed no window" >&2; exit 1; }
sleep 0.5
shot="$build/demo-notification.png"
import -window root "$shot"
eval "$(xdotool getwindowgeometry --shell "$window")"
pid=$(xdotool getwindowpid "$window")
owner=$(ps -o user= -p "$pid" 2>/dev/null || true)
say "-- The display program (pid $pid) received in its environment:"
tr '\0' '\n' <"/proc/$pid/environ" |
    grep -E '^(MESSAGE|CAPTION|TIMEOUT|FLAGS|MESSAGE_ID|WINDOW_ORDER|FULLSCREEN|FULLSCREEN_TIMEOUT|LARGE_LOGO_PATH|DISPLAY)=' |
    sed 's/^/     /'
say "-- The display program shows a ${WIDTH}x${HEIGHT} window at $X,$Y as user ${owner:-?}; screenshot:"
say "   $shot"
say "-- Clicking \"Acknowledge\" (bottom centre of the window)"
xdotool mousemove $((X + WIDTH / 2)) $((Y + HEIGHT - 30)) click 1
wait_for "$gwout" 10 ' CMD=MESSAGEACK '
acknowledged=$(now_ms)

say "-- Receipt at the gateway:"
grep -m1 ' CMD=MESSAGERECEIVED ' "$gwout" | fields
say "-- Acknowledgement at the gateway (written by the display program to descriptor 60 on the click):"
grep -m1 ' CMD=MESSAGEACK ' "$gwout" | fields
say "-- Notification sent to acknowledgement received, the click included: $((acknowledged - sent)) ms"
say "-- Daemon log:"
sed 's/^/     /' "$log"

kill "$(cat /usr/sxa//daemon/notifydaemon.pid)" 2>/dev/null || true
kill "$xserver"
exec 3>&- # the gateway stops at the end of its input
wait
say "== Done: the gateway and the daemon have stopped; the sandbox goes with them."
