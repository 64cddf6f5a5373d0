#!/bin/sh
# Checks with xmllint that every XML document in the given folder is well-formed. Fails on the
# first document that xmllint rejects, naming it, and when the folder holds no document at all.
set -u
folder=${1:?usage: check_wellformed.sh <folder>}
if ! command -v xmllint >/dev/null 2>&1; then
  echo "check_wellformed: xmllint not found (Debian package libxml2-utils)" >&2
  exit 1
fi
count=0
for document in "$folder"/*.xml; do
  [ -e "$document" ] || break
  if ! xmllint --noout "$document"; then
    echo "check_wellformed: not well-formed: $document" >&2
    exit 1
  fi
  count=$((count + 1))
done
if [ "$count" -eq 0 ]; then
  echo "check_wellformed: no documents in $folder" >&2
  exit 1
fi
echo "check_wellformed: $count documents well-formed"
