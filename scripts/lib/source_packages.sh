# shellcheck shell=bash
# The source packages of a commit. Source this file after common.sh, and call make_scratch first.

# make_source_packages DIRECTORY: puts a Debian source package and a source RPM of HEAD there. The same
# commit makes the same bytes, with SOURCE_DATE_EPOCH set.
make_source_packages() {
  local target=$1 version name=valta-driver-uninstaller work=${scratch:?}/sources
  version=$(scripts/version)
  rm -rf "$work"
  mkdir "$work"
  local archive=(git -c tar.umask=0022 archive "--prefix=$name-$version/" HEAD)
  "${archive[@]}" . ':!debian' | gzip -9n >"$work/$name-$version.tar.gz"
  "${archive[@]}" | tar -C "$work" -x
  cp "$work/$name-$version.tar.gz" "$work/${name}_$version.orig.tar.gz"
  { sed "s/@VERSION@/$version/" packaging/rpm/$name.spec && printf '\n%%changelog\n' &&
    awk -f packaging/rpm/changelog.awk debian/changelog; } >"$work/$name.spec"
  touch --date="@$SOURCE_DATE_EPOCH" "$work"/*
  (cd "$work" && dpkg-source -b "$name-$version")
  # The package records the paths of its build.
  (cd "$work" && rpmbuild -bs --define "_topdir ." --define "_sourcedir ." --define "_srcrpmdir ." \
    --define "_srcdefattr (-,root,root)" --define "_buildhost valta.example" \
    --define "use_source_date_epoch_as_buildtime 1" --define "dist %{nil}" \
    "$name.spec")
  mv "$work"/*.{dsc,orig.tar.gz,debian.tar.xz,src.rpm} "$target/"
}
