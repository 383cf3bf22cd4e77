# shellcheck shell=bash
# What the scripts share. It is sourced first, and goes to the project's folder.

called_from=$PWD
root=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/../..
root=$(CDPATH='' cd -- "$root" && pwd)
cd "$root" || exit 1
program=$(basename "$(dirname "$(readlink -f "$0")")")/$(basename "$0")

say() {
  printf '%s: %s\n' "$program" "$*" >&2
}

# fail WHAT [WHAT-TO-DO...]: ends the script.
fail() {
  printf '%s: FAILED: %s\n' "$program" "$1" >&2
  shift
  if (($# > 0)); then printf '  %s\n' "$@" >&2; fi
  exit 1
}

[[ ! -e build || -w build ]] ||
  fail "$root/build cannot be written to, perhaps because it was made as root" "Remove it and try again."

# The Debian packages of one purpose.
packages_for() {
  case $1 in
    build)
      echo g++ cmake ninja-build pkg-config libicu-dev libxxhash-dev libsimdjson-dev \
        nlohmann-json3-dev libcli11-dev libwebkitgtk-6.0-dev \
        libsoup-3.0-dev libsigc++-3.0-dev libgtkmm-4.0-dev libadwaita-1-dev libepoxy-dev libglib2.0-dev-bin \
        libatspi2.0-dev libx11-dev libxtst-dev libgtest-dev libgmock-dev
      ;;
    # What the window and the web view need to run, and a place to show them on any machine.
    display)
      echo adwaita-icon-theme librsvg2-common fonts-dejavu-core glib-networking \
        at-spi2-core dbus xvfb xauth
      ;;
    bench) echo libbenchmark-dev ;;
    fuzz) echo clang llvm ;;
    desktop) echo desktop-file-utils appstream ;;
    packaging) echo debhelper dpkg-dev ;;
    # A Debian system of its own.
    root) echo debootstrap ;;
    checks) echo clang-format clang-tidy shellcheck ;;
    *) fail "no such set of packages: $1" ;;
  esac
}

is_installed() {
  dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -x installed >/dev/null
}

# install_missing PACKAGE...: installs those that are missing, and asks for root only then.
install_missing() {
  local package missing=() as_root=()
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  if ((${#missing[@]} == 0)); then return; fi

  if ((EUID != 0)); then
    command -v sudo >/dev/null || fail "packages are missing, and there is no sudo to install them" \
      "As root, run: apt-get install ${missing[*]}" "and start this again."
    as_root=(sudo env)
  else
    as_root=(env)
  fi

  local log=build/packages.log
  local apt=("${as_root[@]}" DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=120)
  mkdir -p build
  say "installing the packages that are missing: ${missing[*]}"
  "${apt[@]}" update </dev/null >"$log" 2>&1 ||
    say "apt-get update did not succeed; going on with the package lists as they are"
  if ! "${apt[@]}" install --yes --no-install-recommends "${missing[@]}" \
    </dev/null >>"$log" 2>&1; then
    tail -n 30 "$log" >&2
    fail "installing packages" "What apt-get said is above; all of it is in $log." \
      "Install these by hand and start this again: ${missing[*]}"
  fi
}

# need_packages SET...: sets of packages_for.
need_packages() {
  local set packages=()
  for set in "$@"; do
    # shellcheck disable=SC2207  # package names hold no white space
    packages+=($(packages_for "$set"))
  done
  if ! command -v dpkg-query >/dev/null; then
    say "this is no Debian system; what these packages hold must be there: ${packages[*]}"
    return
  fi

  install_missing "${packages[@]}"
  # The run-time library of the sanitizers is a package of its own, named after clang's version.
  if [[ " $* " == *" fuzz "* ]]; then
    local version
    version=$(clang -dumpversion)
    install_missing "libclang-rt-${version%%.*}-dev"
  fi
}

need_packages_for_preset() {
  case $1 in
    release) need_packages build bench display ;;
    fuzz) need_packages build fuzz ;;
    *) need_packages build display ;;
  esac
}

configure() {
  cmake --preset "$1" </dev/null || fail "configuring the $1 build" \
    "What CMake said is above. If this folder was moved or copied, remove build/$1 and try again."
}

# configure_and_build PRESET [TARGET...]
configure_and_build() {
  local preset=$1 targets=()
  shift
  if (($# > 0)); then targets=(--target "$@"); fi
  configure "$preset"
  cmake --build --preset "$preset" --parallel "$(nproc)" "${targets[@]}" </dev/null ||
    fail "building ($preset)" "The compiler's messages are above."
}

# quietly LOG COMMAND...: shows what the command printed only if it fails; then ends the script.
quietly() {
  local log=$1
  shift
  mkdir -p "$(dirname "$log")"
  if ! ("$@") >"$log" 2>&1; then
    cat "$log" >&2
    exit 1
  fi
}

# on_virtual_display COMMAND...: the command sees a display and a session of its own.
on_virtual_display() {
  # What the session's own programs have to say is of no interest.
  # shellcheck disable=SC2016  # the inner shell expands it
  xvfb-run --auto-servernum --server-args='-screen 0 1280x1024x24' \
    env --unset=WAYLAND_DISPLAY GDK_BACKEND=x11 \
    dbus-run-session -- bash -c 'exec "$@" >&3 2>&4' bash "$@" 3>&1 4>&2 >/dev/null 2>&1
}

# The sanitizers of GCC 12 and clang 14 now and then fail to start where the kernel randomises
# addresses widely. Starts the script again with fixed ones, if the system lets it.
# Call as: fix_addresses "$@"
fix_addresses() {
  if [[ -z ${TAMSEL_FIXED_ADDRESSES:-} ]] &&
    setarch --addr-no-randomize true 2>/dev/null; then
    export TAMSEL_FIXED_ADDRESSES=1
    cd "$called_from" || exit 1
    exec setarch --addr-no-randomize "$root/$program" "$@"
  fi
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
  export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/script/lib/lsan.supp:print_suppressions=0}
  # A graphics driver is unloaded at the end, after which nothing tells that what it kept is its own.
  export GDK_DEBUG=${GDK_DEBUG:-gl-disable}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
  export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:suppressions=$root/script/lib/tsan.supp}
}

# The project's own C++ files, one a line, sorted.
cpp_files() {
  find . \( -path ./build -o -path ./.git \) -prune -o \
    -type f \( -name '*.cpp' -o -name '*.h' \) -printf '%P\n' | LC_ALL=C sort
}
