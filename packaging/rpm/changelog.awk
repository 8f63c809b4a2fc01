# Prints debian/changelog in the format of an RPM.
/^[a-z]/ { version = substr($2, 2, length($2) - 2); changes = "" }
/^  \* / { changes = changes "- " substr($0, 5) "\n" }
/^    / { changes = changes "  " substr($0, 5) "\n" }
/^ -- / {
  sub(",", "", $(NF - 5))
  printf "* %s %s %s %s", $(NF - 5), $(NF - 3), $(NF - 4), $(NF - 2)
  for (i = 2; i < NF - 5; ++i) printf " %s", $i
  printf " - %s\n%s", version, changes
}
