# shellcheck shell=bash
# Set-up shared by ./run and ./test, meant to be sourced: installs the Debian packages
# that are missing and configures and builds a build tree. Everything it prints goes to
# stderr, so that stdout stays free for the report.

# ./run sets the root itself, which spares the subshells (each fork costs milliseconds).
if [ -z "${SARVELINTH_ROOT:-}" ]; then
    SARVELINTH_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
fi

# What building and running needs.
BUILD_PACKAGES=(cmake ninja-build g++ qt6-base-dev qt6-httpserver-dev qt6-websockets-dev
    libgtest-dev libgmock-dev libbenchmark-dev pkg-config zlib1g-dev)
# What ./batch needs on top: Dask distributed runs the tool over many files.
BATCH_PACKAGES=(python3 python3-distributed)
# What the tests need on top: FFmpeg makes test files, clang builds the fuzz target, Debian's
# python3 checks the JSON documents against their schema, pytest runs the tests of ./batch.
TEST_PACKAGES=(ffmpeg clang libclang-rt-14-dev python3 python3-jsonschema python3-distributed
    python3-pytest)

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

# ensure_packages_once STAMP PACKAGE...: ensure_packages, skipped when the file STAMP names
# the same packages and is newer than dpkg's database, which every install and removal
# rewrites. Checking each package with dpkg-query costs more than the tool's own run.
ensure_packages_once() {
    local stamp=$1 listed=''
    shift
    if [ -f "$stamp" ] && [ "$stamp" -nt /var/lib/dpkg/status ]; then
        read -r listed <"$stamp" || true
        [ "$listed" = "$*" ] && return 0
    fi
    ensure_packages "$@" || return 1
    mkdir -p "$(dirname "$stamp")"
    printf '%s\n' "$*" >"$stamp"
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

# ensure_node_files: installs the pinned mediabunny and mux.js in tests/data/node/node_modules
# (npm ci, when missing or older than the lock file), with which
# tests/data/node/make-node-files.mjs remakes the committed files of the Node muxers. A
# failure only warns: the committed files serve the tests either way.
ensure_node_files() {
    local dir=$SARVELINTH_ROOT/tests/data/node
    command -v npm >/dev/null || return 0
    if [ ! -f "$dir/node_modules/.package-lock.json" ] ||
        [ "$dir/package-lock.json" -nt "$dir/node_modules/.package-lock.json" ]; then
        echo "sarvelinth: installing the node modules that make tests/data/node-*" >&2
        (cd "$dir" && npm ci --no-audit --no-fund >&2) ||
            echo "sarvelinth: npm ci failed in tests/data/node" >&2
    fi
}

# build_tree DIR [CMAKE_ARGUMENT...]: configures DIR (relative to the repository) when it
# is new or when arguments are given, then builds it. Ninja reconfigures by itself when
# a CMakeLists.txt changes. DIR/.build-stamp then bears the time the build started, so
# that a file changed while it ran still counts as newer.
build_tree() {
    local dir=$SARVELINTH_ROOT/$1
    shift
    mkdir -p "$dir"
    touch "$dir/.build-started"
    if [ ! -f "$dir/build.ninja" ] || [ $# -gt 0 ]; then
        cmake -S "$SARVELINTH_ROOT" -B "$dir" -G Ninja "$@" >&2
    fi
    cmake --build "$dir" -j "$(nproc)" >&2
    mv -f "$dir/.build-started" "$dir/.build-stamp"
}

# build_tree_if_stale DIR: build_tree DIR, unless its last build is newer than every file
# a build reads: the sources and CMakeLists.txt files, these scripts, the build's cache and
# dpkg's database (a new Qt). Asking ninja costs a few hundred milliseconds; this, a few.
build_tree_if_stale() {
    local dir=$SARVELINTH_ROOT/$1 root=$SARVELINTH_ROOT newer
    if [ -f "$dir/.build-stamp" ] && [ -x "$dir/bin/sarvelinth" ]; then
        newer=$(find "$root/CMakeLists.txt" "$root/container-abstract" "$root/container-mp4" \
            "$root/host" "$root/tests" "$root/bench" "$root/fuzz" "$root/scripts" \
            "$dir/CMakeCache.txt" /var/lib/dpkg/status \
            -path "$root/tests/browser/node_modules" -prune -o \
            -path "$root/tests/data/node/node_modules" -prune -o -newer "$dir/.build-stamp" \
            -print -quit 2>/dev/null)
        [ -z "$newer" ] && return 0
    fi
    build_tree "$1"
}
