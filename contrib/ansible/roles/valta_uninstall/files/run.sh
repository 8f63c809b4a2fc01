#!/bin/sh
# Rehearses, runs and judges on the host: run.sh PLACE LOG PATH SECONDS STEP...
#
# The steps are "rehearse", which may take SECONDS, and "run". PLACE/evidence.tar appears at the
# very end. The programs get PATH and nothing of the environment of the caller, which comes first in
# their search path.
set -u
umask 077
place=$1
log=$2
path=$3
seconds=$4
shift 4
cd "$place/run" || exit
boot=$(cat /proc/sys/kernel/random/boot_id 2>/dev/null)
# Another play may have started a run here meanwhile: its file must not be overwritten.
(set -C && echo "$$ $boot" >pid) || exit

run() { env -i PATH="$path" HOME=/root LC_ALL=C "$@"; }
identify() { stat -c '%i %s %y %z' "$log" 2>/dev/null; }

for step; do
  case $step in
    rehearse) run ../valta-driver-inspect before --json --timeout "$seconds" \
      >before.json 2>before.err ;;
    run)
      earlier=$(identify)
      (umask 022 && run ../valta-driver-uninstaller >stdout 2>stderr </dev/null)
      status=$?
      echo "$status" >status
      if [ "$(identify)" != "$earlier" ]; then
        cp "$log" log
      else
        # It would be judged by an earlier run's log, unless the status tells that it did nothing.
        case $status in 1 | 7 | 126 | 127 | 255) ;; *) continue ;; esac
      fi
      run ../valta-driver-inspect after --json --status "$status" --console stderr \
        >after.json 2>after.err
      echo $? >judged ;;
  esac
done
tar -cf ../evidence.new -- * && mv ../evidence.new ../evidence.tar
