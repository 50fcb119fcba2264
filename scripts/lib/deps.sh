# Shared by the scripts: installs the Debian packages the build needs when
# one is missing. Sourced, not run.

QOR_DEBIAN_PACKAGES=(
  build-essential cmake ninja-build pkg-config python3
  libboost-system-dev libboost-dev
  libgtest-dev libgmock-dev
  nlohmann-json3-dev libsimdjson-dev
)

# The AArch64 cross build (scripts/test aarch64): the cross compiler and the
# emulator for the host, and the target's Boost.System and GoogleTest as
# Debian's arm64 packages beside the host's (multi-arch).
QOR_AARCH64_PACKAGES=(
  g++-aarch64-linux-gnu qemu-user
  libboost-system-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
)

# Lets dpkg install packages of architecture $1 (e.g. arm64) beside the
# host's; the package lists are read again by the next install.
qor_ensure_foreign_architecture() {
  if ! dpkg --print-foreign-architectures | grep -qx "$1"; then
    echo "Adding the package architecture $1"
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then
      sudo="sudo"
    fi
    $sudo dpkg --add-architecture "$1"
  fi
}

qor_missing_packages() {
  local pkg missing=()
  for pkg in "${QOR_DEBIAN_PACKAGES[@]}" "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$pkg")
    fi
  done
  echo "${missing[@]}"
}

qor_ensure_packages() {
  local missing
  missing=$(qor_missing_packages "$@")
  if [ -z "$missing" ]; then
    return 0
  fi
  echo "Installing missing packages: $missing"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi
  $sudo apt-get update -qq
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends $missing
}

# Node.js and npm, for the test that loads qor-trace's exports into the
# DevTools trace engine (an npm package). Debian's packages are installed only
# where no node or npm is on the PATH, so a newer Node.js installed otherwise
# is left alone.
qor_ensure_node() {
  if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
    qor_ensure_packages nodejs npm
  fi
}
