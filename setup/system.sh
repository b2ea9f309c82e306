# The system's packages: compilers, build tools, GoogleTest, recordings. Only what is missing is installed.
# shellcheck shell=bash disable=SC2154,SC2034 # root is set by common.sh; ninja is used by build.sh

recordings=/usr/share/sounds/alsa

# Version 19 is the one that the CPU device is developed with; any from 16 has the coroutines it needs.
clang_versions="19 22 21 20 18 17 16"

has_gxx() {
  local version
  version=$(g++ -dumpversion 2>/dev/null) && [ "${version%%.*}" -ge 11 ]
}

has_cmake() {
  local version
  cmake=$(first_running cmake) || return 1
  version=$("$cmake" --version | awk 'NR == 1 { print $3 }')
  [ "$(printf '%s\n' 3.22 "$version" | sort -V | head -n 1)" = 3.22 ]
}

has_clang() {
  local version
  for version in $clang_versions; do
    if command -v "clang++-$version" >/dev/null && command -v "ld.lld-$version" >/dev/null; then
      return 0
    fi
  done
  return 1
}

# The newest clang that the distribution offers, the preferred one first.
offered_clang() {
  local version
  for version in $clang_versions; do
    if apt-cache show "clang-$version" "lld-$version" >/dev/null 2>&1; then
      say "clang-$version lld-$version"
      return 0
    fi
  done
  say "clang-16 lld-16"
}

# Sets missing, and cmake and ninja for the build. What stands on the path but does not run (first_running) counts as
# missing: the packages then put a working program into /usr/bin, behind it.
find_missing() {
  missing=()
  has_gxx || missing+=(g++)
  has_cmake || missing+=(cmake)
  ninja=$(first_running ninja) || missing+=(ninja-build)
  has_clang || missing+=(clang)
  [ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
  [ -f "$recordings/Front_Center.wav" ] || missing+=(alsa-utils)
}

# install_packages PACKAGE...: "clang" stands for whichever version the distribution offers.
install_packages() {
  local as_root=() packages="$*" command
  if ! command -v apt-get >/dev/null; then
    fail "Missing on this system: $packages. Install them with your package manager and run this again."
  fi
  if [ "$(id -u)" != 0 ]; then
    if ! command -v sudo >/dev/null; then
      fail "Missing on this system: $packages. Have an administrator install them with apt-get and run this again."
    fi
    as_root=(sudo)
    [ -t 0 ] || as_root=(sudo -n)
    "${as_root[@]}" true || fail "sudo gave no rights, so these packages are missing: $packages. Install them with apt-get and run this again."
  fi
  run_logged apt-update "Package lists" "${as_root[@]}" apt-get update ||
    fail "apt-get could not read the package lists; check the network or the mirrors in /etc/apt and run this again."
  case " $packages " in
    *" clang "*) packages=${packages/clang/$(offered_clang)} ;;
  esac
  command="apt-get install -y --no-install-recommends $packages"
  # shellcheck disable=SC2086 # the list is split into words on purpose
  run_logged apt-install "System packages: $packages" "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive $command ||
    fail "The system packages could not be installed; try by hand: $command"
}

setup_system() {
  find_missing
  [ ${#missing[@]} != 0 ] || return 0
  with_lock system install_packages "${missing[@]}" || exit 1
  hash -r
  find_missing
  [ ${#missing[@]} = 0 ] || fail "Still missing after the installation: ${missing[*]} (g++ from 11, cmake from 3.22 and clang from 16 are needed). This release of the system is too old or its mirror incomplete; a Debian 12 or an Ubuntu 24.04 has them all."
}
