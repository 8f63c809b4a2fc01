# shellcheck shell=bash disable=SC2191  # PACKAGE=PROBE is one word
# The shared functions of the scripts: the packages that they need, and their scratch directory.
# Source this file from the top of the tree.

# So that the umask of the caller does not change their results.
umask 022

# With --help, a script prints the comment at its top.
case ${1:-} in
  -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "scripts/${0##*/}" && exit ;;
esac

# need PACKAGE=PROBE...: makes sure that every PROBE is there, a command or a pattern of absolute
# paths, and installs the Debian packages of those that are missing, with sudo as a normal user.
# Where it cannot, it names all that is missing and fails. Call it once, with everything.
need() {
  local pair tool missing=() packages=() able=yes
  as_root=()  # of install_packages, too
  for pair in "$@"; do
    case ${pair#*=} in
      /*) compgen -G "${pair#*=}" >/dev/null || missing+=("$pair") ;;
      *) command -v "${pair#*=}" >/dev/null || missing+=("$pair") ;;
    esac
  done
  [[ " $*" != *" cmake="* ]] || ! command -v cmake >/dev/null ||
    check_cmake "$(cmake --version | sed -n '1s/.* //p')" || exit
  [ ${#missing[@]} -gt 0 ] || return 0
  mapfile -t packages < <(printf '%s\n' "${missing[@]%%=*}" | sort -u)

  [ "$(id -u)" = 0 ] || as_root=(sudo)
  for tool in apt-get "${as_root[@]}"; do command -v "$tool" >/dev/null || able=no; done
  if [ $able = yes ]; then
    echo "Installing ${packages[*]}" >&2
    install_packages "${packages[@]}" && return
  else
    echo "Missing on this machine; install these and start again:" >&2
    for pair in "${missing[@]}"; do
      echo "  ${pair#*=} (Debian's package ${pair%%=*})" >&2
    done
  fi
  ! command -v apt-get >/dev/null || [ "$(id -u)" = 0 ] ||
    echo "Root can run: apt-get update && apt-get install ${packages[*]}" >&2
  return 1
}

# check_cmake VERSION: fails with a message if that is older than the minimum of CMakeLists.txt.
check_cmake() {
  local least
  least=$(sed -n 's/^cmake_minimum_required(VERSION \(.*\))/\1/p' CMakeLists.txt)
  [ "$(printf '%s\n' "$least" "$1" | sort -V | head -n 1)" = "$least" ] || {
    echo "This needs CMake $least or newer, this system has $1; Debian 12 and Ubuntu 22.04 are the" \
      "oldest releases that have it." >&2
    return 1
  }
}

# install_packages PACKAGE...: installs them with apt, by $as_root. The lists of a source that
# cannot be read do not change.
install_packages() {
  local log
  log=$(mktemp)
  if ! run_apt "$log" update; then
    grep '^[EW]: ' "$log" >&2 || true
    echo "apt-get update failed; continuing with the present package lists." >&2
  fi
  [[ " $* " != *" cmake "* ]] ||
    check_cmake "$(apt-cache policy cmake | sed -n 's/^ *Candidate: //p')" ||
    { rm "$log" && exit 1; }
  if ! run_apt "$log" install -y --no-install-recommends "$@"; then
    cat "$log" >&2
    rm "$log"
    return 1
  fi
  rm "$log"
}

# upgrade PACKAGE...: installs the newest version of each, like need.
upgrade() {
  as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  echo "Upgrading what is linked into the programs" >&2
  install_packages "$@"
}

# run_apt LOG ARGUMENT...: runs apt-get, by $as_root. Prints its progress, and waits, ten minutes at
# most, while another program has locked apt.
run_apt() {
  local log=$1 apt end=$((SECONDS + 600)) next holder
  shift
  while true; do
    next=$((SECONDS + 3))
    # In the background, a shell ignores ctrl-c: --default-signal lets apt end, too, after dpkg.
    env --default-signal=INT "${as_root[@]}" env LC_ALL=C DEBIAN_FRONTEND=noninteractive \
      apt-get "$@" >"$log" 2>&1 &
    apt=$!
    while [ -d /proc/$apt ]; do
      sleep 0.2
      [ $SECONDS -lt $next ] || {
        next=$((SECONDS + 10))
        tail -n 1 "$log" | cut -c 1-90 | sed 's/^/  /' >&2
      }
    done
    wait $apt && return
    grep -qE '^E: (Could not get lock|Unable to lock)' "$log" || return
    [ $SECONDS -lt $end ] || return
    holder=$(sed -n 's/.*held by process \(.*\)/\1/p' "$log" | head -n 1)
    echo "Waiting for another program that uses apt${holder:+, process $holder}" >&2
    sleep 5
  done
}

# Prints Debian's name of this machine's processor.
native_architecture() {
  case $(uname -m) in x86_64) echo amd64 ;; aarch64) echo arm64 ;; *) uname -m ;; esac
}

# The path of a static library, or its bare name where the compiler $1 has none.
library() { "$1" -print-file-name="$2" 2>/dev/null || echo "$2"; }

# The packages for every build and for throwaway hosts.
needed_to_build=(g++=g++ g++="$(library g++ libstdc++.a)" libc6-dev=/usr/include/stdio.h cmake=cmake
  ninja-build=ninja nlohmann-json3-dev=/usr/include/nlohmann/json.hpp binutils=readelf
  coreutils=md5sum libc-bin=ldd util-linux=unshare)

# The packages for building the tests.
# shellcheck disable=SC2034  # used by those who source this
needed_to_test=("${needed_to_build[@]}" googletest=/usr/src/googletest/CMakeLists.txt
  python3-jsonschema=/usr/lib/python3/dist-packages/jsonschema/__init__.py mount=mount
  procps=pgrep e2fsprogs=chattr)

# More packages for the fuzz preset: clang, and the runtime of its sanitizers.
# shellcheck disable=SC2034
needed_of_clang=(clang=clang++ libclang-rt-dev='/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.asan*')

# need_hosts chroot|mount: ends the script unless throwaway hosts can be entered here by chroot, for
# which a normal user needs a user namespace, and, with "mount", have mounts of their own.
need_hosts() {
  local space=() denied
  [ "$(id -u)" = 0 ] || space=(unshare --user --map-root-user)
  if ! denied=$(PATH=$PATH:/usr/sbin "${space[@]}" chroot / true 2>&1); then
    echo "Throwaway hosts need chroot, and $(id -un) may not use it here: $denied" >&2
    [ "$(id -u)" = 0 ] || echo "Start this with sudo, or allow user namespaces." >&2
    exit 1
  fi
  if [ "$1" = mount ] && ! denied=$(tests/host/probe-mounts); then
    echo "${0##*/} needs mounts, which this machine denies: $denied." >&2
    [ "$(id -u)" = 0 ] || echo "Start it with sudo." >&2
    exit 1
  fi
}

