# shellcheck shell=bash disable=SC2191  # PACKAGE=PROBE is one word
# What the scripts share: what they need of the machine, and where they keep what they make. Source
# this file from the top of the tree.

# What they make is the same whoever starts them.
umask 022

# need PACKAGE=PROBE...: makes sure that every PROBE is there, a command or a pattern of absolute
# paths, and installs the Debian packages of those that are missing, with sudo as a normal user.
# Where it cannot, it names all that is missing and fails. Call it once, with everything.
need() {
  local pair tool missing=() as_root=() able=yes log
  for pair in "$@"; do
    case ${pair#*=} in
      /*) compgen -G "${pair#*=}" >/dev/null || missing+=("$pair") ;;
      *) command -v "${pair#*=}" >/dev/null || missing+=("$pair") ;;
    esac
  done
  [ ${#missing[@]} -gt 0 ] || return 0

  [ "$(id -u)" = 0 ] || as_root=(sudo)
  for tool in apt-get "${as_root[@]}"; do command -v "$tool" >/dev/null || able=no; done
  if [ $able = no ]; then
    echo "Missing on this machine; install these and start again:" >&2
    for pair in "${missing[@]}"; do
      echo "  ${pair#*=} (Debian's package ${pair%%=*})" >&2
    done
    [ "$(id -u)" = 0 ] || command -v sudo >/dev/null ||
      echo "There is no sudo here either: root can run 'apt-get install ${missing[*]%%=*}'." >&2
    return 1
  fi
  echo "Installing ${missing[*]%%=*}" >&2
  log=$(mktemp)
  if ! { "${as_root[@]}" apt-get update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y --no-install-recommends "${missing[@]%%=*}"; } >"$log" 2>&1; then
    cat "$log" >&2
    rm "$log"
    return 1
  fi
  rm "$log"
}

# The path of a static library, or its bare name where the compiler $1 has none.
library() { "$1" -print-file-name="$2" 2>/dev/null || echo "$2"; }

# What every build needs, and a throwaway host.
needed_to_build=(g++=g++ g++="$(library g++ libstdc++.a)" libc6-dev=/usr/include/stdio.h cmake=cmake
  ninja-build=ninja nlohmann-json3-dev=/usr/include/nlohmann/json.hpp binutils=readelf
  coreutils=md5sum libc-bin=ldd util-linux=unshare)

# What building the tests needs.
# shellcheck disable=SC2034  # used by those who source this
needed_to_test=("${needed_to_build[@]}" googletest=/usr/src/googletest/CMakeLists.txt)

# What the fuzz preset needs besides: clang, and the runtime of its sanitizers.
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

# find_mounts WHAT: like need_hosts mount, but returns false where this machine denies mounts, after a
# sentence about the right that is missing and about WHAT, which is skipped.
find_mounts() {
  local denied
  need_hosts chroot
  denied=$(tests/host/probe-mounts) && return
  echo "This machine denies mounts: $denied. Skipped without them: $1." >&2
  return 1
}

# make_scratch: makes the directory $scratch below build/ for this run of the script, where programs
# may be executed; it goes with the script. What a killed one left goes with the next.
make_scratch() {
  local left
  mkdir -p build
  [ -w build ] || {
    echo "build/ is $(stat -c %U build)'s, from a run as another user; give it to $(id -un)." >&2
    exit 1
  }
  for left in build/scratch-*; do
    [ ! -e "$left" ] || [ -d "/proc/${left##*-}" ] || rm -rf "$left"
  done
  scratch=$PWD/build/scratch-$$
  mkdir "$scratch"
}

# At the end of every script: no scratch, and what root made in somebody's tree is theirs.
clean_up() {
  [ -z "${scratch:-}" ] || rm -rf "$scratch"
  [ "$(id -u)" != 0 ] || [ ! -d build ] || [ "$(stat -c %u .)" = 0 ] ||
    chown -R --no-dereference --reference=. build
}
trap clean_up EXIT
