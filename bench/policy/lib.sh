# shellcheck shell=bash
# Shared by benign.sh and attack.sh: set-up, one runner per corpus item, clean-up.
#
# Every item runs in a cgroup of its own, so every process it starts, however deep,
# can be told apart from the rest of the host. With CORPUS_LEDGER set, the runner
# writes to that file which pids each item had (polled every 0.1 s) and when each
# item ran; bench/policy/measure.sh attributes the agent's alerts with it.
#
# Environment:
#   CORPUS_HOLD     seconds an item keeps its processes alive (default 75: more than one
#                   60 s cycle; measure.sh sets it from the interval it measures with)
#   CORPUS_NICE     niceness of the corpus (default -20)
#   CORPUS_CPU_SHARES  weight of the corpus's CPU cgroup (default 262144, the largest; 0: none)
#                   Both so that a busy corpus process gets a whole core on a loaded shared
#                   machine, as it would on an idle host: the CPU indicator asks for more than
#                   90 % of a core.
#   CORPUS_LEDGER   file to append the attribution ledger to (default: none)

CORPUS_HOLD=${CORPUS_HOLD:-75}
CORPUS_NICE=${CORPUS_NICE:--20}
CORPUS_CPU_SHARES=${CORPUS_CPU_SHARES:-262144}
CORPUS_LEDGER=${CORPUS_LEDGER:-}
corpus_source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
corpus_cleanup_list=""
corpus_background=()
corpus_cgroup=""
corpus_cpu_group=""
corpus_items=()

corpus_die() {
    echo "$corpus_name: $*" >&2
    exit 1
}

# Creates a private directory from a mktemp template and removes it at the end, also
# when a subshell (an item, a command substitution) made it.
corpus_mkdir() {
    local dir
    dir=$(mktemp -d "$1") || corpus_die "cannot create a directory from $1"
    echo "$dir" >> "$corpus_cleanup_list"
    echo "$dir"
}

