#!/bin/sh
# Creates the work directory of a run on the host: prepare.sh PLACE KEPT OWN PROGRAM...
#
# Copies each PROGRAM there from OWN, a pattern for the host's directory of programs. If an earlier
# run deleted it there, KEPT, the work directory of real runs, has a copy. Creates nothing if PLACE
# has an active run or results that were not fetched. Prints "found" then, otherwise "ready", and
# the name of the host's processor.
set -eu
umask 077
place=$1
kept=$2
own=$3
machine=$(uname -m)
shift 3

is_running() {
  [ -e "$place/run/pid" ] && read -r pid boot <"$place/run/pid" &&
    [ "$boot" = "$(cat /proc/sys/kernel/random/boot_id 2>/dev/null)" ] && kill -0 "$pid" 2>/dev/null
}

# A prediction that has ended is outdated.
[ "$place" = "$kept" ] || is_running || rm -rf "$place"
if [ -e "$place/run/pid" ]; then
  # An interrupted run has not packed its results.
  if ! is_running && [ ! -e "$place/evidence.tar" ]; then
    cd "$place/run"
    tar -cf ../evidence.new -- *
    mv ../evidence.new ../evidence.tar
  fi
  echo "found $machine"
  exit
fi
refuse() {
  echo "$1" >&2
  exit 1
}
# An empty IFS keeps a space in the pattern.
pattern=$own IFS=
for directory in $pattern; do
  if [ $# = 0 ] || [ ! -x "$directory/$1" ]; then continue; fi
  [ "$own" = "$pattern" ] || refuse "the host has programs in $own and in $directory; set \
valta_uninstall_own to one of them"
  own=$directory
done
for program; do
  [ -x "$own/$program" ] || [ -x "$kept/$program" ] ||
    refuse "the host has no $program in $own; set valta_uninstall_own to another directory, \
or valta_uninstall_program to a program on the controller"
done
rm -rf "$place/run" "$place/evidence.tar"
mkdir -p "$place/run"
for program; do
  if [ -x "$own/$program" ]; then
    cp "$own/$program" "$place/"
  elif [ "$place" != "$kept" ]; then
    cp "$kept/$program" "$place/"
  fi
done
echo "ready $machine"
