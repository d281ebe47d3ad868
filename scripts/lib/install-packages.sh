# shellcheck shell=bash
# Installs Debian packages that are missing. Sourced: install_packages NAME...

install_packages() {
    local missing=() name
    for name in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Abbrev}' "$name" 2>/dev/null) == ii* ]] || missing+=("$name")
    done
    ((${#missing[@]})) || return 0
    echo "Installing: ${missing[*]}"
    # A list that cannot be read now is no reason to stop: what is known of may be enough.
    apt-get -qq update || echo "Not all lists of packages could be read"
    DEBIAN_FRONTEND=noninteractive apt-get -qq install --yes --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# What it takes to build for 32-bit ARM and to run the result. Returns 1 where that cannot be had; the
# list of architectures is then as it was.
install_arm_packages() {
    local added=
    [[ $(dpkg --print-foreign-architectures) == *armhf* ]] || added=yes
    dpkg --add-architecture armhf
    install_packages g++-arm-linux-gnueabihf libjsoncpp-dev:armhf libgtest-dev:armhf libgmock-dev:armhf \
        libboost-dev libcli11-dev cmake make pkg-config qemu-user-static && return 0
    [[ -z $added ]] || dpkg --remove-architecture armhf || true
    return 1
}
