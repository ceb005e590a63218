# Sourced by scripts/test and scripts/run: installs the Debian 12 packages the build and the
# programs need, when any is missing. Nothing is done when everything is already there.

NIMBREL_PACKAGES="cmake ninja-build g++ clang pkg-config
qt6-base-dev qt6-base-dev-tools qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
libqt6sql6-sqlite libqt6dbus6 libgl-dev
libgtest-dev libgmock-dev googletest libbenchmark-dev libspdlog-dev
dbus-daemon dbus-bin shared-mime-info zip unzip xdg-utils procps sqlite3
libmicrohttpd-dev libgnutls28-dev libical-dev libavahi-client-dev libssl-dev libcurl4-openssl-dev
curl python3 python3-caldav python3-cbor2 python3-dbus vdirsyncer radicale xandikos git
avahi-daemon avahi-utils iproute2 util-linux"

nimbrel_missing_packages() {
    missing=""
    for pkg in $NIMBREL_PACKAGES; do
        status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
        case "$status" in
            *"install ok installed"*) ;;
            *) missing="$missing $pkg" ;;
        esac
    done
    printf '%s' "$missing"
}

nimbrel_install_deps() {
    missing=$(nimbrel_missing_packages)
    [ -z "$missing" ] && return 0
    echo "Installing missing packages:$missing"
    if [ "$(id -u)" = 0 ]; then
        sudo_cmd=""
    elif command -v sudo >/dev/null 2>&1; then
        sudo_cmd="sudo"
    else
        echo "error: packages missing ($missing) and no way to become root to install them" >&2
        return 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    $sudo_cmd apt-get update -qq || return 1
    # shellcheck disable=SC2086
    $sudo_cmd apt-get install -y -qq --no-install-recommends $missing || return 1
}
