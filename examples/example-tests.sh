#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs one example program once and checks what it printed:
#
#   example-tests.sh EXAMPLE PROGRAM SOURCE-DIR
#
# Exits 0 when the run is right, 1 when it is not, 77 when it needs a private namespace that
# cannot be made here.
set -eu
example=$1
program=$2
sources=$3

fail() {
    echo "$example: $*" >&2
    exit 1
}

case "$example" in
hash_files)
    # The same lines as the coreutils sums, for a file and for an empty one.
    empty=$(mktemp)
    trap 'rm -f "$empty"' EXIT
    for sum in md5 sha1 sha512; do
        for file in "$sources/hash_files.cpp" "$empty"; do
            want=$("${sum}sum" "$file")
            got=$("$program" "$sum" "$file")
            [ "$got" = "$want" ] || fail "$sum: '$got', expected '$want'"
        done
    done
    ;;
find_files)
    # Matching files at every depth, nothing below a skipped directory, no directories.
    tree=$(mktemp -d)
    trap 'rm -rf "$tree"' EXIT
    mkdir -p "$tree/a/skip" "$tree/a/deeper.txt"
    for file in a/x.txt a/skip/y.txt a/deeper.txt/z.txt b.txt c.dat; do
        echo "$file" >"$tree/$file"
    done
    got=$("$program" "$tree" '*.txt' '^skip$' | sed 's/.* //' | sort)
    want=$(printf '%s\n' "$tree/a/deeper.txt/z.txt" "$tree/a/x.txt" "$tree/b.txt")
    [ "$got" = "$want" ] || fail "listed '$got', expected '$want'"
    ;;
run_command)
    # Both streams passed on, the status kept.
    status=0
    out=$("$program" 5 /bin/sh -c 'echo to-out; echo to-err >&2; exit 3' 2>&1) || status=$?
    [ "$status" = 3 ] || fail "status $status, expected 3"
    [ "$out" = "to-out
to-err" ] || fail "printed '$out'"
    ;;
resolve)
    # Answered by a hosts file of our own, in private mount and network namespaces: nothing
    # reaches a name server, and the machine's own /etc is not read.
    # unshare is told to leave propagation alone (it cannot make "/" private where "/" is
    # no mount point, as in a chroot); the shell does it and skips when it cannot, before
    # mounting anything that could reach the outer namespace.
    skip() {
        echo "$example: skipped, no private mount and network namespace here" >&2
        exit 77
    }
    command -v unshare >/dev/null || skip
    out=$(unshare --mount --propagation unchanged --net /bin/sh -c '
        mount --make-rprivate / 2>/dev/null || exit 77
        etc=$(mktemp -d)
        cp /etc/ld.so.cache "$etc/" 2>/dev/null || true
        echo "hosts: files" >"$etc/nsswitch.conf"
        echo "127.0.0.1 localhost" >"$etc/hosts"
        mount --bind "$etc" /etc || exit 77
        exec "$1" localhost 127.0.0.1' sh "$program" 2>&1) || {
        status=$?
        [ "$status" = 77 ] && skip
        case "$out" in unshare:*) skip ;; esac
        fail "ended with status $status: $out"
    }
    echo "$out" | grep -qx 'localhost -> 127.0.0.1 -> localhost' || fail "printed '$out'"
    echo "$out" | grep -qx '127.0.0.1 -> 127.0.0.1 -> localhost' || fail "printed '$out'"
    ;;
*)
    fail "no such example"
    ;;
esac
