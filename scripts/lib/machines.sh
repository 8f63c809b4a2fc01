# shellcheck shell=bash
# Virtual machines with a release's own kernel, systemd, kmod and dkms, under qemu. Source this file
# after roots.sh and call make_scratch first. The variables $suite, $arch, $kernel and $filesystem say
# which machine; see scripts/test-machine.
: "${suite:=}" "${arch:=}" "${kernel:=}" "${filesystem:=}"

case $arch in
  amd64) processor=x86_64 emulator=(qemu-system-x86_64) terminal=ttyS0 ;;
  arm64)
    processor=aarch64 terminal=ttyAMA0
    emulator=(qemu-system-aarch64 -machine virt -cpu cortex-a57)
    ;;
  *) echo "No machine of $arch: use amd64 or arm64." >&2 && exit 2 ;;
esac
case $filesystem in
  # Soon on the disk, for a machine that is cut off.
  ext4) root_options=commit=1 ;;
  xfs) root_options= ;;
  btrfs) root_options=subvol=@,commit=1 ;;
  *) echo "No machine on $filesystem: use ext4, xfs or btrfs." >&2 && exit 2 ;;
esac
name=$suite
[ "$arch" = "$(native_architecture)" ] || name+=-$arch
[ -z "$kernel" ] || name+=-$kernel
[ "$filesystem" = ext4 ] || name+=-$filesystem
images=$PWD/build/machine-$name

# shellcheck disable=SC2034  # used by those who source this
needed_for_machines=(e2fsprogs=mke2fs)
case $arch in
  amd64) needed_for_machines+=(qemu-system-x86=qemu-system-x86_64) ;;
  arm64) needed_for_machines+=(qemu-system-arm=qemu-system-aarch64) ;;
esac
[ "$arch" = "$(native_architecture)" ] || needed_for_machines+=(
  qemu-user-static="qemu-$processor-static" binfmt-support=/usr/sbin/update-binfmts
  arch-test=arch-test)

# Lets this kernel run programs of the machine's processor, which set the machine up.
run_foreign_programs() {
  local formats=/proc/sys/fs/binfmt_misc as_root=()
  [ "$arch" != "$(native_architecture)" ] && [ ! -e $formats/"qemu-$processor" ] || return 0
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  # Done at the start of a system, unless it is a container.
  [ -e $formats/register ] || "${as_root[@]}" mount -t binfmt_misc binfmt_misc $formats
  "${as_root[@]}" /usr/sbin/update-binfmts --enable "qemu-$processor"
}

packages_of_machine() {
  local release=virtual packages=(systemd-sysv login kmod dkms initramfs-tools)
  if is_debian "$suite"; then
    release=cloud-$arch
  else
    packages+=(e2fsprogs)  # initramfs-tools of 22.04 fails without it
  fi
  release=${kernel:-$release}
  [ "$filesystem" = ext4 ] || packages+=(xfsprogs btrfs-progs)
  (IFS=, && echo "${packages[*]},linux-image-$release,linux-headers-$release")
}

# boot_machine SERIAL DISK JOB RESULTS [WORDS]: starts the kernel in $images with the disks, in qemu's
# words, and with WORDS on its command line. Sets $machine to the process. Without no_timer_check an old
# kernel panics on a busy host, where its first ticks come late.
boot_machine() {
  TMPDIR=${scratch:?} "${emulator[@]}" -accel tcg -smp 1 -m 1G -nic none -display none -no-reboot \
    -serial "$1" -kernel "$images/vmlinuz" -initrd "$images/initrd" \
    -append "root=/dev/vda rw console=$terminal panic=-1 mitigations=off no_timer_check ${5-${root_options:+rootflags=$root_options}}" \
    -drive "if=virtio,format=raw,$2" -drive "if=virtio,format=raw,file=$3,readonly=on" \
    -drive "if=virtio,format=raw,file=$4" <&0 &
  machine=$!
  disown  # no message of the shell about one that is cut off
}

# Has the machine copy itself to a disk with another file system.
change_file_system() {
  local job=$scratch/copy.tar
  echo "filesystem=$filesystem" >"$scratch/settings"
  tar -cf "$job" --transform s/copy-system/job/ -C "$scratch" settings \
    -C "$PWD/tests/machine" copy-system
  truncate -s 4G "$images/copy"
  boot_machine "file:$images/serial" "file=$images/disk,snapshot=on" "$job" "$images/copy" ''
  while [ -d "/proc/$machine" ]; do sleep 1; done
  grep -q "SYSTEM COPIED" "$images/serial" || { cat "$images/serial" && return 1; }
  mv "$images/copy" "$images/disk"
}

# Makes the machine in $images, unless it is there, or what it is made of has changed: its disk, kernel
# and initial ramdisk, and the lists of its files without and with the stack.
make_machine() {
  local made_of
  made_of=$({ declare -f packages_of_machine change_file_system && packages_of_machine &&
    cat tests/machine/{choose-drivers,furnish,list-files,copy-system} tests/host/install-sample &&
    scripts/version; } | md5sum)
  [ "$(cat "$images/made-of" 2>/dev/null)" != "$made_of" ] || return 0
  echo "Making the machine $name"
  run_foreign_programs
  rm -rf "$images"
  mkdir -p "$images"
  bootstrap "$suite/$arch" /dev/null --format=null --variant=apt --dpkgopt=force-unsafe-io \
    --include="$(packages_of_machine)" \
    --essential-hook="'$PWD/tests/machine/choose-drivers' \"\$1\"" \
    --customize-hook="'$PWD/tests/machine/furnish' \"\$1\" '$images'"
  [ "$filesystem" = ext4 ] || change_file_system
  echo "$made_of" >"$images/made-of"
}
