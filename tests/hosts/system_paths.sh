#!/usr/bin/env bash
# Runs host_system copied into a temporary folder under the name "Acquire", with and without a
# "SystemInfo.ini" beside it, and checks the data paths that System reports.
#
# usage: system_paths.sh HOST LIBRARY
set -u
host=$1
library=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
bin="$work/bin"
mkdir -p "$bin" "$work/common" "$work/xdg" "$work/home"
cp "$host" "$bin/Acquire"
# The library beside the program, so that another user can load it too.
cp -P "$(dirname "$library")"/libQelCore.so* "$bin/"
chmod -R a+rX "$bin"
export LD_LIBRARY_PATH="$bin"
. "$(dirname "$0")/host_checks.sh"

run() { # run [ENV=VALUE]... MODE: the host's output
  env QEL_COMMON_DATA_DIR="$work/common" XDG_DATA_HOME="$work/xdg" HOME="$work/home" \
      QEL_DEBUG_OUTPUT=stderr "$@" 2>"$work/stderr"
}
settings() { printf "$1" >"$bin/SystemInfo.ini"; }

# Without a settings file: Korvel/<name>/, and the user path is the common path.
rm -f "$bin/SystemInfo.ini"
out=$(run "$bin/Acquire" paths)
expect "process name" "$(value ProcessName "$out")" "Acquire"
expect "process path" "$(value ProcessPath "$out")" "$bin/"
expect "sub-directory" "$(value AppDataSubDir "$out")" "Korvel/Acquire/"
expect "common path" "$(value CommonDataPath "$out")" "$work/common/Korvel/Acquire/"
expect "user path" "$(value UserDataPath "$out")" "$work/common/Korvel/Acquire/"

# The process's own section wins over the default one.
settings '[default]\nAppDataSubDir=DefaultSub\n[Acquire]\nAppDataSubDir=Vendor/Acquire2\n'
out=$(run "$bin/Acquire" paths)
expect "process section wins" "$(value AppDataSubDir "$out")" "Vendor/Acquire2/"
expect "common path with own sub-directory" "$(value CommonDataPath "$out")" "$work/common/Vendor/Acquire2/"
settings '[default]\nAppDataSubDir=DefaultSub\n[Acquire]\nAppDataSubDir=\n'
out=$(run "$bin/Acquire" paths)
expect "empty value changes nothing" "$(value AppDataSubDir "$out")" "DefaultSub/"
settings '; settings of the tools\r\n[DEFAULT]\r\n  appdatasubdir = "Quoted Sub"  \r\n'
out=$(run "$bin/Acquire" paths)
expect "case, quotes, CR LF" "$(value AppDataSubDir "$out")" "Quoted Sub/"

# Per-user data, switched on in either section, moves the user path under $XDG_DATA_HOME.
for text in '[default]\nEnablePerUserData=1\n' '[Acquire]\nEnablePerUserData=1\n' \
            '[default]\nEnablePerUserData=0\n[Acquire]\nEnablePerUserData=2\n'; do
  settings "$text"
  out=$(run "$bin/Acquire" paths)
  expect "per-user data ($(printf "$text" | tr '\n' ' '))" "$(value UserDataPath "$out")" "$work/xdg/Korvel/Acquire/"
  expect "common path stays" "$(value CommonDataPath "$out")" "$work/common/Korvel/Acquire/"
done
settings '[default]\nEnablePerUserData=0\n[Acquire]\nEnablePerUserData=0\n'
out=$(run "$bin/Acquire" paths)
expect "per-user data off" "$(value UserDataPath "$out")" "$work/common/Korvel/Acquire/"

# An absolute sub-directory fails the assertion (and is kept).
settings '[Acquire]\nAppDataSubDir=/abs/sub\n'
out=$(run "$bin/Acquire" paths)
expect "absolute sub-directory asserts" "$(grep -c 'Failed Assertion(appDataSubDir.IsRelative())' "$work/stderr")" "1"
rm -f "$bin/SystemInfo.ini"

# Shutdown listeners hear newest first.
out=$(run "$bin/Acquire" shutdown)
expect "shutdown order" "$(printf '%s' "$out" | tr '\n' ' ')" "heard third heard second heard first"

# An unprivileged user without QEL_COMMON_DATA_DIR still gets a writable common folder.
home="$work/userhome"
mkdir -p "$home"
if [ "$(id -u)" -eq 0 ]; then
  chown 65534:65534 "$home"
  as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups --)
else
  as_user=()
fi
out=$(env -u QEL_COMMON_DATA_DIR -u XDG_DATA_HOME HOME="$home" "${as_user[@]}" "$bin/Acquire" write 2>"$work/stderr")
expect "unprivileged common path" "$(value CommonDataPath "$out")" "$home/.local/share/Korvel/Acquire/"
expect "unprivileged common folder writable" "$(value CommonWritable "$out")" "1"
expect "unprivileged user folder writable" "$(value UserWritable "$out")" "1"
expect "written file" "$(cat "$home/.local/share/Korvel/Acquire/probe.txt" 2>/dev/null)" "written"

if [ $failures -ne 0 ]; then
  echo "---- last stderr"; cat "$work/stderr"
  exit 1
fi
