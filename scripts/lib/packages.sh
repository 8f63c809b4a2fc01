# shellcheck shell=bash disable=SC2191  # PACKAGE=PROBE is one word
# What the scripts need of the machine. Source this file.

# need PACKAGE=PROBE...: makes sure that every PROBE is there, a command or an absolute path, and
# installs the Debian packages of those that are missing, with sudo as a normal user. On another
# distribution names what is missing and fails.
need() {
  local pair missing=()
  for pair in "$@"; do
    case ${pair#*=} in
      /*) [ -e "${pair#*=}" ] || missing+=("$pair") ;;
      *) command -v "${pair#*=}" >/dev/null || missing+=("$pair") ;;
    esac
  done
  [ ${#missing[@]} -gt 0 ] || return 0

  local as_root=()
  if [ "$(id -u)" != 0 ]; then
    as_root=(sudo)
  fi
  if ! command -v apt-get >/dev/null || { [ "$(id -u)" != 0 ] && ! command -v sudo >/dev/null; }; then
    echo "Missing on this machine; install these and start again:" >&2
    for pair in "${missing[@]}"; do
      echo "  ${pair#*=} (Debian's package ${pair%%=*})" >&2
    done
    return 1
  fi
  echo "Installing ${missing[*]%%=*}" >&2
  "${as_root[@]}" apt-get update -q >&2
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]%%=*}" >&2
}

# What every build needs, and a throwaway host.
needed_to_build=(g++=g++ libc6-dev=/usr/include/stdio.h cmake=cmake ninja-build=ninja
  binutils=readelf coreutils=md5sum libc-bin=ldd util-linux=unshare)

# What building the tests needs.
# shellcheck disable=SC2034  # used by those who source this
needed_to_test=("${needed_to_build[@]}" googletest=/usr/src/googletest/CMakeLists.txt)

# What the fuzz preset needs besides: clang, and the runtime of its sanitizers.
need_clang() {
  need clang=clang++
  need "libclang-rt-$(clang++ -dumpversion | cut -d. -f1)-dev=$(clang++ -print-resource-dir)/lib/linux"
}
