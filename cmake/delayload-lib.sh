#!/usr/bin/env bash
# delayload-lib.sh DLLTOOL NM IMPORTLIB NAME OUTDIR: writes OUTDIR/libNAME.a, a
# delay-load import library with every export of the import library IMPORTLIB.
set -euo pipefail
dlltool=$1 nm=$2 importlib=$3 name=$4 outdir=$5
mkdir -p "$outdir"
{
    echo "LIBRARY $name.dll"
    echo "EXPORTS"
    "$nm" "$importlib" | sed -n 's/.* I __imp_\(.*\)$/\1/p' | sort -u
} >"$outdir/$name.def"
"$dlltool" --input-def "$outdir/$name.def" --dllname "$name.dll" --output-delaylib "$outdir/lib$name.a"
