#!/bin/sh
# Makes the place of a run on the host: prepare.sh PLACE OWN PROGRAM...
#
# Puts each PROGRAM there from OWN, the host's directory of programs; one that an earlier run
# deleted there was put aside in front of it. Prints "found" and touches nothing when the place has
# a run that goes on, or one whose end nobody has seen yet.
set -eu
umask 077
place=$1
own=$2
shift 2

if [ -e "$place/evidence.tar" ] ||
  { [ -e "$place/run/pid" ] && kill -0 "$(cat "$place/run/pid")" 2>/dev/null; }; then
  echo found
  exit
fi
for program; do
  [ -x "$own/$program" ] || [ -x "$place/$program" ] || {
    echo "the host has no $own/$program; valta_uninstall_program copies one there" >&2
    exit 1
  }
done
rm -rf "$place/run"
mkdir -p "$place/run"
for program; do
  [ ! -x "$own/$program" ] || cp "$own/$program" "$place/"
done
