#!/bin/bash
# Runs the build-tree agent on one behaviour policy in a temporary prefix, runs the
# benign and/or attack corpus against it, and says which corpus items it reported and
# with which flags.
#
#   bench/policy/measure.sh BUILD_DIR [options] [benign|attack|both] [ITEM...]
#
#   --policy FILE     the behaviour policy (default conf/policies/10001/proc_detaction_feature.json)
#   --interval S      its repeat_interval for this run (default 10; "keep" keeps the file's)
#   --report-all      every weight 1 and report score 1: every flagged process is reported,
#                     so analyze.py can score any other weighting on the run
#   --cpu-usage-warn N  its cpu_usage_warn for this run
#   --listed ADDRESS  added to illegal_ip_list (default 127.0.0.2, the attack corpus's address)
#   --hold S          how long each item lives (default: interval + 8 s, so every item is
#                     alive over at least one whole cycle)
#   --out DIR         where the run is kept (default /var/tmp/corvane-policy-runs/<time>)
#   --host            run on the host's process view (default: the agent and the corpus in a
#                     pid namespace of their own, so that the agent sees the corpus only and
#                     the other processes of a shared machine neither fill the alerts nor
#                     mix with the items; the agent then polls /proc each second instead of
#                     taking kernel events, which the behaviour detectors do not use)
#
# The run directory keeps policy.json (as run), alerts.json, ledger.tsv, the agent's log
# and items.json (bench/policy/analyze.py attribute). Ctrl-C stops the run and removes
# what it created.
set -euo pipefail
if [ -z "${CORVANE_MEASURE_INNER:-}" ] && [[ " $* " != *" --host "* ]]; then
    # Should unshare die (Ctrl-C), the run inside is told to stop, and cleans up.
    exec unshare --pid --fork --mount-proc --kill-child=SIGTERM env CORVANE_MEASURE_INNER=1 bash "$0" "$@"
fi
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
build=$(realpath "${1:?build directory}")
shift
policy="$source_dir/conf/policies/10001/proc_detaction_feature.json"
interval=10 report_all=0 listed=127.0.0.2 hold="" out="" cpu_warn="" corpus=both items=()
while [ $# -gt 0 ]; do
    case $1 in
        --policy) policy=$(realpath "$2"); shift 2 ;;
        --interval) interval=$2; shift 2 ;;
        --report-all) report_all=1; shift ;;
        --cpu-usage-warn) cpu_warn=$2; shift 2 ;;
        --listed) listed=$2; shift 2 ;;
        --hold) hold=$2; shift 2 ;;
        --out) out=$2; shift 2 ;;
        --host) shift ;;
        benign | attack | both) corpus=$1; shift ;;
        -*) echo "unknown option $1" >&2; exit 2 ;;
        *) items+=("$1"); shift ;;
    esac
done
[ "$(id -u)" = 0 ] || { echo "run as root" >&2; exit 2; }
out=${out:-/var/tmp/corvane-policy-runs/$(date +%Y%m%d-%H%M%S)}
mkdir -p "$out"
out=$(realpath "$out")

prefix=$(mktemp -d /tmp/corvane-policy-agent.XXXXXX)
agent=""
stop_agent() {
    if [ -n "$agent" ] && kill -0 "$agent" 2>/dev/null; then
        kill -TERM "$agent"
        wait "$agent" || true
    fi
    agent=""
}
corpus_pid=""
# The corpus runs in the background so that a signal reaches this trap at once; the corpus
# script removes what it created before it exits.
# shellcheck disable=SC2317 # invoked by the trap
stop_run() {
    if [ -n "$corpus_pid" ]; then
        kill -TERM "$corpus_pid" 2>/dev/null || true
        wait "$corpus_pid" 2>/dev/null || true
    fi
    exit 130
}
trap 'stop_agent; rm -rf "$prefix"' EXIT
trap stop_run INT TERM
mkdir -p "$prefix/conf/policies/10001" "$prefix/log"
cp "$source_dir/conf/agent.json" "$prefix/conf/"

# The policy as run: the file with this run's interval, listed address and overrides.
python3 - "$policy" "$prefix/conf/policies/10001/proc_detaction_feature.json" "$interval" "$report_all" \
    "$listed" "$cpu_warn" << 'EOF'
import json, sys
source, target, interval, report_all, listed, cpu_warn = sys.argv[1:]
with open(source) as f:
    policy = json.load(f)
task = policy["content"]["detaction_full_task"]
if interval != "keep":
    task["task_condition"]["repeat_interval"] = int(interval)
if report_all == "1":
    task["score"] = {key: 1 for key in ("tmp", "hidden", "deleted", "bip", "cpu", "strings")}
    task["report_score"] = 1
if listed and listed not in task.get("illegal_ip_list", []):
    task["illegal_ip_list"] = task.get("illegal_ip_list", []) + [listed]
if cpu_warn:
    task["cpu_usage_warn"] = int(cpu_warn)
with open(target, "w") as f:
    json.dump(policy, f, indent=2)
EOF
cp "$prefix/conf/policies/10001/proc_detaction_feature.json" "$out/policy.json"
"$build/bin/corvane-agent" --check --strict --prefix "$prefix" --module "$build/module/libproc_det_module.so" > "$out/check.txt" 2>&1 ||
    { cat "$out/check.txt" >&2; exit 1; }
effective_interval=$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["content"]["detaction_full_task"]["task_condition"]["repeat_interval"])' "$out/policy.json")
hold=${hold:-$((effective_interval + 8))}

"$build/bin/corvane-agent" --prefix "$prefix" --alerts "$prefix/log/alerts.json" --log-level information \
    --module "$build/module/libprocess_collect_module.so" --module "$build/module/libnet_collect_module.so" \
    --module "$build/module/libproc_det_module.so" > "$prefix/log/agent.out" 2>&1 &
agent=$!
for _ in $(seq 120); do
    grep -qs "ProcDetActionFullTask run" "$prefix"/log/*.log && break
    kill -0 "$agent" 2>/dev/null || { cat "$prefix/log/agent.out" >&2; exit 1; }
    sleep 0.5
done
grep -qs "ProcDetActionFullTask run" "$prefix"/log/*.log || { echo "the agent ran no detection cycle" >&2; exit 1; }
echo "agent $agent running; interval ${effective_interval} s, items held ${hold} s; run kept in $out"

: > "$out/ledger.tsv"
export CORPUS_LEDGER="$out/ledger.tsv" CORPUS_HOLD="$hold"
status=0
# run_corpus NAME: the corpus script NAME.sh with the requested items that are its own
# (all of them when none was requested; nothing when all requested items are the other's).
run_corpus() {
    local script="$source_dir/bench/policy/$1.sh" own=() item
    for item in "${items[@]}"; do
        bash "$script" --list | grep -q "^$item " && own+=("$item")
    done
    [ ${#items[@]} -eq 0 ] || [ ${#own[@]} -gt 0 ] || return 0
    bash "$script" "${own[@]}" &
    corpus_pid=$!
    wait "$corpus_pid" || status=$?
    corpus_pid=""
}
[ "$corpus" = attack ] || run_corpus benign
[ "$corpus" = benign ] || run_corpus attack
# The report task spools and writes alerts a moment after the cycle that raised them.
sleep 3
stop_agent
cp "$prefix/log/alerts.json" "$out/alerts.json" 2>/dev/null || : > "$out/alerts.json"
cp "$prefix"/log/*.log "$prefix/log/agent.out" "$out/" 2>/dev/null || true
python3 "$source_dir/bench/policy/analyze.py" attribute "$out"
exit "$status"
