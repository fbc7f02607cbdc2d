#!/bin/bash
# The attack corpus: what intruders and miners do on a Linux host, emulated with
# harmless programs on this machine only (a sleeping or busy copy of corpus_prog,
# connections on loopback). Each item lives about CORPUS_HOLD seconds; the CPU hijack
# CORPUS_HIJACK_SECONDS (default 120). Everything it created is removed at the end.
#
#   bench/policy/attack.sh [--list | ITEM...]      all items when none is named
#
# The "listed address" is 127.0.0.2: the policy under test must carry it in its
# illegal_ip_list (measure.sh adds it). See lib.sh for the other settings.
set -euo pipefail
corpus_name=attack
source "$(dirname "$0")/lib.sh"
CORPUS_HIJACK_SECONDS=${CORPUS_HIJACK_SECONDS:-120}
CORPUS_LISTED_ADDRESS=${CORPUS_LISTED_ADDRESS:-127.0.0.2}

# The listed address's server: started once, outside every item, from a place that
# adds no flag.
corpus_prepare() {
    "$corpus_work/bin/prog" listen "$CORPUS_LISTED_ADDRESS" "$corpus_work/port" 3600 &
    corpus_background+=($!)
    local _
    for _ in $(seq 50); do
        [ -s "$corpus_work/port" ] && break
        sleep 0.1
    done
    [ -s "$corpus_work/port" ] || corpus_die "the listener on $CORPUS_LISTED_ADDRESS did not start"
    listed_port=$(cat "$corpus_work/port")
}

corpus_item tmp "a dropped binary run from /tmp under a daemon's name (crond), idle"
item_tmp() {
    "$(corpus_place prog "$corpus_tmp/tmp/crond")" sleep "$CORPUS_HOLD"
}

corpus_item var-tmp "a dropped binary run from /var/tmp (kdevtmpfsi), idle"
item_var-tmp() {
    local dir
    dir=$(corpus_mkdir /var/tmp/corvane-corpus.XXXXXX)
    "$(corpus_place prog "$dir/kdevtmpfsi")" sleep "$CORPUS_HOLD"
}

corpus_item hidden-var-tmp "a binary in a hidden directory under /var/tmp, idle"
item_hidden-var-tmp() {
    local dir
    dir=$(corpus_mkdir /var/tmp/.corvane-corpus.XXXXXX)
    "$(corpus_place prog "$dir/kthreadd")" sleep "$CORPUS_HOLD"
}

corpus_item hidden-shm "a binary in a hidden directory under /dev/shm (not a tmp path), idle"
item_hidden-shm() {
    local dir
    dir=$(corpus_mkdir /dev/shm/.corvane-corpus.XXXXXX)
    "$(corpus_place prog "$dir/sshd")" sleep "$CORPUS_HOLD"
}

corpus_item selfdelete-tmp "a binary in /tmp that deletes its own file and keeps running"
item_selfdelete-tmp() {
    "$(corpus_place prog "$corpus_tmp/selfdelete/update")" selfdelete sleep "$CORPUS_HOLD"
}

corpus_item selfdelete-hidden-tmp "a binary in a hidden /tmp directory that deletes its own file and keeps running"
item_selfdelete-hidden-tmp() {
    local dir
    dir=$(corpus_mkdir /tmp/.corvane-corpus.XXXXXX)
    "$(corpus_place prog "$dir/kworker")" selfdelete sleep "$CORPUS_HOLD"
}

corpus_item selfdelete "a binary outside tmp (/var/lib) that deletes its own file and keeps running"
item_selfdelete() {
    "$(corpus_place prog "$corpus_work/selfdelete/dbus-helper")" selfdelete sleep "$CORPUS_HOLD"
}

corpus_item memfd "fileless: a program copied into a memfd and executed from it, idle"
item_memfd() {
    "$corpus_work/bin/prog" memfd "" "$corpus_work/bin/prog" kworker sleep "$CORPUS_HOLD"
}

