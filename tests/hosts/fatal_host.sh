#!/usr/bin/env bash
# Runs host_fatal, copied under the name "FatalHost" into a folder of its own with a SystemInfo.ini,
# in the ways a process dies of an uncaught error, and checks the exit status, the report files,
# the copy on standard error and the log with outside readers (xmllint, Python's xml.etree).
# Every run is bounded (killed after 60 s), so a fatal exit that hangs fails instead of hanging.
#
# usage: fatal_host.sh CASE HOST LIBRARY
#   escape      an error of the host's class escapes main
#   thread      one escapes a std::thread after main raised and caught another class
#   terminate   std::terminate() with no error: UnknownError, "No Message", "Unknown"
#   noreports   SetMaxFatalErrorReports(0): no file, no copy on standard error, no notification
#   missing     the report folder does not exist: the report goes to the current folder
#   listener    a listener hears the folder and the stamp
#   info        a report with extra keys, read by Python's xml.etree
#   stamp       the stamp is the local time (TZ=Asia/Kolkata)
#   reenter     a terminate from a listener: a second report with 3 allowed, the exit with 1
#   noexcept    a noexcept function that raises ends the same way
#   joinable    a joinable std::thread destroyed ends the same way
#   busy        threads log and raise while the error escapes: 255 every time
#   deadlock    an exit handler that waits for ever: the limit of the way out ends the process
#   crash       a crash in a static destructor on the way out keeps the status
set -u
case_name=$1
host=$2
library=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
lib="$work/lib"
mkdir -p "$lib"
cp -P "$(dirname "$library")"/libQelCore.so* "$lib/"
export LD_LIBRARY_PATH="$lib"
export LANG=C LC_ALL=C
unset QEL_DEBUG_OUTPUT
. "$(dirname "$0")/host_checks.sh"
for tool in xmllint python3 timeout; do
  command -v $tool >/dev/null || { echo "FAIL $tool is needed and not installed"; exit 1; }
done
HOST_FATAL_ERROR=14HostFatalError
UNKNOWN_ERROR=N3Qel4Core12UnknownErrorE

# make_case NAME [INI]: a folder with the program, its settings, the report folders (the library
# makes none), the log folder and a current folder of its own ("cwd") to run in.
make_case() {
  dir="$work/$1"
  mkdir -p "$dir/reports" "$dir/default-reports" "$dir/log" "$dir/cwd"
  cp "$host" "$dir/FatalHost"
  local ini=${2:-"[default]\nErrorPath=$dir/default-reports/\nLogPath=$dir/log/\n[FatalHost]\nErrorPath=$dir/reports\n"}
  printf "$ini" >"$dir/SystemInfo.ini"
}
# run ARGS...: runs the program in $dir/cwd; status in $rc, streams in $dir/stdout and $dir/stderr
run() {
  (cd "$dir/cwd" && exec timeout -s KILL 60 "$dir/FatalHost" "$@" >"$dir/stdout" 2>"$dir/stderr")
  rc=$?
}
reports() { # reports FOLDER: the report files in it, one a line
  (cd "$1" && ls -1 2>/dev/null | grep 'ErrorInfo[0-9]*\.xml$')
}
xpath() { xmllint --noent --xpath "$2" "$1" 2>&1; }
show() { for f in "$@"; do echo "---- $f"; head -c 3000 "$f" 2>/dev/null; echo; done; }

# The checks every reported death shares: status 255, exactly one report in the process's own
# folder and nowhere else, the report and the copy on standard error are the same well-formed
# document, the circumstance, and the log entry of the fatal error (buffering off: not lost).
check_report() { # check_report TYPENAME MESSAGE CATEGORY
  expect "exit status" "$rc" "255"
  expect "one report in the process's folder" "$(reports "$dir/reports" | wc -l)" "1"
  expect "name <stamp>ErrorInfo.xml" \
    "$(reports "$dir/reports" | grep -cE '^[0-9]{4}-[0-9]{2}-[0-9]{2}__[0-9]{2}-[0-9]{2}-[0-9]{2}__ErrorInfo\.xml$')" "1"
  expect "no report in the default folder" "$(reports "$dir/default-reports" | wc -l)" "0"
  expect "no report in the current folder" "$(reports "$dir/cwd" | wc -l)" "0"
  report="$dir/reports/$(reports "$dir/reports" | head -1)"
  xmllint --noout "$report"
  expect "report is well-formed (xmllint)" "$?" "0"
  xmllint --noout "$dir/stderr"
  expect "copy on standard error is well-formed (xmllint)" "$?" "0"
  expect "copy on standard error is the report" "$(cmp "$report" "$dir/stderr" >/dev/null 2>&1 && echo same)" "same"
  expect "declaration" "$(head -1 "$report")" '<?xml version="1.0" encoding="UTF-8"?>'
  expect "TypeName" "$(xpath "$report" 'string(/Error/TypeName)')" "$1"
  expect "Message" "$(xpath "$report" 'string(/Error/Message)')" "$2"
  expect "Category" "$(xpath "$report" 'string(/Error/Category)')" "$3"
  expect "Circumstance" "$(xpath "$report" 'string(/Error/Circumstance)')" "Fatal unhandled error"
  expect "Circumstance first" "$(xpath "$report" 'name(/Error/*[1])')" "Circumstance"
  xmllint --noent --noout "$dir/log/DefaultLog.xml"
  expect "DefaultLog.xml still well-formed (xmllint --noent)" "$?" "0"
  expect "one Uncaught Fatal Error entry in the log" \
    "$(xpath "$dir/log/DefaultLog.xml" "count(/Log/LogEntry[Error/Circumstance='Uncaught Fatal Error'])")" "1"
  expect "its TypeName" \
    "$(xpath "$dir/log/DefaultLog.xml" "string(/Log/LogEntry[Error/Circumstance='Uncaught Fatal Error']/Error/TypeName)")" "$1"
}

