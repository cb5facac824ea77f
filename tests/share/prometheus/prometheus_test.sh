#!/usr/bin/env bash
# usage: prometheus_test.sh ROOT TOOLS
# The metrics and rules through Debian's Prometheus and node exporter, on loopback: a simulated
# host gets a policy that its load exceeds; it is killed, then run again and ended.
set -euo pipefail
root=$1 tools=$2
if ! [ -x "$tools/promtool" ]; then
    printf 'prometheus: Skipped\nno Prometheus in build/prometheus: "./dev test" fetches it\n'
    exit 77
fi
PATH=$tools:$PATH
rules=$root/share/prometheus
promtool check rules "$rules"/*.yml
promtool test rules "$rules/tests/rules_test.yml"

work=$(mktemp -d)
file=$work/text/vxa.prom
pids=()
trap 'echo "failed: line $LINENO"' ERR
trap 'kill "${pids[@]}" 2>/dev/null || true; wait; rm -rf "$work"' EXIT
mkdir "$work/text"
cd "$work"

# until_true SECONDS COMMAND...
until_true() {
    local end=$(($(date +%s) + $1))
    until "${@:2}" >last.log 2>&1; do
        [ "$(date +%s)" -lt "$end" ] || { tail -n 30 ./*.log "$file"; echo "never: $*"; exit 1; }
        sleep 0.1
    done
}
# start NAME COMMAND...
start() {
    "${@:2}" >"$1.log" 2>&1 &
    pids+=($!)
}
address() { sed -n 's/.*msg="Listening on" address=//p' "$1.log" | grep .; }
query() { promtool query instant "http://$(address server)" "$1" | grep '=> 1 @'; }
fires() { query "ALERTS{alertname=\"$1\",alertstate=\"firing\"}"; }
is_quiet() { ! fires "$1"; }

# The shortest times, so that alerts need seconds.
for name in alerts recording; do
    sed -E 's/^( +for:) .*/\1 0s/; s/ 120/ 3/' "$rules/$name.yml" >"$name.yml"
done
start exporter prometheus-node-exporter --collector.disable-defaults --collector.textfile \
    --collector.textfile.directory=text --web.listen-address=127.0.0.1:0
until_true 10 address exporter
cat >config.yml <<END
global: {scrape_interval: 200ms, evaluation_interval: 200ms}
rule_files: [alerts.yml, recording.yml]
scrape_configs: [{job_name: node, static_configs: [{targets: ['$(address exporter)']}]}]
END
start server prometheus --config.file=config.yml --storage.tsdb.path=data \
    --web.listen-address=127.0.0.1:0
until_true 10 address server
until_true 20 query up  # the server delays the first scrape by 5 s

policy='{"SYS_THR_RUNQ": {"value": 16}, "SYS_THR_FREE_MEM": {"value": 0.1}}'
run_vxa() {
    LD_PRELOAD=$PRELOAD start vxa "$root/bin/vxa" run --engine sim --port 443 --interval 0.2 \
        --policy policy.json --metrics "$file" --metrics-services
    vxa=${pids[-1]}
}
# Once two cycles have counted the port; the series over 57 is for other services.
is_complete() { [ "$(grep -c '^[^#]' "$file")" -eq 58 ]; }
are_visible() {
    promtool query series --match='{__name__=~"vxa_.+"}' "http://$(address server)" |
        grep -o '__name__="[a-z_]*' | sort -u | wc -l | grep -qx "$names"
}
echo "$policy" >policy.json
run_vxa
until_true 10 is_complete
names=$(grep -o '^[a-z_]*' "$file" | sort -u | wc -l)
promtool check metrics <"$file"
[ "$(stat -c %a "$file")" = 644 ]
until_true 10 are_visible
echo "${policy/16/1}" >policy.json
kill -HUP "$vxa"
until_true 10 fires VxaInFailOpen
kill -9 "$vxa"
until_true 15 fires VxaSilent
[ -e "$file" ]
run_vxa
until_true 15 is_quiet VxaSilent
kill -TERM "$vxa"
wait "$vxa"
[ ! -e "$file" ]
