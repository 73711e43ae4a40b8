# Shell functions of ./demo, ./test, .ci/run and the scripts; to be sourced with the repository as working directory.

BUILD_PACKAGES=(g++ cmake make ninja-build pkg-config libfftw3-dev portaudio19-dev libcli11-dev nlohmann-json3-dev
                libsndfile1-dev libsoxr-dev libcairo2-dev libtomlplusplus-dev libsqlite3-dev libmosquitto-dev
                libcurl4-openssl-dev libboost-dev libpq-dev)
TEST_PACKAGES=(libgtest-dev sox ffmpeg libbenchmark-dev pulseaudio libasound2-plugins libhamlib-utils mandoc zsh fish
               mosquitto mosquitto-clients netcat-openbsd locales python3 python3-numpy python3-pytest python3-pip
               python3-setuptools python3-wheel python3-soundfile python3-jsonschema doxygen)
# Of the tests labelled `heavy`.
HEAVY_PACKAGES=(dpkg-dev fakeroot debhelper dh-python lintian pybuild-plugin-pyproject python3-all rtl-433
                soapysdr-module-audio inspectrum tshark wsjtx python3-pyhamtools chromium
                chromium-driver python3-selenium slurm-wlm munge parallel postgresql)
# The build for Windows, and its tests, labelled `windows`.
WINDOWS_BUILD_PACKAGES=(g++-mingw-w64-x86-64-posix dpkg-dev patch xz-utils libcli11-dev nlohmann-json3-dev cmake ninja-build
                        pkg-config zip googletest)
WINDOWS_TEST_PACKAGES=(wine64 unzip)
# Of cross builds for Arm: what the library, the command and their tests need, and what the packages need beyond.
ARM64_PACKAGES=(crossbuild-essential-arm64 qemu-user googletest
                {libcairo2,libfftw3,libsndfile1,libsoxr,portaudio19}-dev:arm64)
ARM64_RELEASE_PACKAGES=({libboost,libcurl4-openssl,libmosquitto,libsqlite3,libtomlplusplus}-dev:arm64 libpq5:arm64
                        pkg-config:arm64)
ARMHF_PACKAGES=(crossbuild-essential-armhf qemu-user googletest {libfftw3,libsndfile1,portaudio19}-dev:armhf)
# Of scripts/release.
RELEASE_PACKAGES=(dpkg-dev fakeroot debhelper dh-python pybuild-plugin-pyproject python3-all python3-pip
                  python3-setuptools python3-wheel git xz-utils)
CHECK_PACKAGES=(clang libclang-rt-dev clang-format clang-tidy cppcheck mypy)

# is_installed PACKAGE: for this machine's architecture, or the one after a colon.
is_installed() {
    local architecture=${1#*:}
    if [[ $1 != *:* ]]; then architecture=$(dpkg --print-architecture); fi
    dpkg-query -W -f='${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null | grep -xqE "($architecture|all) installed"
}

# need_packages PACKAGE...: installs those that are missing; those of another architecture are named with it. Asks no
# questions; when all are there it does nothing and needs no network.
need_packages() {
    local missing=() package architecture architectures
    architectures=$(printf '%s\n' "$@" | sed -n 's/.*://p' | sort -u)
    for package in "$@"; do
        if ! is_installed "$package"; then missing+=("$package"); fi
    done
    if ((${#missing[@]} == 0)); then return 0; fi

    local root=()
    if [[ $(id -u) -ne 0 ]]; then
        if ! command -v sudo >/dev/null; then
            echo "These packages are missing, and only root can install them: ${missing[*]}" >&2
            return 1
        fi
        root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    for architecture in $architectures; do "${root[@]}" dpkg --add-architecture "$architecture"; done
    # The list of one archive may be out of order while it is renewed; whether that matters shows in the installation.
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq || echo "Some lists of packages are old" >&2
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# build PRESET [CMAKE OPTION...]: configures and builds build/PRESET.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@"
    cmake --build --preset "$preset"
}
