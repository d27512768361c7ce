# Installs the Debian packages a command needs, only those that are missing.
# Sourced by the scripts in scripts/; runs apt-get only when something is absent.

kplc_missing_packages() {
    local pkg missing=()
    for pkg in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$pkg")
        fi
    done
    printf '%s\n' "${missing[@]}"
}

kplc_install_packages() {
    local missing
    mapfile -t missing < <(kplc_missing_packages "$@" | sed '/^$/d')
    if [ "${#missing[@]}" -eq 0 ]; then
        return 0
    fi
    echo "Installing missing packages: ${missing[*]}"
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        sudo=(sudo)
    fi
    export DEBIAN_FRONTEND=noninteractive
    # An index that cannot be fetched (a mirror in sync, a foreign
    # architecture's) fails the update as a whole; the install below still
    # finds what the other indexes offer, or says what it cannot.
    "${sudo[@]}" apt-get update -qq || echo "apt-get update: some indexes could not be fetched" >&2
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# What building the driver, its tools and its tests needs, and checking the
# packages (lintian, hardening-check from devscripts, libabigail's abidiff), and
# the simulator's capture replay (libpcap; tcpdump to make captures in the tests),
# and the Python package's install and tests (pip, setuptools, pytest, pytest-xdist),
# and building the Debian packages (debhelper, dh-python: the rest of
# debian/control's build dependencies is above; 50-package adds the cross ones).
KPLC_BUILD_PACKAGES=(g++ cmake ninja-build make binutils libgtest-dev libgmock-dev libbenchmark-dev
    iproute2 procps g++-arm-linux-gnueabihf g++-aarch64-linux-gnu googletest qemu-user dpkg-dev pkg-config file tshark
    clang-14 libclang-rt-14-dev valgrind lintian abigail-tools devscripts libpcap-dev tcpdump python3 openssl
    python3-pip python3-setuptools python3-wheel python3-pytest python3-pytest-xdist
    debhelper dh-python pybuild-plugin-pyproject python3-all)
