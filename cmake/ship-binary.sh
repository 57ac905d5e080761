#!/usr/bin/env bash
# ship-binary.sh OBJCOPY STRIP FILE: the debug information of FILE goes into
# FILE.debug, FILE is stripped and gets a debug link (name and CRC) to FILE.debug.
# In a release build (SOURCE_DATE_EPOCH set) both files take that time, so that an
# installer that records its payload's file times is repeatable too.
set -euo pipefail
objcopy=$1 strip=$2 file=$3
cd "$(dirname "$file")"
name=$(basename "$file")
rm -f "$name.debug"
"$objcopy" --only-keep-debug "$name" "$name.debug"
"$strip" --strip-all "$name"
"$objcopy" --add-gnu-debuglink="$name.debug" "$name"
if [ -n "${SOURCE_DATE_EPOCH:-}" ]; then
    touch -d "@$SOURCE_DATE_EPOCH" "$name" "$name.debug"
fi
