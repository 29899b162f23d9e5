#!/bin/bash
# A notification's way to the desktop in a booted Debian 12 (the test bed of
# tests/support/testbed): today's X server probe beside session discovery,
# measured by bench_session in the same run, first the lookup alone, then the
# installed daemon's whole path under systemd. As root:
#
#   bash bench/e2e/session.sh BUILD [RUNS]
#
# BUILD is a build tree configured with -DNOTIFY_BENCH=ON in which the
# package (ctest -R system_package) and bench_session are built. Inside: the
# package, its display program replaced by the timing one (bench_display), a
# user "alice" in a logind session (PAM) whose X server runs as
# "/usr/bin/X :0 -auth FILE" with a login record on :0, so both ways find it.
# The container is stopped by its pid on exit; nothing is left running.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:?usage: session.sh BUILD [RUNS]}" && pwd)
runs=${2:-200}
tb="$root/tests/support/testbed"
deb=$(ls "$build"/tests/e2e/system/deb/notifydaemon_*_amd64.deb | head -n 1)
state=$(mktemp -d /tmp/nd-bench-session-XXXXXX)
inside() { "$tb" run "$state" "$@"; }

bed=$("$tb" build "$build/testbed" "$deb")
trap '"$tb" stop "$state"; rm -rf "$state"' EXIT
"$tb" boot "$bed" "$state"
"$tb" copy "$state" "$build/bench/bench_session" "$build/bench/bench_display" "$deb" /root
inside sh -c 'cd /root && DEBIAN_FRONTEND=noninteractive apt-get -y -q install ./notifydaemon_*.deb' \
    >"$state/apt.out" 2>&1 || { cat "$state/apt.out" >&2; exit 1; }
inside useradd -m alice
uid=$(inside id -u alice)
auth=/run/user/$uid/Xauthority
inside systemd-run --quiet --unit=bench-x --property=PAMName=login --property=User=alice \
    --property=UtmpIdentifier=:0 --property=UtmpMode=user \
    --setenv=XDG_SESSION_TYPE=x11 --setenv=XDG_SESSION_CLASS=user \
    --setenv=DISPLAY=:0 --setenv=XAUTHORITY="$auth" \
    /bin/bash -c "umask 077 && : >$auth && xauth -q -f $auth add :0 . \$(mcookie) \
        && { exec -a /usr/bin/X /usr/bin/Xvfb :0 -auth $auth -nolisten tcp -noreset \
        -screen 0 640x480x24 & } && exec sleep infinity"
"$tb" wait "$state" 15 test -S /tmp/.X11-unix/X0
echo "machine: $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
inside /root/bench_session lookup "$runs"
inside /root/bench_session path "$runs"
