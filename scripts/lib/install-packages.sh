# shellcheck shell=bash
# Installs Debian packages that are missing. Sourced: install_packages NAME...

install_packages() {
    local missing=() name
    for name in "$@"; do
        [[ $(dpkg-query -W -f '${db:Status-Abbrev}' "$name" 2>/dev/null) == ii* ]] || missing+=("$name")
    done
    ((${#missing[@]})) || return 0
    echo "Installing: ${missing[*]}"
    # The installation may succeed without the latest package lists.
    apt-get -qq update || echo "Some package lists could not be updated"
    DEBIAN_FRONTEND=noninteractive apt-get -qq install --yes --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# Installs the packages that building for 32-bit ARM and running the result require. Returns 1 if they are not available; the list
# of architectures is then unchanged.
install_arm_packages() {
    local added=
    [[ $(dpkg --print-foreign-architectures) == *armhf* ]] || added=yes
    dpkg --add-architecture armhf
    install_packages g++-arm-linux-gnueabihf libjsoncpp-dev:armhf libgtest-dev:armhf libgmock-dev:armhf \
        libboost-dev libcli11-dev cmake make pkg-config qemu-user-static && return 0
    [[ -z $added ]] || dpkg --remove-architecture armhf || true
    return 1
}
