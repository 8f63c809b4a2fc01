# shellcheck shell=bash
# Root file systems of other distributions, made once and kept below build/roots. Source this file
# after common.sh.

# The archive keys of Ubuntu, which no package of Debian has. Only the keys in this file are
# accepted.
ubuntu_keys=ubuntu-keyring_2021.03.26_all.deb
ubuntu_keys_sum=0d0e7ed6b112f5d03eabf3c7eb01ebdacf9c57714b279e90495cfc58c8c4520f

# Prints where apt takes the packages from that have this label, if it knows them.
site_of_apt() {  # LABEL
  # shellcheck disable=SC2016  # apt expands it
  apt-get indextargets --format '$(SITE)' "Label: $1" | sort | uniq -c | sort -rn |
    sed -n '1s/ *[0-9]* //p'
}

# Prints where debootstrap takes a release from. A release of Ubuntu that it does not know is served
# where the others are.
site_of_debootstrap() {  # SUITE PROCESSOR
  local script=/usr/share/debootstrap/scripts/$1
  [ -e "$script" ] || script=/usr/share/debootstrap/scripts/gutsy
  # shellcheck disable=SC2034,SC2317  # the script reads the variables and calls the functions
  (
    set +eu
    ARCH=$2 SUITE=$1
    default_mirror() { echo "$1" && exit; }
    # Comes after default_mirror, or alone in the scripts of Debian.
    mirror_style() { sed -n 's/^DEF_MIRROR="\(.*\)"$/\1/p' /usr/sbin/debootstrap && exit; }
    # shellcheck source=/dev/null
    . "$script"
  )
}

is_debian() {  # SUITE
  case $1 in sid | forky | bullseye | bookworm | trixie) ;; *) return 1 ;; esac
}

# Prints the lines of apt's sources for a release, the newest first of what its mirrors serve. The
# mirror is VALTA_DEBIAN_MIRROR or VALTA_UBUNTU_MIRROR, or that of apt's own sources, or debootstrap's.
apt_sources() {  # SUITE [PROCESSOR]
  local mirror security native processor
  native=$(dpkg --print-architecture)
  processor=${2:-$native}
  if is_debian "$1"; then
    mirror=${VALTA_DEBIAN_MIRROR:-$(site_of_apt Debian)}
    mirror=${mirror:-$(site_of_debootstrap "$1" "$processor")}
    security=${VALTA_DEBIAN_MIRROR:-$(site_of_apt Debian-Security)}
    security=${security:-$mirror}
    security=${security%-security}-security
  else
    mirror=${VALTA_UBUNTU_MIRROR:-}
    # Ubuntu's mirrors serve some processors each.
    [ -n "$mirror" ] || [ "$processor" != "$native" ] || mirror=$(site_of_apt Ubuntu)
    mirror=${mirror:-$(site_of_debootstrap "$1" "$processor")}
  fi
  case $1 in
    sid | forky) echo "deb $mirror $1 main" ;;
    bullseye | bookworm | trixie)
      echo "deb $mirror $1 main"
      echo "deb $mirror $1-updates main"
      echo "deb $security $1-security main"
      ;;
    *)
      echo "deb $mirror $1 main universe"
      echo "deb $mirror $1-updates main universe"
      ;;
  esac
}

# Prints the path of the keys that sign a release.
archive_keys() {  # SUITE PROCESSOR
  local keys=build/roots/ubuntu-keys mirror
  if is_debian "$1"; then
    echo /usr/share/keyrings/debian-archive-keyring.gpg && return
  fi
  if [ ! -d $keys ]; then
    read -r _ mirror _ < <(apt_sources "$@")
    curl -fsSo $keys.deb "$mirror/pool/main/u/ubuntu-keyring/$ubuntu_keys"
    sha256sum --quiet -c <<<"$ubuntu_keys_sum  $keys.deb"
    dpkg-deb -x $keys.deb $keys
  fi
  echo $keys/usr/share/keyrings/ubuntu-archive-keyring.gpg
}

# bootstrap SUITE[/PROCESSOR] TARGET OPTION...: has mmdebstrap make a root file system of a release
# of Debian or Ubuntu, with options of its own. A mirror that is no longer updated is accepted. Its
# output is printed if it fails.
bootstrap() {
  local suite=${1%/*} processor=${1#*/} target=$2 log=build/roots/log-$$ keys
  need mmdebstrap=mmdebstrap curl=curl debootstrap=/usr/share/debootstrap/scripts/gutsy \
    debian-archive-keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  mkdir -p build/roots
  [ "$processor" != "$suite" ] || processor=$(dpkg --print-architecture)
  keys=$(archive_keys "$suite" "$processor")
  apt_sources "$suite" "$processor" | mmdebstrap --architectures="$processor" --keyring="$keys" \
    --aptopt='Acquire::Check-Valid-Until "false"' "${@:3}" "$suite" "$target" - >"$log" 2>&1 ||
    { cat "$log" >&2; return 1; }
  rm "$log"
}

# make_root NAME SUITE[/PROCESSOR] VARIANT [PACKAGE...]: makes build/roots/NAME unless it is there,
# and sets $root to it. VARIANT is one of mmdebstrap's; "extract" unpacks the packages and their
# dependencies without configuring them.
make_root() {
  local packages
  packages=$(IFS=,; echo "${*:4}")
  root=$PWD/build/roots/$1
  [ ! -d "$root" ] || return 0
  echo "Making the root $1 of $2" >&2
  rm -rf "$root.new"
  bootstrap "$2" "$root.new" --variant="$3" --include="$packages" || return
  mv "$root.new" "$root"
}