case_escape() {
  make_case escape
  run escape
  check_report "$HOST_FATAL_ERROR" "host error 1 escaped" "Logic"
}

case_thread() {
  make_case thread
  run thread
  check_report 15HostThreadError "escaped thread 2" "Logic"
  expect "the caught class is not the one reported" "$(grep -c HostCaughtError "$report")" "0"
}

case_terminate() {
  make_case terminate
  run terminate
  check_report "$UNKNOWN_ERROR" "No Message" "Unknown"
}

case_noreports() {
  make_case noreports
  run noreports
  expect "exit status" "$rc" "255"
  expect "no report anywhere" "$(find "$dir" -name '*ErrorInfo*' | wc -l)" "0"
  expect "nothing on standard error" "$(cat "$dir/stderr")" ""
  expect "no notification" "$(grep -c '^Heard' "$dir/stdout")" "0"
  # (the log may hold nothing at all: no entries file is no fatal entry either)
  expect "no fatal entry in the log" "$(cat "$dir/log/DefaultLog.entries" 2>/dev/null | grep -c 'Uncaught Fatal Error')" "0"
}

case_missing() {
  make_case missing "[default]\nLogPath=$work/missing/log/\n[FatalHost]\nErrorPath=$work/missing/nowhere/deeper/\n"
  run escape
  expect "exit status" "$rc" "255"
  expect "one report in the current folder" "$(reports "$dir/cwd" | wc -l)" "1"
  expect "no folder made" "$(test -e "$dir/nowhere" && echo made || echo none)" "none"
  local report="$dir/cwd/$(reports "$dir/cwd" | head -1)"
  xmllint --noout "$report"
  expect "report is well-formed" "$?" "0"
  expect "TypeName" "$(xpath "$report" 'string(/Error/TypeName)')" "$HOST_FATAL_ERROR"
  expect "copy on standard error is the report" "$(cmp "$report" "$dir/stderr" >/dev/null 2>&1 && echo same)" "same"
  local fallback
  # The log lays a two-line message out on lines of its own: compared with white space collapsed.
  fallback=$(xpath "$dir/log/DefaultLog.xml" \
    "normalize-space(/Log/LogEntry[Warning/LogName='Qel.Core.AlertManager.OnFatalError']/Warning/Message)")
  expect "FallbackFatalErrorPath in the log" "$fallback" "Storing fatal error information in fallback path of $dir/cwd/"
}

case_listener() {
  make_case listener
  run listener
  check_report "$HOST_FATAL_ERROR" "host error 4 escaped" "Logic"
  local name
  name=$(reports "$dir/reports" | head -1)
  expect "the listener hears folder + stamp" "$(grep '^Heard' "$dir/stdout")" \
    "Heard $HOST_FATAL_ERROR $dir/reports/${name%ErrorInfo.xml}"
}

case_info() {
  make_case info
  run info
  expect "exit status" "$rc" "255"
  expect "one report" "$(reports "$dir/reports" | wc -l)" "1"
  local report="$dir/reports/$(reports "$dir/reports" | head -1)"
  xmllint --noout "$dir/stderr"
  expect "copy on standard error (no extra keys) is well-formed" "$?" "0"
  local out
  out=$(python3 - "$report" <<'EOF'
import sys, xml.etree.ElementTree as ET
text = open(sys.argv[1], encoding="utf-8").read()
declaration = '<?xml version="1.0" encoding="UTF-8"?>'
assert text.startswith(declaration), "no declaration"
root = ET.fromstring("<Report>" + text[len(declaration):] + "</Report>")
print("tags=" + ",".join(sorted(c.tag for c in root[:-1])) + ";" + root[-1].tag)
print("Station=" + root.findtext("Station"))
print("Operator=" + root.findtext("Operator"))
print("Circumstance=" + root.find("Error").findtext("Circumstance"))
EOF
  )
  expect "python read the report" "$?" "0"
  expect "extra keys ahead of Error" "$(value tags "$out")" "Operator,Station;Error"
  expect "Station" "$(value Station "$out")" "Bench 4"
  expect "Operator (escaped and read back)" "$(value Operator "$out")" "Ada & Grace"
  expect "Circumstance" "$(value Circumstance "$out")" "Fatal unhandled error"
}

