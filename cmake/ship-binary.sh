#!/usr/bin/env bash
# ship-binary.sh OBJCOPY STRIP FILE: the debug information of FILE goes into
# FILE.debug, FILE is stripped and gets a debug link (name and CRC) to FILE.debug.
# In a release build (SOURCE_DATE_EPOCH set) both files take that time, so that an
# installer that records its payload's file times is repeatable too.
set -euo pipefail
objcopy=$1 strip=$2 file=$3
cd "$(dirname "$file")"
name=$(basename "$file")
# objcopy and strip stamp the PE header with the current time unless
# SOURCE_DATE_EPOCH says otherwise; outside a release the stamp stays 0, as the
# linker leaves it (--no-insert-timestamp).
stamp=${SOURCE_DATE_EPOCH:-0}
rm -f "$name.debug"
SOURCE_DATE_EPOCH=$stamp "$objcopy" --only-keep-debug "$name" "$name.debug"
SOURCE_DATE_EPOCH=$stamp "$strip" --strip-all "$name"
SOURCE_DATE_EPOCH=$stamp "$objcopy" --add-gnu-debuglink="$name.debug" "$name"
if [ -n "${SOURCE_DATE_EPOCH:-}" ]; then
    touch -d "@$SOURCE_DATE_EPOCH" "$name" "$name.debug"
fi