# find_mounts WHAT: like need_hosts mount, but returns false if this machine denies mounts, after a
# message that names the missing right and WHAT is skipped.
find_mounts() {
  local denied
  need_hosts chroot
  denied=$(tests/host/probe-mounts) && return
  echo "This machine denies mounts: $denied. Skipped without them: $1." >&2
  return 1
}

# make_scratch: makes the directory $scratch below build/ for this run of the script, where programs
# may be executed; it is deleted with the script. The next script deletes the scratch of a killed
# one. Call it first: if nothing can be written, it ends the script with a message.
make_scratch() {
  local left
  if [ ! -e build ] && ! mkdir build 2>/dev/null; then
    echo "$(id -un) cannot write to $PWD, which is read-only or $(stat -c %U .)'s; use a clone." >&2
    exit 1
  fi
  [ -w build ] || {
    echo "build/ is read-only or owned by $(stat -c %U build); chown it to $(id -un)." >&2
    exit 1
  }
  for left in build/scratch-*; do
    [ ! -e "$left" ] || [ -d "/proc/${left##*-}" ] || rm -rf "$left"
  done
  scratch=$PWD/build/scratch-$$
  mkdir "$scratch"
}

# Runs at the end of every script: deletes the scratch, and gives files that root created in a
# user's tree to that user.
clean_up() {
  [ -z "${scratch:-}" ] || rm -rf "$scratch"
  [ "$(id -u)" != 0 ] || [ ! -d build ] || [ "$(stat -c %u .)" = 0 ] ||
    chown -R --no-dereference --reference=. build
}
trap clean_up EXIT
# Without it, the script would continue if the program that ctrl-c interrupts ends by itself.
trap 'exit 130' INT