corpus_cleanup() {
    local pid
    for pid in "${corpus_background[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    if [ -n "$corpus_cgroup" ] && [ -d "$corpus_cgroup" ]; then
        local group
        for group in "$corpus_cgroup"/*/; do
            [ -d "$group" ] && corpus_kill_group "${group%/}"
        done
        rmdir "$corpus_cgroup" 2>/dev/null || true
    fi
    if [ -n "$corpus_cpu_group" ]; then
        echo $$ > "$(dirname "$corpus_cpu_group")/cgroup.procs" 2>/dev/null || true
        corpus_kill_group "$corpus_cpu_group"
    fi
    wait 2>/dev/null || true
    if [ -f "$corpus_cleanup_list" ]; then
        local path
        while read -r path; do rm -rf "$path"; done < "$corpus_cleanup_list"
        rm -f "$corpus_cleanup_list"
    fi
}

# Kills what is left in GROUP and removes it. (cgroup files report a size of 0: read them.)
corpus_kill_group() {
    local group=$1 pids pid _
    for _ in $(seq 25); do
        pids=$(cat "$group/cgroup.procs" 2>/dev/null) || break
        if [ -z "$pids" ]; then
            rmdir "$group" 2>/dev/null && return 0
        fi
        for pid in $pids; do
            [ "$pid" = $$ ] || kill -KILL "$pid" 2>/dev/null || true
        done
        sleep 0.2
    done
    [ ! -d "$group" ] || rmdir "$group" 2>/dev/null || echo "$corpus_name: could not remove cgroup $group" >&2
}

# The cgroup v2 hierarchy if there is one, else the v1 pids hierarchy.
corpus_cgroup_base() {
    local base
    base=$(awk '$3 == "cgroup2" {print $2; exit}' /proc/mounts)
    [ -n "$base" ] || base=$(awk '$3 == "cgroup" && $4 ~ /(^|,)pids(,|$)/ {print $2; exit}' /proc/mounts)
    echo "$base"
}

# A CPU cgroup v1 group of the largest weight for the corpus script and all it starts.
corpus_cpu_weight() {
    [ "$CORPUS_CPU_SHARES" != 0 ] || return 0
    local base
    base=$(awk '$3 == "cgroup" && $4 ~ /(^|,)cpu(,|$)/ {print $2; exit}' /proc/mounts)
    if [ -n "$base" ] && mkdir "$base/corvane-corpus-$$" 2>/dev/null; then
        corpus_cpu_group="$base/corvane-corpus-$$"
        echo "$CORPUS_CPU_SHARES" > "$corpus_cpu_group/cpu.shares" && echo $$ > "$corpus_cpu_group/cgroup.procs" &&
            return 0
    fi
    echo "$corpus_name: no CPU cgroup v1 hierarchy: the corpus runs with niceness $CORPUS_NICE only" >&2
}

# Called once by each corpus script before its items.
corpus_setup() {
    [ "$(id -u)" = 0 ] || corpus_die "run as root (packages, other users, cgroups)"
    command -v gcc >/dev/null || corpus_die "gcc is needed to build the corpus programs"
    corpus_cleanup_list=$(mktemp /tmp/corvane-corpus-cleanup.XXXXXX)
    trap corpus_cleanup EXIT
    trap 'exit 130' INT TERM
    renice -n "$CORPUS_NICE" -p $$ >/dev/null || echo "$corpus_name: could not renice to $CORPUS_NICE" >&2
    corpus_cpu_weight
    local base
    base=$(corpus_cgroup_base)
    if [ -n "$base" ] && mkdir "$base/corvane-corpus-$$" 2>/dev/null; then
        corpus_cgroup="$base/corvane-corpus-$$"
    elif [ -n "$CORPUS_LEDGER" ]; then
        corpus_die "no cgroup hierarchy to create groups in: items cannot be told apart"
    fi
    # Not under /tmp or /var/tmp and not hidden: a place that adds no location flag.
    corpus_work=$(corpus_mkdir /var/lib/corvane-corpus.XXXXXX)
    corpus_tmp=$(corpus_mkdir /tmp/corvane-corpus.XXXXXX)
    mkdir "$corpus_work/bin"
    gcc -O1 -o "$corpus_work/bin/prog" "$corpus_source/corpus_prog.c" ||
        corpus_die "cannot build corpus_prog"
    gcc -O1 -DCORPUS_KEYWORD='"stratum+tcp://pool.corpus.invalid:3333"' \
        -o "$corpus_work/bin/prog-miner" "$corpus_source/corpus_prog.c" || corpus_die "cannot build corpus_prog"
}

# Copies a corpus program to PATH (creating its directory) and prints PATH.
corpus_place() {
    local program=$1 path=$2
    mkdir -p "$(dirname "$path")"
    cp "$corpus_work/bin/$program" "$path"
    echo "$path"
}

corpus_ledger() {
    [ -z "$CORPUS_LEDGER" ] || printf '%s\n' "$(IFS=$'\t'; echo "$*")" >> "$CORPUS_LEDGER"
}

# Records every pid that shows up in GROUP until the file STOP exists.
corpus_poll() {
    local item=$1 group=$2 stop=$3 seen=" " pid now fd
    exec {fd}<> <(:)
    while [ -d "$group" ]; do
        while read -r pid; do
            case $seen in *" $pid "*) continue ;; esac
            seen+="$pid "
            printf -v now '%(%s)T' -1
            corpus_ledger pid "$item" "$pid" "$now"
        done 2>/dev/null < "$group/cgroup.procs" || true
        [ -e "$stop" ] && break
        read -r -t 0.1 -u "$fd" || true
    done
}

# corpus_item NAME "what it is": declares an item; its body is the function item_NAME.
corpus_item() {
    corpus_items+=("$1" "$2")
}

corpus_list() {
    local i
    for ((i = 0; i < ${#corpus_items[@]}; i += 2)); do
        printf '%-22s %s\n' "${corpus_items[i]}" "${corpus_items[i + 1]}"
    done
}

corpus_run_item() {
    local name=$1 what=$2 start end status=0 group="" poller=""
    printf -v start '%(%s)T' -1
    echo "$corpus_name: $name: $what"
    if [ -n "$corpus_cgroup" ]; then
        group="$corpus_cgroup/$name"
        mkdir "$group"
        if [ -n "$CORPUS_LEDGER" ]; then
            corpus_poll "$name" "$group" "$corpus_tmp/$name.stop" &
            poller=$!
        fi
        (echo "$BASHPID" > "$group/cgroup.procs" && "item_$name") &
    else
        ("item_$name") &
    fi
    # In the background, so that SIGINT or SIGTERM ends the wait, and the clean-up runs, at once.
    wait $! || status=$?
    if [ -n "$poller" ]; then
        touch "$corpus_tmp/$name.stop"
        wait "$poller" || true
    fi
    [ -z "$group" ] || corpus_kill_group "$group"
    printf -v end '%(%s)T' -1
    corpus_ledger item "$name" "$corpus_name" "$start" "$end" "$status" "$what"
    [ "$status" = 0 ] || echo "$corpus_name: $name: failed with status $status" >&2
    echo "$corpus_name: $name: $((end - start)) s"
}

# corpus_main "$@": --list, or the named items (default: all), one after the other.
corpus_main() {
    if [ "${1:-}" = "--list" ]; then
        corpus_list
        return
    fi
    local wanted=("$@") i name found
    for name in "${wanted[@]}"; do
        found=0
        for ((i = 0; i < ${#corpus_items[@]}; i += 2)); do
            [ "${corpus_items[i]}" = "$name" ] && found=1
        done
        [ "$found" = 1 ] || corpus_die "no item $name (see --list)"
    done
    corpus_setup
    [ "$(type -t corpus_prepare)" != function ] || corpus_prepare
    for ((i = 0; i < ${#corpus_items[@]}; i += 2)); do
        name=${corpus_items[i]}
        if [ ${#wanted[@]} -gt 0 ] && [[ " ${wanted[*]} " != *" $name "* ]]; then
            continue
        fi
        corpus_run_item "$name" "${corpus_items[i + 1]}"
    done
}
