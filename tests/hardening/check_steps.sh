# Checks shared by the hardening scripts: each prints "ok:" or "FAIL:" with the
# command's last lines, and counts failures in $failures. Source it after setting
# $work (a scratch folder) and failures=0.

check() { # check DESCRIPTION COMMAND...: the command must succeed
    local what=$1; shift
    if "$@" >"$work/out.txt" 2>&1; then
        echo "ok:   $what"
    else
        echo "FAIL: $what"; sed 's/^/      /' "$work/out.txt" | tail -n 20; failures=$((failures + 1))
    fi
}

refused() { # refused DESCRIPTION COMMAND...: the command must fail
    local what=$1; shift
    if "$@" >"$work/out.txt" 2>&1; then
        echo "FAIL: $what (verification passed)"; sed 's/^/      /' "$work/out.txt" | tail -n 20; failures=$((failures + 1))
    else
        echo "ok:   $what"
    fi
}

refused_saying() { # refused_saying DESCRIPTION TEXT COMMAND...: fails, and says TEXT
    local what=$1 text=$2; shift 2
    if "$@" >"$work/out.txt" 2>&1; then
        echo "FAIL: $what (verification passed)"; sed 's/^/      /' "$work/out.txt" | tail -n 20; failures=$((failures + 1))
    elif ! grep -qF -- "$text" "$work/out.txt"; then
        echo "FAIL: $what: refused, but without '$text'"; sed 's/^/      /' "$work/out.txt" | tail -n 20
        failures=$((failures + 1))
    else
        echo "ok:   $what"
    fi
}
