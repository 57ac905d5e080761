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
# dlltool names the archive's members and their symbols after the output path: run it
# in OUTDIR with a bare name, so that where the tree is built does not reach the bytes.
cd "$outdir"
"$dlltool" --input-def "$name.def" --dllname "$name.dll" --output-delaylib "lib$name.a"
