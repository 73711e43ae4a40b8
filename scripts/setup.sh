# Shell functions of ./demo, ./test and .ci/run; to be sourced with the repository as working directory.

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
                        pkg-config zip)
WINDOWS_TEST_PACKAGES=(wine64 googletest)
CHECK_PACKAGES=(clang libclang-rt-dev clang-format clang-tidy cppcheck mypy)

# need_packages PACKAGE...: installs those that are missing. Asks no questions; when all are there it does nothing and
# needs no network.
need_packages() {
    local missing=() package
    for package in "$@"; do
        if [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) != installed* ]]; then
            missing+=("$package")
        fi
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
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# build PRESET [CMAKE OPTION...]: configures and builds build/PRESET.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" "$@"
    cmake --build --preset "$preset"
}
