# usage: versions_test.sh CC LUA FC_SO VXA_SO VERSION
# The modules load with libraries of their version, or of none, and refuse those of another.
set -uo pipefail
cc=$1 lua=$2 fc=$3 vxa=$4 version=$5 status=0
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT

# An agent's library in place of one of this tree: every function that either module imports, and
# a version if it is given.
make_library() {
    local name=$1 symbol=$2 found=$3 own
    own=$(readlink -f "$(dirname "$fc")/$name")
    {
        comm -12 <(nm -D --defined-only "$own" | awk '{print $3}' | sort) \
            <(nm -D --undefined-only "$fc" "$vxa" | awk '{print $2}' | sort -u) |
            grep -vx "$symbol" | sed 's/.*/int &(void) { return 0; }/'
        [ -z "$found" ] || echo "unsigned $symbol(void) { return $found; }"
    } | "$cc" -w -x c -shared -fPIC -fno-builtin -Wl,-soname,"$name" -o "$scratch/$name" - || exit 1
}

# expect MODULE NAME SYMBOL VERSION MESSAGE
expect() {
    make_library "$2" "$3" "$4"
    local message
    message=$(LD_LIBRARY_PATH=$scratch LUA_CPATH="$(dirname "$fc")/?.so" \
        "$lua" -e "print(select(2, pcall(require, '$1')))" 2>&1)
    [ "$message" = "$5" ] || { echo "$1 with $2 of version '$4': $message"; status=1; }
    rm "$scratch/$2"
}
refusal() {
    echo "$1 was built for version 1 of the interface of $2, not for version 2: $scratch/$2.so.1"
}

expect fc libvxi.so.1 vxi_abi_version 2 "$(refusal fc libvxi)"
expect fc libvxi.so.1 vxi_abi_version 1 true
expect fc libvxi.so.1 vxi_abi_version '' true
expect fc libvxa_core.so.1 _ZN7VxaCore10AbiVersionEv 2 "$(refusal fc libvxa_core)"
expect vxa libvxi.so.1 vxi_abi_version 2 "$(refusal vxa libvxi)"
expect vxa libvxa_core.so.1 _ZN7VxaCore10AbiVersionEv 2 "$(refusal vxa libvxa_core)"

# Each file names itself, also where nothing can ask it.
for name in fc vxa libvxi libvxa_core; do
    file=$(dirname "$fc")/$name.so
    grep -qx "$name $version" < <(strings "$file") || { echo "$file: no name"; status=1; }
    notes=$(readelf -nW "$file")
    for note in 'Build ID: ' "\"name\":\"$name\",\"version\":\"$version\""; do
        grep -qF "$note" <<<"$notes" || { echo "$file: no note with $note"; status=1; }
    done
done
exit $status
