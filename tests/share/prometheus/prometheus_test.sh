#!/usr/bin/env bash
# usage: prometheus_test.sh ROOT TOOLS
# The metrics and rules through Debian's Prometheus and node exporter, on loopback: a simulated
# host is overloaded, then killed, then run again and ended.
set -euo pipefail
root=$1 tools=$2
for tool in prometheus promtool prometheus-node-exporter; do
    [ -x "$tools/$tool" ] && continue
    printf 'prometheus: Skipped\nno %s in build/prometheus: "./dev test" fetches it\n' "$tool"
    exit 77
done
PATH=$tools:$PATH
rules=$root/share/prometheus
promtool check rules "$rules"/*.yml
promtool test rules "$root/tests/share/prometheus/rules_test.yml"

work=$(mktemp -d)
file=$work/text/vxa.prom
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; wait; rm -rf "$work"' EXIT
cd "$work"
mkdir text

fail() {
    printf '%s\n' "$1"
    tail -n 20 ./*.log "$file" || true
    exit 1
}

# until_true SECONDS WHAT COMMAND...
until_true() {
    local end=$(($(date +%s) + $1)) what=$2
    until "${@:3}" >last.log 2>&1; do
        [ "$(date +%s)" -lt "$end" ] || fail "not within $1 s: $what"
        sleep 0.1
    done
}

start() {
    "${@:2}" >"$1.log" 2>&1 &
    pids+=($!)
}

listens() { grep -q 'msg="Listening on"' "$1.log"; }
address() { sed -n 's/.*msg="Listening on" address=//p' "$1.log"; }
query() { promtool query instant "http://$(address server)" "$1"; }
fires() { query "ALERTS{alertname=\"$1\",alertstate=\"firing\"}" | grep -q .; }
is_quiet() { ! fires "$1"; }

# The shortest that work, so that alerts need seconds.
for name in alerts recording; do
    sed -E 's/^( +for:) .*/\1 0s/; s/ 120/ 3/' "$rules/$name.yml" >"$name.yml"
done
start exporter prometheus-node-exporter --collector.disable-defaults --collector.textfile \
    --collector.textfile.directory=text --web.listen-address=127.0.0.1:0
until_true 10 exporter listens exporter
cat >config.yml <<END
global: {scrape_interval: 200ms, evaluation_interval: 200ms}
rule_files: [alerts.yml, recording.yml]
scrape_configs: [{job_name: node, static_configs: [{targets: ['$(address exporter)']}]}]
END
start server prometheus --config.file=config.yml --storage.tsdb.path=data \
    --web.listen-address=127.0.0.1:0
until_true 10 server listens server
is_scraped() { query up | grep -q '=> 1 @'; }
until_true 20 "the first scrape, which the server delays by 5 s" is_scraped

run_vxa() {
    VXI_SIM=$1 LD_PRELOAD=$PRELOAD start vxa "$root/bin/vxa" run --engine sim --port 443 \
        --interval 0.2 --metrics "$file" --metrics-services
    vxa=${pids[-1]}
}
# Once two cycles have counted the port; the series over 56 is for other services.
is_complete() { [ "$(grep -c '^[^#]' "$file")" -eq 57 ]; }
names_seen() {
    promtool query series --match='{__name__=~"vxa_.+"}' "http://$(address server)" |
        grep -o '__name__="[a-z_]*' | sort -u | wc -l
}
are_visible() { [ "$(names_seen)" -eq "$names" ]; }
run_vxa scenario=busy:15/overloaded
until_true 10 "57 series" is_complete
names=$(grep -o '^[a-z_]*' "$file" | sort -u | wc -l)
promtool check metrics <"$file"
[ "$(stat -c %a "$file")" = 644 ] || fail "mode"
until_true 10 "$names names" are_visible
until_true 10 "fail-open" fires VxaInFailOpen
kill -9 "$vxa"
[ -e "$file" ] || fail "the file of a killed run"
until_true 15 "silence" fires VxaSilent
run_vxa scenario=idle
until_true 15 "the end of the alerts" is_quiet VxaSilent
kill -TERM "$vxa"
wait "$vxa" || fail "status $?"
[ ! -e "$file" ] || fail "the file of a run that has ended"
