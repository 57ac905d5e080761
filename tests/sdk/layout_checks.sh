# Checks the SDK layout scripts share; sourced. Each prints what is wrong and sets
# failed=1.

# files_below DIR: the files below DIR, relative to it, sorted bytewise.
files_below() {
    (cd "$1" && find . -type f | sed 's|^\./||' | LC_ALL=C sort)
}

# same_file_list EXPECTED ACTUAL HEADING: the two lists agree, or HEADING and the
# lines that differ are printed.
same_file_list() {
    if [ "$1" != "$2" ]; then
        echo "$3"
        diff <(echo "$1") <(echo "$2") | grep '^[<>]'
        failed=1
    fi
}

# same_bytes EXPECTED ACTUAL MESSAGE: the two files hold the same bytes.
same_bytes() {
    cmp -s "$1" "$2" || { echo "$3"; failed=1; }
}
