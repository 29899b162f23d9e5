#!/bin/bash
# Installs the Debian 12 packages that building and testing need, when any is
# missing. Needs root for apt-get; otherwise prints the command to run.
set -euo pipefail

packages=(
    build-essential cmake g++ clang clang-format
    libgtest-dev libgmock-dev libbenchmark-dev
    iproute2 procps util-linux wget valgrind
    libx11-dev xvfb xdotool xauth x11-utils imagemagick
    # The display program: GTK 4 (Pango, gdk-pixbuf), libXau for handing a
    # display manager's cookie to the user, the SVG loader, fonts for every
    # script (Arabic, Hebrew, Devanagari, CJK, emoji).
    libgtk-4-dev libxau-dev librsvg2-common
    fonts-dejavu-core fonts-noto-core fonts-noto-cjk fonts-noto-color-emoji
    # Only the benchmark's build of the Xlib display program it replaced.
    libxft-dev
    # The package's checks and the booted test bed.
    lintian man-db systemd mmdebstrap systemd-container
    # The daemon's session discovery (sd-login, sd-bus).
    libsystemd-dev pkg-config
    # Display tests on real servers (tests/support/desktop): GNOME's compositor
    # with Xwayland, sway with grim, a session bus, the accessibility bus and
    # the Python modules of the harness and its screen-reader client.
    mutter xwayland sway grim dbus at-spi2-core libgdk-pixbuf-2.0-dev
    python3-gi gir1.2-atspi-2.0 python3-pyatspi python3-xlib
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" != 0 ]; then
    echo "Missing packages; as root run: apt-get update && apt-get install -y ${missing[*]}" >&2
    exit 1
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q --no-install-recommends "${missing[@]}"
