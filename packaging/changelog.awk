# CHANGELOG.md in the form of a Debian change log. -v maintainer="Name <address>"

# Prints the current item in lines of at most 80 columns, as Debian requires.
function end_item(   count, words, line, i) {
  count = split(item, words, " ")
  line = "  *"
  for (i = 1; i <= count; ++i) {
    if (length(line) + 1 + length(words[i]) > 80) {
      print line
      line = "   "
    }
    line = line " " words[i]
  }
  if (count > 0) { print line }
  item = ""
}

function end_version(   command, stamp) {
  end_item()
  if (date == "") { return }
  command = "LC_ALL=C date -u -R -d " date
  command | getline stamp
  close(command)
  printf "\n -- %s  %s\n\n", maintainer, stamp
  date = ""
}

/^## / {
  end_version()
  # "## [1.0.0] - 2026-11-21"; an unreleased entry has no date, and is skipped
  if (NF == 4) {
    printf "libruvo (%s) unstable; urgency=medium\n", substr($2, 2, length($2) - 2)
    date = $4
  }
  next
}
date == "" { next }
/^### / { end_item(); printf "\n  [ %s ]\n", substr($0, 5) }
/^- / { end_item(); item = substr($0, 3) }
/^  / { item = item $0 }
END { end_version() }
