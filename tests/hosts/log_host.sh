#!/usr/bin/env bash
# Runs host_log, copied into a temporary folder, in the ways a program uses the default log, and
# checks the log files (or the standard error stream) it leaves behind.
#
# usage: log_host.sh CASE HOST LIBRARY
#   endtoend     a raised and caught error gives the document and exactly its two entries
#   sigkill      a process killed at random while logging leaves a readable log, no torn entry
#   several      four processes log into one folder with many rollovers; nothing lost or torn
#   lockholder   the death of the process that holds the log file's lock frees the writers at once
#   unwritable   a log folder that cannot be made: entries go to standard error, no file anywhere
#   onewrite     every entry reaches the file in one write(2) (under strace)
set -u
case_name=$1
host=$2
library=$3
here=$(cd "$(dirname "$0")" && pwd)
check="python3 $here/log_check.py"
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null; done
  # The cross-process locks of the log files live in /dev/shm under the escaped file name.
  rm -f /dev/shm/qel.pm."$(printf '%s' "$work" | sed 's#%#%25#g; s#/#%2F#g')"%2F*
  rm -rf "$work"
}
trap cleanup EXIT
bin="$work/bin"
mkdir -p "$bin"
cp "$host" "$bin/host_log"
# The library beside the program, so that the copy runs whatever its rpath says.
cp -P "$(dirname "$library")"/libQelCore.so* "$bin/"
export LD_LIBRARY_PATH="$bin"
export LANG=C LC_ALL=C
. "$here/host_checks.sh"
for tool in xmllint python3; do
  command -v $tool >/dev/null || { echo "FAIL $tool is needed and not installed"; exit 1; }
done

now_ms() { echo $(($(date +%s%N) / 1000000)); }
# A folder of its own with the program in it (a hard link: the program's folder is the log folder).
program_folder() {
  mkdir -p "$1" && ln "$bin/host_log" "$1/host_log"
}
# wait_for_line FILE TEXT SECONDS: whether a line TEXT appeared in FILE in time
wait_for_line() {
  local deadline=$(($(now_ms) + $3 * 1000))
  until grep -qx -- "$2" "$1" 2>/dev/null; do
    [ "$(now_ms)" -lt $deadline ] || return 1
    sleep 0.02
  done
}
xpath() { # xpath DOCUMENT EXPRESSION: the value, with external entities expanded
  xmllint --noent --xpath "$2" "$1" 2>&1
}
show() { # show FILE...: the files, for the record of a failure
  for f in "$@"; do echo "---- $f"; head -c 3000 "$f" 2>/dev/null; echo; done
}

