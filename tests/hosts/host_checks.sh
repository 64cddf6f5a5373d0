# Checks shared by the host scripts (sourced). They count failures in $failures.
failures=0

value() { # value KEY OUTPUT: the text behind "KEY=" in the output
  printf '%s\n' "$2" | sed -n "s/^$1=//p"
}
expect() { # expect WHAT GOT WANTED
  if [ "$2" != "$3" ]; then
    echo "FAIL $1: got \"$2\", expected \"$3\""; failures=$((failures + 1))
  else
    echo "ok   $1"
  fi
}
