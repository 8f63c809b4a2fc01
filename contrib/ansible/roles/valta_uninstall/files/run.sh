#!/bin/sh
# Predicts, saves, runs, checks and undoes on the host: run.sh PLACE LOG PATH SECONDS STEP...
#
# The steps are:
#   rehearse  predict the run, in at most SECONDS
#   save      the same, and save what the run would remove for `valta-driver-remove undo`
#   required  end here if something could not be saved
#   run       run and check
#   list      list the runs that valta-driver-remove knows
#   undo      undo the last one that saved something, and the failed ones that it completed
# PLACE/evidence.tar appears when all steps have ended. The programs get only PATH, because the
# environment of the caller could change which tools they run.
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
echo "$*" >steps
# The directory of the run and its files have the names that valta-driver-remove expects.
record=/var/lib/valta-driver-remove/$(date +%Y%m%d-%H%M%S)

run() { env -i PATH="$path" HOME=/root LC_ALL=C "$@"; }
identify() { stat -c '%i %s %y %z' "$log" 2>/dev/null; }
predict() {
  run ../valta-driver-inspect before --json --timeout "$seconds" "$@" >before.json 2>before.err
}
check() {
  run ../valta-driver-inspect after --status "$status" --console stderr "$@"
}

for step; do
  case $step in
    rehearse) predict ;;
    save)
      mkdir -p "${record%/*}"
      mkdir "$record" || record=$record-none
      predict --save "$record/saved.tar"
      case $(cat before.err) in
        *"a run would remove nothing"*) ;;
        *) if [ -e "$record/saved.tar" ]; then echo "$record"; else echo nothing; fi >saved ;;
      esac ;;
    required)
      if [ -e saved ] && { [ ! -e "$record/saved.tar" ] || [ -s before.err ]; }; then
        rm -rf "$record"
        echo refused >saved
        break
      fi ;;
    run)
      [ ! -d "$record" ] || : >"$record/output"
      earlier=$(identify)
      (umask 022 && run ../valta-driver-uninstaller >stdout 2>stderr </dev/null)
      status=$?
      echo "$status" >status
      if [ "$(identify)" != "$earlier" ]; then
        cp "$log" log
      else
        # The log is of an earlier run. The check can do without one only if nothing was done.
        case $status in 1 | 7 | 126 | 127 | 255) ;; *) continue ;; esac
      fi
      check --json >after.json 2>after.err
      echo $? >checked
      [ ! -d "$record" ] || check >"$record/after.txt" 2>/dev/null ;;
    list) run ../valta-driver-remove list >runs 2>stderr ;;
    undo)
      chosen='' earlier=''
      while read -r name words; do
        case $words in "not run"*) continue ;; *", saved"*) ;; *) continue ;; esac
        case $earlier in done* | clean* | kept* | shared* | *undone) chosen='' ;; esac
        chosen="$name $chosen" earlier=$words
      done <runs
      status=${chosen:+0}
      for name in $chosen; do
        run ../valta-driver-remove undo "$name" >>stdout 2>>stderr </dev/null || status=$?
        [ "$status" -le 1 ] || break
      done
      echo "${status:-2}" >status
      cp status checked ;;
  esac
done
if [ -d "$record" ]; then
  cp before.json after.json log "$record" 2>/dev/null
  cp stdout "$record/output" && cp stderr "$record/console"
  # If the run removed nothing, there is nothing to undo.
  case $(cat after.json)-$(cat saved 2>/dev/null) in *'"removed": []'*-) rm -rf "$record" ;; esac
fi
tar -cf ../evidence.new -- * && mv ../evidence.new ../evidence.tar
