#!/usr/bin/env bash
# Runs a host program and checks what only a process shows: its exit status and what it wrote
# on its standard streams.
#
# usage: run_host.sh [--rc N] [--count STREAM TEXT N]... [--env NAME=VALUE]... -- COMMAND [ARG]...
#   --rc N               the exit status the process must end with (default 0)
#   --count S TEXT N     TEXT must occur exactly N times in stream S (stdout or stderr)
#   --order S FIRST THEN FIRST must first occur in stream S before THEN does
#   --env NAME=VALUE     set in the host's environment
set -u
rc_expected=0
checks=()
orders=()
envs=()
while [ $# -gt 0 ]; do
  case "$1" in
    --rc) rc_expected=$2; shift 2 ;;
    --count) checks+=("$2" "$3" "$4"); shift 4 ;;
    --order) orders+=("$2" "$3" "$4"); shift 4 ;;
    --env) envs+=("$2"); shift 2 ;;
    --) shift; break ;;
    *) echo "run_host.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
env "${envs[@]}" "$@" >"$work/stdout" 2>"$work/stderr" </dev/null
rc=$?
status=0
if [ "$rc" -ne "$rc_expected" ]; then
  echo "exit status $rc, expected $rc_expected"; status=1
fi
i=0
while [ $i -lt ${#checks[@]} ]; do
  stream=${checks[$i]}; text=${checks[$((i + 1))]}; want=${checks[$((i + 2))]}
  got=$(grep -oF -- "$text" "$work/$stream" | wc -l)
  if [ "$got" -ne "$want" ]; then
    echo "$stream holds \"$text\" $got times, expected $want"; status=1
  fi
  i=$((i + 3))
done
i=0
while [ $i -lt ${#orders[@]} ]; do
  stream=${orders[$i]}; first=${orders[$((i + 1))]}; then_=${orders[$((i + 2))]}
  a=$(grep -boF -- "$first" "$work/$stream" | head -1 | cut -d: -f1)
  b=$(grep -boF -- "$then_" "$work/$stream" | head -1 | cut -d: -f1)
  if [ -z "$a" ] || [ -z "$b" ] || [ "$a" -ge "$b" ]; then
    echo "$stream: \"$first\" does not come before \"$then_\""; status=1
  fi
  i=$((i + 3))
done
if [ $status -ne 0 ]; then
  echo "---- stdout"; cat "$work/stdout"; echo "---- stderr"; cat "$work/stderr"
fi
exit $status
