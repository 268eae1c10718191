# shellcheck shell=bash disable=SC2034
# The Debian packages that this project needs, and a function that installs those that are missing.
# Sourced by ./demo and ./check.

# Boost is pinned: Debian's default one is older and cannot lie beside it.
build_packages=(
    g++ cmake ninja-build
    libboost1.81-dev libboost-json1.81-dev libboost-thread1.81-dev libboost-log1.81-dev
    libboost-program-options1.81-dev
    libnats-dev libpoco-dev libssl-dev libzstd-dev zlib1g-dev
)
cluster_packages=(nats-server openssl)
check_packages=(
    "${cluster_packages[@]}"
    libgtest-dev libgmock-dev libbenchmark-dev pkg-config
    clang-14 libclang-rt-14-dev clang-tidy-14 clang-format-14
    python3 shellcheck chromium chromium-sandbox
)

# install_missing PACKAGE...: asks the package sources only when something is missing.
install_missing() {
    local package missing=()
    for package in "$@"; do
        [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    local as_root=(env DEBIAN_FRONTEND=noninteractive)
    ((EUID == 0)) || as_root=(sudo "${as_root[@]}")
    local apt_get=("${as_root[@]}" apt-get -q -y -o DPkg::Lock::Timeout=120)
    echo "Installing ${missing[*]}"
    "${apt_get[@]}" update
    # Never at the price of something that is installed already.
    "${apt_get[@]}" install --no-install-recommends --no-remove "${missing[@]}"
    # Debian has a node begin at once that asks nobody who he is; the ones here begin by themselves.
    [[ " ${missing[*]} " != *" nats-server "* ]] ||
        "${as_root[@]}" systemctl disable --now nats-server || true
}

# install_page: Node.js, what the page is made of and tested with, as its lock file says, and the page.
install_page() {
    # Another source's Node.js brings its own npm, which Debian's would want to replace.
    { command -v node && command -v npm; } >/dev/null || install_missing nodejs npm
    [[ client/node_modules/.package-lock.json -nt client/package-lock.json ]] ||
        (cd client && npm ci --no-audit --no-fund)
    # Into client/dist, from where the build takes it.
    (cd client && npm run --silent --if-present build)
}
