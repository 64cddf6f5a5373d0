#!/usr/bin/env bash
# Runs host_locale copied into an empty temporary folder with a "de-DE/QelStringTables.xml"
# beside it, and checks that switching to de-DE gives the error its German display message while
# Message keeps the default wording; then again with that file cut off in the middle, where the
# host goes on and the display message falls back to the default wording.
#
# usage: locale_host.sh HOST LIBRARY
set -u
host=$1
library=$2
work=$(mktemp -d)
# The raised error is logged beside the program; the log file's cross-process lock lives in
# /dev/shm under the escaped file name and goes with the folder.
trap 'rm -f /dev/shm/qel.pm."$(printf "%s" "$work" | sed "s#%#%25#g; s#/#%2F#g")"%2F*; rm -rf "$work"' EXIT
bin="$work/bin"
mkdir -p "$bin/de-DE"
cp "$host" "$bin/host_locale"
# The library beside the program as well, so that the copy runs whatever its rpath says.
cp -P "$(dirname "$library")"/libQelCore.so* "$bin/"
export LD_LIBRARY_PATH="$bin"
# The user's locale must not decide the start: the process starts in the root locale en-US.
export LANG=C LC_ALL=C
unset LC_MESSAGES LANGUAGE
. "$(dirname "$0")/host_checks.sh"

run() { # run: the host's output; its exit status in $rc, its standard error in $work/stderr
  out=$(cd "$work" && QEL_DEBUG_OUTPUT=stderr "$bin/host_locale" run 2>"$work/stderr")
  rc=$?
}

type_name=$("$bin/host_locale" typename)
expect "type name printed" "$([ -n "$type_name" ] && echo yes)" "yes"
tables="$bin/de-DE/QelStringTables.xml"
write_tables() {
  cat >"$tables" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<StringTables locale="de-DE" >
  <StringTable key="_AlertMessageFormats_" >
    <STR key="$type_name" >Probendatei %1% fehlt (Formate)</STR>
  </StringTable>
  <StringTable key="$type_name" >
    <STR key="DisplayFormat" >Die Probendatei %1% fehlt</STR>
  </StringTable>
</StringTables>
EOF
}

# A complete table: the German wording for display, the English one in Message.
write_tables
run
expect "exit status" "$rc" "0"
expect "locale before" "$(value LocaleBefore "$out")" "en-US"
expect "SetLocale result" "$(value SetLocale "$out")" "true"
expect "one notification" "$(value Notifications "$out")" "1"
expect "notified new locale" "$(value NotifiedNew "$out")" "de-DE"
expect "notified old locale" "$(value NotifiedOld "$out")" "en-US"
expect "current locale" "$(value LocaleAfter "$out")" "de-DE"
expect "alert format entry read" "$(value AlertMessageFormat "$out")" "Probendatei %1% fehlt (Formate)"
expect "German display message" "$(value DisplayMessage "$out")" "Die Probendatei /data/run7.dat fehlt"
expect "English message" "$(value Message "$out")" "Sample file /data/run7.dat is missing"
expect "error caught" "$(value Caught "$out")" "true"
[ $failures -eq 0 ] || { echo "---- stdout"; echo "$out"; echo "---- stderr"; cat "$work/stderr"; }

# The same file cut off inside the error class's table: what came before it is kept, the rest is
# lost, and the error shows its default wording.
write_tables
cut_at=$(grep -bo "<STR key=\"DisplayFormat\"" "$tables" | cut -d: -f1)
truncate -s $((cut_at + 10)) "$tables"
failures_before=$failures
run
expect "malformed: exit status" "$rc" "0"
expect "malformed: SetLocale result" "$(value SetLocale "$out")" "true"
expect "malformed: one notification" "$(value Notifications "$out")" "1"
expect "malformed: current locale" "$(value LocaleAfter "$out")" "de-DE"
expect "malformed: strings before the cut kept" "$(value AlertMessageFormat "$out")" "Probendatei %1% fehlt (Formate)"
expect "malformed: display message falls back" "$(value DisplayMessage "$out")" "Sample file /data/run7.dat is missing"
expect "malformed: English message" "$(value Message "$out")" "Sample file /data/run7.dat is missing"
[ $failures -eq $failures_before ] || { echo "---- stdout"; echo "$out"; echo "---- stderr"; cat "$work/stderr"; }

# A user whose LANG names a locale that ICU lists only with its script (zh_Hans_CN): the process
# starts in zh-CN and reads "zh-CN/QelStringTables.xml" beside the program.
mkdir -p "$bin/zh-CN"
cat >"$bin/zh-CN/QelStringTables.xml" <<EOF
<?xml version="1.0" encoding="UTF-8"?>
<StringTables locale="zh-CN" >
  <StringTable key="$type_name" >
    <STR key="DisplayFormat" >样品文件 %1% 缺失</STR>
  </StringTable>
</StringTables>
EOF
failures_before=$failures
out=$(cd "$work" && env -u LC_ALL LANG=zh_CN.UTF-8 "$bin/host_locale" start 2>"$work/stderr")
rc=$?
expect "zh-CN: exit status" "$rc" "0"
expect "zh-CN: locale at start" "$(value LocaleAtStart "$out")" "zh-CN"
expect "zh-CN: display message" "$(value DisplayMessage "$out")" "样品文件 /data/run7.dat 缺失"
[ $failures -eq $failures_before ] || { echo "---- stdout"; echo "$out"; echo "---- stderr"; cat "$work/stderr"; }

[ $failures -eq 0 ]