case_endtoend() {
  (cd "$work" && exec "$bin/host_log" endtoend >"$work/stdout" 2>"$work/stderr")
  expect "exit status" "$?" "0"
  expect "error caught" "$(value Caught "$(cat "$work/stdout")")" "true"
  expect "manager gone after shutdown" "$(value ManagerAfterShutdown "$(cat "$work/stdout")")" "null"
  expect "kept logger writes to standard output" \
    "$(grep -A3 -x 'Log message during QelCore.dll shutdown:' "$work/stdout" | tr '\n' '|')" \
    "Log message during QelCore.dll shutdown:|Logger: Qel.Host.Log|Severity: 5|Message: written after shutdown|"
  expect "nothing on standard error" "$(cat "$work/stderr")" ""
  local doc="$bin/DefaultLog.xml"
  printf '<?xml version="1.0" encoding="UTF-8"?>\n\n<!DOCTYPE Log [<!ENTITY entries SYSTEM "DefaultLog.entries">]>\n\n<Log>\n  &entries;\n</Log>\n' \
    >"$work/expected.xml"
  expect "document, exact bytes" "$(cmp "$doc" "$work/expected.xml" >/dev/null 2>&1 && echo same)" "same"
  xmllint --noent --noout "$doc"
  expect "document parses with its entries" "$?" "0"
  expect "two entries" "$(xpath "$doc" 'count(/Log/LogEntry)')" "2"
  expect "no other element in Log" "$(xpath "$doc" 'count(/Log/*)')" "2"
  expect "1: severity" "$(xpath "$doc" 'string(/Log/LogEntry[1]/@Severity)')" "Error"
  expect "1: logger" "$(xpath "$doc" 'string(/Log/LogEntry[1]/LogName)')" "Qel.Host.Log"
  expect "1: one Error element" "$(xpath "$doc" 'count(/Log/LogEntry[1]/Error)')" "1"
  expect "1: no Message element of its own" "$(xpath "$doc" 'count(/Log/LogEntry[1]/Message)')" "0"
  expect "1: circumstance" "$(xpath "$doc" 'string(/Log/LogEntry[1]/Error/Circumstance)')" "Error Raised"
  expect "1: message" "$(xpath "$doc" 'string(/Log/LogEntry[1]/Error/Message)')" "Log sample run42 failed"
  expect "2: severity" "$(xpath "$doc" 'string(/Log/LogEntry[2]/@Severity)')" "Error"
  expect "2: logger" "$(xpath "$doc" 'string(/Log/LogEntry[2]/LogName)')" "Qel.Host.Log"
  expect "2: message" "$(xpath "$doc" 'string(/Log/LogEntry[2]/Message)')" "Error Handled: Log sample run42 failed"
  expect "2: three children" "$(xpath "$doc" 'count(/Log/LogEntry[2]/*)')" "3"
  # The exact layout of the file, with any time stamp: the error's fragment stands unchanged (not
  # indented) in place of a Message line.
  local entries="$bin/DefaultLog.entries"
  python3 - "$entries" >"$work/layout" 2>&1 <<'EOF'
import re, sys
text = open(sys.argv[1], encoding="utf-8").read()
stamp = r"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}"
sep = "<!-- " + "=" * 72 + "  -->\n"
first = (r'<LogEntry Severity="Error" >\n  <TimeStamp>' + stamp + r'</TimeStamp>\n  <LogName>Qel\.Host\.Log</LogName>\n'
         r'<Error>\n(?:  [^\n]*\n)+</Error>\n</LogEntry>\n\n' + re.escape(sep) + r'\n')
second = (r'<LogEntry Severity="Error" >\n  <TimeStamp>' + stamp + r'</TimeStamp>\n  <LogName>Qel\.Host\.Log</LogName>\n'
          r'  <Message>Error Handled: Log sample run42 failed</Message>\n</LogEntry>\n\n' + re.escape(sep) + r'\n')
print("layout " + ("ok" if re.fullmatch(first + second, text) else "wrong"))
EOF
  expect "entries: exact layout" "$(cat "$work/layout")" "layout ok"
  [ $failures -eq 0 ] || show "$work/stdout" "$work/stderr" "$doc" "$entries"
}

case_sigkill() {
  local runs=20 written=0 i
  for i in $(seq 1 $runs); do
    local run="$work/run$i"
    program_folder "$run"
    local delay=$((RANDOM % 400 + 50))
    (cd "$run" && exec ./host_log forever >"$run/stdout" 2>"$run/stderr") &
    local pid=$!
    pids=("$pid")
    # The kill comes at a random moment after the first entries are in the file (a loaded
    # machine may take a while to start the program).
    local waited=0
    while [ ! -s "$run/DefaultLog.entries" ] && [ $waited -lt 1000 ]; do sleep 0.01; waited=$((waited + 1)); done
    sleep "$((delay / 1000)).$(printf %03d $((delay % 1000)))"
    kill -KILL "$pid"
    wait "$pid"
    local rc=$?
    pids=()
    local failed_before=$failures
    expect "run $i: killed" "$rc" "137"
    expect "run $i: nothing on standard output" "$(cat "$run/stdout")" ""
    if [ ! -s "$run/DefaultLog.entries" ]; then
      echo "     run $i: killed after $delay ms, no entry written yet"
      continue
    fi
    xmllint --noent --noout "$run/DefaultLog.xml"
    expect "run $i: document parses" "$?" "0"
    local out count
    out=$($check sequence "$run/DefaultLog.entries")
    expect "run $i: messages are a prefix of the numbered sequence" "$?" "0"
    count=$(value Count "$out")
    expect "run $i: xmllint counts the same entries" "$(xpath "$run/DefaultLog.xml" 'count(/Log/LogEntry)')" "$count"
    echo "     run $i: killed after $delay ms, $count entries"
    [ "${count:-0}" -gt 0 ] && written=$((written + 1))
    [ $failures -eq $failed_before ] || { echo "$out"; show "$run/stderr"; tail -c 600 "$run/DefaultLog.entries"; }
  done
  expect "runs with entries written before the kill" "$written" "$runs"
}

