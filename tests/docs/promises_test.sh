# usage: promises_test.sh PROMISES BUILD
# Each promise names tests that exist; * is any part of a name.
set -euo pipefail
tests=$(ctest --test-dir "$2" -N | sed -n 's/^ *Test *#[0-9]*: //p')
status=0 promises=0
while IFS= read -r row; do
    promises=$((promises + 1)) held=
    for name in $(grep -oE '`[^`]+`' <<<"${row##*| }" | tr -d '`' | grep -v '^static_assert$'); do
        pattern=^${name//./\\.}\$
        grep -qE -- "${pattern//\*/.*}" <<<"$tests" || { echo "no test $name"; status=1; }
        held=yes
    done
    [ "$held" ] || { echo "no test holds: $row"; status=1; }
done < <(sed -n '/^| Promise/,/^$/p' "$1" | sed -n '3,$s/ |$//p')
[ "$promises" -gt 10 ] || { echo "$promises promises found"; status=1; }
exit $status
