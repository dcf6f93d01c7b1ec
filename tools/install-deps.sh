#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build and test libkelo. Run as root (or with sudo).
# Quick when everything is already there.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    qtbase5-dev qtbase5-dev-tools libqt5websockets5-dev
    libboost-dev libssl-dev openssl
    libqrencode-dev
    # The Qt Quick module Kelo and the touch-screen terminal (examples/kelo-terminal): the QML
    # modules they import, and zbarimg, which reads the QR code of the terminal's screenshots.
    qtdeclarative5-dev qtquickcontrols2-5-dev
    qml-module-qtquick2 qml-module-qtquick-window2 qml-module-qtquick-layouts
    qml-module-qtquick-controls2 qml-module-qtquick-templates2 qml-module-qttest
    zbar-tools fonts-dejavu-core
    # The terminal in a real X window driven by taps (tests/tst_terminal_live.cpp): an X server
    # of the test's own and XTEST pointer events; Mesa's software OpenGL, Qt Quick's renderer there.
    xvfb xdotool libgl1-mesa-dri
    # The terminal's translations (Vietnamese, English): lupdate and lrelease, for both Qt majors.
    qttools5-dev qttools5-dev-tools
    qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
    # The Qt 6 build (run-tests.sh qt6), the QML module and the terminal included.
    qt6-base-dev qt6-base-dev-tools qt6-websockets-dev
    qt6-declarative-dev qt6-declarative-dev-tools
    qml6-module-qtqml qml6-module-qtqml-workerscript qml6-module-qtquick qml6-module-qtquick-window
    qml6-module-qtquick-layouts qml6-module-qtquick-controls qml6-module-qtquick-templates
    qml6-module-qttest
    # The terminal's on-screen keyboard (the InputPanel inside its window), for both Qt majors;
    # its layouts load through Qt.labs.folderlistmodel, which Debian does not pull in.
    qml-module-qtquick-virtualkeyboard qtvirtualkeyboard-plugin qml-module-qt-labs-folderlistmodel
    qml6-module-qtquick-virtualkeyboard qt6-virtualkeyboard-plugin qml6-module-qt-labs-folderlistmodel
    # The benchmarks (run-bench.sh): instruction counts, and the plots of --scale.
    valgrind gnuplot-nox
    # The network lab (tools/netlab/lab.sh): namespaces, nginx as the picture host (HTTP/2 and
    # TLS), curl and ping for its self-test.
    iproute2 nginx-light curl iputils-ping
    # The API reference of the public headers and the architecture picture (tools/make-docs.sh).
    doxygen graphviz
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "install-deps: all packages present"
    exit 0
fi

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
