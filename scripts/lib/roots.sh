# shellcheck shell=bash
# Root file systems of other distributions, made once and kept below build/roots. Source this file
# after common.sh.

# The archive keys of Ubuntu, which no package of Debian has. They are those of this file, or none.
ubuntu_keys=ubuntu-keyring_2021.03.26_all.deb
ubuntu_keys_sum=0d0e7ed6b112f5d03eabf3c7eb01ebdacf9c57714b279e90495cfc58c8c4520f

# Prints the lines of apt's sources for a release, the newest first of what its mirrors serve.
apt_sources() {  # SUITE
  local debian=http://deb.debian.org ubuntu=http://archive.ubuntu.com/ubuntu
  case $1 in
    sid | forky) echo "deb $debian/debian $1 main" ;;
    bullseye | bookworm | trixie)
      echo "deb $debian/debian $1 main"
      echo "deb $debian/debian $1-updates main"
      echo "deb $debian/debian-security $1-security main"
      ;;
    *) echo "deb $ubuntu $1 main universe" ;;
  esac
}

# Prints the path of the keys that sign a release.
archive_keys() {  # SUITE
  local keys=build/roots/ubuntu-keys
  case $(apt_sources "$1") in
    *ubuntu*)
      if [ ! -d $keys ]; then
        curl -fsSo $keys.deb http://archive.ubuntu.com/ubuntu/pool/main/u/ubuntu-keyring/$ubuntu_keys
        sha256sum --quiet -c <<<"$ubuntu_keys_sum  $keys.deb"
        dpkg-deb -x $keys.deb $keys
      fi
      echo $keys/usr/share/keyrings/ubuntu-archive-keyring.gpg
      ;;
    *) echo /usr/share/keyrings/debian-archive-keyring.gpg ;;
  esac
}

# bootstrap SUITE[/PROCESSOR] TARGET OPTION...: has mmdebstrap make a root file system of a release of
# Debian or Ubuntu, with options of its own. A mirror that is no longer updated does. What it says is
# shown when it fails.
bootstrap() {
  local suite=${1%/*} processor=${1#*/} target=$2 log=build/roots/log-$$ keys
  need mmdebstrap=mmdebstrap curl=curl \
    debian-archive-keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  mkdir -p build/roots
  keys=$(archive_keys "$suite")
  [ "$processor" != "$suite" ] || processor=$(dpkg --print-architecture)
  apt_sources "$suite" | mmdebstrap --architectures="$processor" --keyring="$keys" \
    --aptopt='Acquire::Check-Valid-Until "false"' "${@:3}" "$suite" "$target" - >"$log" 2>&1 ||
    { cat "$log" >&2; return 1; }
  rm "$log"
}

# make_root NAME SUITE[/PROCESSOR] VARIANT [PACKAGE...]: makes build/roots/NAME unless it is there, and
# sets $root to it. VARIANT is one of mmdebstrap's; "extract" unpacks the packages and what they need,
# and sets nothing up.
make_root() {
  local packages
  packages=$(IFS=,; echo "${*:4}")
  root=$PWD/build/roots/$1
  [ ! -d "$root" ] || return 0
  echo "Making the root $1 of $2" >&2
  rm -rf "$root.new"
  bootstrap "$2" "$root.new" --variant="$3" --include="$packages"
  mv "$root.new" "$root"
}