case_stamp() {
  make_case stamp
  local format=+%Y-%m-%d__%H-%M-%S__
  local before after utc_before utc_after
  before=$(TZ=Asia/Kolkata date "$format"); utc_before=$(TZ=UTC date "$format")
  (cd "$dir/cwd" && TZ=Asia/Kolkata exec timeout -s KILL 60 "$dir/FatalHost" escape >"$dir/stdout" 2>"$dir/stderr")
  rc=$?
  after=$(TZ=Asia/Kolkata date "$format"); utc_after=$(TZ=UTC date "$format")
  expect "exit status" "$rc" "255"
  local name stamp
  name=$(reports "$dir/reports" | head -1)
  stamp=${name%ErrorInfo.xml}
  local within=no
  [[ ! "$stamp" < "$before" && ! "$stamp" > "$after" ]] && within=yes
  expect "stamp $stamp within Kolkata time [$before, $after]" "$within" "yes"
  local utc=no
  [[ ! "$stamp" < "$utc_before" && ! "$stamp" > "$utc_after" ]] && utc=yes
  expect "stamp is not UTC" "$utc" "no"
}

case_reenter() {
  make_case reenter3
  run reenter 3
  expect "3 allowed: exit status" "$rc" "255"
  local names
  names=$(reports "$dir/reports" | sed -E 's/^.{22}//' | sort | tr '\n' ' ')
  expect "3 allowed: the next report, numbered 3" "$names" "ErrorInfo.xml ErrorInfo3.xml "
  expect "3 allowed: one stamp" "$(reports "$dir/reports" | cut -c1-22 | sort -u | wc -l)" "1"
  expect "3 allowed: the listener heard both" "$(grep -c '^Heard' "$dir/stdout")" "2"
  xmllint --noout "$dir/stderr"
  expect "3 allowed: one copy on standard error, well-formed" "$?" "0"
  make_case reenter1
  run reenter 1
  expect "1 allowed: exit status" "$rc" "255"
  expect "1 allowed: one report only" "$(reports "$dir/reports" | wc -l)" "1"
  expect "1 allowed: heard once" "$(grep -c '^Heard' "$dir/stdout")" "1"
  expect "1 allowed: straight to the exit (no copy on standard error)" "$(cat "$dir/stderr")" ""
}

case_noexcept() {
  make_case noexcept
  run noexcept
  check_report "$HOST_FATAL_ERROR" "host error 9 escaped" "Logic"
}

case_joinable() {
  make_case joinable
  run joinable
  check_report "$UNKNOWN_ERROR" "No Message" "Unknown"
}

case_busy() {
  local i
  for i in 1 2 3 4 5; do
    make_case "busy$i"
    run busy 1
    expect "run $i, reporting: exit status" "$rc" "255"
    expect "run $i, reporting: one report" "$(reports "$dir/reports" | wc -l)" "1"
    expect "run $i, reporting: the escaping class" "$(xpath "$dir/reports/$(reports "$dir/reports" | head -1)" 'string(/Error/TypeName)')" "$HOST_FATAL_ERROR"
    expect "run $i, reporting: no sanitizer report" "$(grep -c 'Sanitizer' "$dir/stderr")" "0"
    make_case "quiet$i"
    run busy 0
    expect "run $i, no reports, worker running: exit status" "$rc" "255"
    expect "run $i, no reports: none" "$(reports "$dir/reports" | wc -l)" "0"
    expect "run $i, no reports: no sanitizer report" "$(grep -c 'Sanitizer' "$dir/stderr")" "0"
  done
}

case_deadlock() {
  make_case deadlock
  local start=$SECONDS
  run deadlock
  expect "exit status" "$rc" "255"
  expect "ended by the limit" "$(grep -c '^Fatal exit still running after 2 s: ending the process now$' "$dir/stderr")" "1"
  expect "within the limit's time" "$([ $((SECONDS - start)) -lt 30 ] && echo yes)" "yes"
  expect "the report was written first" "$(reports "$dir/reports" | wc -l)" "1"
}

case_crash() {
  make_case crash
  run crash
  expect "exit status" "$rc" "255"
  expect "one report" "$(reports "$dir/reports" | wc -l)" "1"
}

case "$case_name" in
  escape | thread | terminate | noreports | missing | listener | info | stamp | reenter | noexcept | joinable | busy | deadlock | crash)
    "case_$case_name" ;;
  *) echo "unknown case $case_name"; exit 2 ;;
esac
[ $failures -eq 0 ] || show "$dir/stdout" "$dir/stderr"
[ $failures -eq 0 ]