corpus_item cpu "CPU hijacking: a busy loop at 100 % of a core for CORPUS_HIJACK_SECONDS, from /var/lib"
item_cpu() {
    "$(corpus_place prog "$corpus_work/hijack/kswapd0")" spin "$CORPUS_HIJACK_SECONDS"
}

corpus_item cpu-tmp "CPU hijacking from /tmp: a busy loop without any keyword (a packed or renamed miner)"
item_cpu-tmp() {
    "$(corpus_place prog "$corpus_tmp/cpu/xmr")" spin "$CORPUS_HOLD"
}

corpus_item miner-tmp "a miner in /tmp: busy, with stratum+tcp:// in the program"
item_miner-tmp() {
    "$(corpus_place prog-miner "$corpus_tmp/miner/kdevtmpfsi")" spin "$CORPUS_HOLD"
}

corpus_item miner "a miner outside tmp (/var/lib): busy, with stratum+tcp:// in the program"
item_miner() {
    "$(corpus_place prog-miner "$corpus_work/miner/sysupdate")" spin "$CORPUS_HOLD"
}

corpus_item miner-memfd "a miner run from a memfd: busy, with stratum+tcp:// in the program"
item_miner-memfd() {
    "$corpus_work/bin/prog" memfd "" "$corpus_work/bin/prog-miner" kworker spin "$CORPUS_HOLD"
}

corpus_item miner-preload "a preloaded library carrying stratum+tcp:// in a busy system program (sha256sum)"
item_miner-preload() {
    local dir="$corpus_tmp/preload"
    mkdir -p "$dir"
    echo '__attribute__((used)) const char corvane_corpus_pool[] = "stratum+tcp://pool.corpus.invalid:3333";' \
        > "$dir/pool.c"
    gcc -shared -fPIC -o "$dir/libsystem.so" "$dir/pool.c"
    LD_PRELOAD="$dir/libsystem.so" timeout "$CORPUS_HOLD" sha256sum /dev/zero || [ $? = 124 ]
}

corpus_item miner-idle "a miner in /tmp that is not mining yet (idle), stratum+tcp:// in the program"
item_miner-idle() {
    "$(corpus_place prog-miner "$corpus_tmp/idle/kdevtmpfsi")" sleep "$CORPUS_HOLD"
}

corpus_item miner-throttled "a miner outside tmp throttled to 50 % of a core, stratum+tcp:// in the program"
item_miner-throttled() {
    "$(corpus_place prog-miner "$corpus_work/throttled/sysupdate")" spin "$CORPUS_HOLD" 50
}

corpus_item miner-short "a miner in /tmp that runs 3 s and exits (a short job, or a dropper's first stage), CORPUS_SHORT_RUNS times"
item_miner-short() {
    local miner run
    miner=$(corpus_place prog-miner "$corpus_tmp/short/kdevtmpfsi")
    # Several runs a random 1 to 10 s apart fall on different moments of the cycle.
    for ((run = 1; run <= ${CORPUS_SHORT_RUNS:-1}; run++)); do
        "$miner" spin 3
        [ "$run" = "${CORPUS_SHORT_RUNS:-1}" ] || sleep $((RANDOM % 10 + 1))
    done
    sleep "$CORPUS_HOLD"
}

corpus_item listed-ip "a shell holding a connection to the listed address (bash /dev/tcp)"
item_listed-ip() {
    # Only bash holds the socket: read waits on it, no child inherits it.
    bash -c "exec 3<>/dev/tcp/$CORPUS_LISTED_ADDRESS/$listed_port; read -r -t $CORPUS_HOLD -u 3 || true"
}

corpus_item listed-ip-tmp "a program in /tmp holding a connection to the listed address"
item_listed-ip-tmp() {
    "$(corpus_place prog "$corpus_tmp/connect/agent")" connect "$CORPUS_LISTED_ADDRESS" "$listed_port" "$CORPUS_HOLD"
}

corpus_main "$@"