case_several() {
  local processes=4 count=10000 limit=300000 p
  for p in $(seq 1 $processes); do
    (cd "$work" && exec "$bin/host_log" several $p $processes $count $limit "$work/go" >"$work/out$p" 2>"$work/err$p") &
    pids+=($!)
  done
  for p in $(seq 1 $processes); do
    wait_for_line "$work/out$p" ready 30 || echo "FAIL process $p not ready"
  done
  local start=$(now_ms)
  touch "$work/go"
  for p in $(seq 1 $processes); do
    wait "${pids[$((p - 1))]}"
    expect "process $p: exit status" "$?" "0"
    expect "process $p: nothing on standard error" "$(cat "$work/err$p")" ""
  done
  pids=()
  echo "     $((processes * count)) entries in $(($(now_ms) - start)) ms"
  local out
  out=$($check several "$bin/DefaultLog.archive" "$bin/DefaultLog.entries" $limit $processes $count)
  expect "archive and current file: whole entries, contiguous per process, sizes" "$?" "0"
  echo "     $out"
  # Both files read by xmllint as well: the current one through the document, the archive
  # through a document of the same form.
  xmllint --noent --noout "$bin/DefaultLog.xml"
  expect "document parses" "$?" "0"
  printf '<?xml version="1.0" encoding="UTF-8"?>\n<!DOCTYPE Log [<!ENTITY entries SYSTEM "DefaultLog.archive">]>\n<Log>\n&entries;\n</Log>\n' \
    >"$bin/archive.xml"
  xmllint --noent --noout "$bin/archive.xml"
  expect "archive parses" "$?" "0"
  local words
  read -r -a words <<<"$out"
  expect "xmllint counts the archive's entries" "ArchiveEntries=$(xpath "$bin/archive.xml" 'count(/Log/LogEntry)')" "${words[0]:-none}"
  expect "xmllint counts the current file's entries" "CurrentEntries=$(xpath "$bin/DefaultLog.xml" 'count(/Log/LogEntry)')" "${words[2]:-none}"
}

writer_entries() { # writer_entries FOLDER: the number of writers' entries in the folder's file
  cat "$1/DefaultLog.entries" 2>/dev/null | grep -c '<Message>writer'
}
# lockholder_round WRITERS ENTRIES: one holder, WRITERS writers of ENTRIES entries each
lockholder_round() {
  local writers=$1 entries=$2 w
  local run="$work/hold$writers"
  program_folder "$run"
  (cd "$run" && exec ./host_log holdlock >"$run/holder.out" 2>"$run/holder.err") &
  local holder=$!
  pids=("$holder")
  if ! wait_for_line "$run/holder.out" held 30; then
    echo "FAIL $writers writers: the lock holder did not say \"held\""; failures=$((failures + 1))
    show "$run/holder.out" "$run/holder.err"
    return
  fi
  expect "$writers writers: holder's lock is on this folder's entries file" \
    "$(value EntriesFile "$(cat "$run/holder.out")")" "$run/DefaultLog.entries"
  local writer_pids=()
  for w in $(seq 1 $writers); do
    (cd "$run" && exec ./host_log writer $w $entries >"$run/writer$w.out" 2>"$run/writer$w.err") &
    writer_pids+=($!)
    pids+=($!)
  done
  for w in $(seq 1 $writers); do
    wait_for_line "$run/writer$w.out" queued 30 || echo "FAIL writer $w did not queue its entries"
  done
  # Time for the writers' workers to reach the lock; none of their entries may pass it.
  sleep 0.5
  expect "$writers writers: no entry written while the lock is held" \
    "$(writer_entries "$run")" "0"
  local want=$((writers * entries))
  local killed=$(now_ms) got=0 waited
  { kill -KILL "$holder"; wait "$holder"; } 2>/dev/null
  while :; do
    got=$(writer_entries "$run")
    waited=$(($(now_ms) - killed))
    [ "${got:-0}" -ge $want ] || [ $waited -gt 3000 ] && break
    sleep 0.01
  done
  echo "     $writers writers: $got of $want entries in the file $waited ms after the kill"
  expect "$writers writers: all entries written within 1 s of the holder's death" \
    "$([ "${got:-0}" -eq $want ] && [ $waited -le 1000 ] && echo yes || echo "$got entries after $waited ms")" "yes"
  for w in $(seq 1 $writers); do
    wait "${writer_pids[$((w - 1))]}"
    expect "$writers writers: writer $w exit status" "$?" "0"
  done
  pids=()
  local out
  out=$($check whole "$run/DefaultLog.entries")
  expect "$writers writers: the file holds whole entries only" "$?" "0"
  expect "$writers writers: entry count" "$(value Count "$out")" "$want"
  for w in $(seq 1 $writers); do
    local wanted
    wanted=$(seq 1 $entries | sed "s/^/writer $w entry /")
    expect "$writers writers: writer $w's entries in order" \
      "$(value Message "$out" | grep "^writer $w entry ")" "$wanted"
  done
  xmllint --noent --noout "$run/DefaultLog.xml"
  expect "$writers writers: document parses" "$?" "0"
}

