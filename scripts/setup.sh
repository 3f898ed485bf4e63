# shellcheck shell=bash
# Set-up shared by ./run and ./test, meant to be sourced: installs the Debian packages
# that are missing and configures and builds a build tree. Everything it prints goes to
# stderr, so that stdout stays free for the report.

SARVELINTH_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What building and running needs.
BUILD_PACKAGES=(cmake ninja-build g++ qt6-base-dev qt6-httpserver-dev qt6-websockets-dev libgtest-dev libgmock-dev libbenchmark-dev
    pkg-config)
# What the tests need on top: FFmpeg makes test files, clang builds the fuzz target, Debian's
# python3 checks the JSON documents against their schema.
TEST_PACKAGES=(ffmpeg clang libclang-rt-14-dev python3 python3-jsonschema)

# ensure_packages PACKAGE...: installs those not installed yet, with apt-get as root.
ensure_packages() {
    local missing=() package
    for package in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "sarvelinth: missing packages: ${missing[*]}; install them as root" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "sarvelinth: installing ${missing[*]}" >&2
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update >&2
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}" >&2
}

# ensure_browser_test: readies the browser test of the HTML report: Debian's chromium, and
# playwright-core in tests/browser/node_modules (npm ci, when the modules are missing or
# older than the lock file). Node.js comes with the machine. A failure only warns: the
# test then reports itself skipped and says why.
ensure_browser_test() {
    local dir=$SARVELINTH_ROOT/tests/browser
    if ! ensure_packages chromium; then
        echo "sarvelinth: chromium could not be installed; the browser test will be skipped" >&2
        return 0
    fi
    if ! command -v npm >/dev/null; then
        echo "sarvelinth: npm is missing; the browser test will be skipped" >&2
        return 0
    fi
    if [ ! -f "$dir/node_modules/.package-lock.json" ] ||
        [ "$dir/package-lock.json" -nt "$dir/node_modules/.package-lock.json" ]; then
        echo "sarvelinth: installing the browser test's node modules" >&2
        (cd "$dir" && npm ci --no-audit --no-fund >&2) ||
            echo "sarvelinth: npm ci failed in tests/browser; the browser test will be skipped" >&2
    fi
}

# build_tree DIR [CMAKE_ARGUMENT...]: configures DIR (relative to the repository) when it
# is new or when arguments are given, then builds it. Ninja reconfigures by itself when
# a CMakeLists.txt changes.
build_tree() {
    local dir=$SARVELINTH_ROOT/$1
    shift
    if [ ! -f "$dir/build.ninja" ] || [ $# -gt 0 ]; then
        cmake -S "$SARVELINTH_ROOT" -B "$dir" -G Ninja "$@" >&2
    fi
    cmake --build "$dir" -j "$(nproc)" >&2
}