case_lockholder() {
  lockholder_round 1 5
  lockholder_round 3 5
}

case_unwritable() {
  : >"$work/afile"
  printf '[default]\nLogPath=%s\n' "$work/afile/logs" >"$bin/SystemInfo.ini"
  local start=$(now_ms)
  (cd "$work" && exec timeout -s KILL 120 "$bin/host_log" unwritable 100000 >"$work/stdout" 2>"$work/stderr")
  local rc=$?
  echo "     100000 calls and shutdown in $(($(now_ms) - start)) ms"
  expect "exit status" "$rc" "0"
  expect "log path" "$(value LogPath "$(cat "$work/stdout")")" "$work/afile/logs/"
  expect "all calls returned" "$(value Calls "$(cat "$work/stdout")")" "100000"
  expect "the full queue reported once" "$(grep -c 'reached hard limit (3000 items)' "$work/stderr")" "1"
  local out
  out=$($check stderr "$work/stderr")
  expect "entries on standard error in order" "$?" "0"
  echo "     $out"
  local blocks starts ends
  blocks=$(printf '%s' "$out" | sed -n 's/.*Blocks=\([0-9]*\).*/\1/p')
  starts=$(printf '%s' "$out" | sed -n 's/.*Starts=\([0-9]*\).*/\1/p')
  ends=$(printf '%s' "$out" | sed -n 's/.*Ends=\([0-9]*\).*/\1/p')
  # The queue holds 3000 entries at once, and all that it took are delivered.
  expect "at least a full queue of whole entries on standard error" \
    "$([ "${blocks:-0}" -ge 3000 ] && echo yes || echo "${blocks:-0}")" "yes"
  expect "every entry on standard error whole" "$starts/$ends" "$blocks/$blocks"
  expect "no log file anywhere" "$(find "$work" -name 'DefaultLog.*')" ""
  [ $failures -eq 0 ] || { head -c 2000 "$work/stderr"; }
}

case_onewrite() {
  if ! command -v strace >/dev/null; then
    echo "SKIP strace is not installed"; exit 77
  fi
  if ! strace -o /dev/null true 2>/dev/null; then
    echo "SKIP strace cannot trace here (ptrace not permitted)"; exit 77
  fi
  # The leak checker cannot run in a traced process.
  (cd "$work" && ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" \
    exec strace -ff -y -xx -s 1000000 -e trace=write -o "$work/trace" "$bin/host_log" sizes \
    >"$work/stdout" 2>"$work/stderr")
  expect "exit status" "$?" "0"
  local expected
  expected=$(value Entries "$(cat "$work/stdout")")
  local out
  out=$($check writes "$work/trace" "$bin/DefaultLog.entries" "$expected")
  expect "one write(2) per whole entry" "$?" "0"
  echo "     $out"
  xmllint --noent --noout "$bin/DefaultLog.xml"
  expect "document parses" "$?" "0"
  expect "xmllint counts the entries" "$(xpath "$bin/DefaultLog.xml" 'count(/Log/LogEntry)')" "$expected"
  [ $failures -eq 0 ] || show "$work/stdout" "$work/stderr"
}

case "$case_name" in
  endtoend | sigkill | several | lockholder | unwritable | onewrite) "case_$case_name" ;;
  *) echo "unknown case $case_name"; exit 2 ;;
esac
[ $failures -eq 0 ]
