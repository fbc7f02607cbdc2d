#!/bin/bash
# The benign corpus: ordinary work of a server or build host that the behaviour
# policy must not report. Runs real processes on this machine (as root), each item
# for about CORPUS_HOLD seconds, and removes what it created.
#
#   bench/policy/benign.sh [--list | ITEM...]      all items when none is named
#
# See lib.sh for CORPUS_HOLD, CORPUS_NICE and CORPUS_LEDGER, and measure.sh to run it
# against the agent. The apt item needs a reachable Debian mirror.
set -euo pipefail
corpus_name=benign
source "$(dirname "$0")/lib.sh"

corpus_item apt "package install and removal: apt-get update, then install and purge of ${CORPUS_APT_PACKAGES:-hello cowsay} in rounds"
item_apt() {
    local packages fresh=() p
    read -r -a packages <<< "${CORPUS_APT_PACKAGES:-hello cowsay}"
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || fresh+=("$p")
    done
    local apt=(timeout 600 apt-get -y -q -o DPkg::Lock::Timeout=300 -o Acquire::http::Timeout=30)
    export DEBIAN_FRONTEND=noninteractive
    # apt-utils is not needed here; its absence is all debconf would say.
    exec 2> >(grep -v '^debconf: delaying package configuration' >&2)
    "${apt[@]}" update > /dev/null
    # Rounds until the hold time is over, so that a detection cycle falls into one.
    local end=$((SECONDS + CORPUS_HOLD))
    while :; do
        "${apt[@]}" install --reinstall --no-install-recommends "${packages[@]}" > /dev/null
        # Only what this item installed goes again.
        [ ${#fresh[@]} -eq 0 ] || "${apt[@]}" purge "${fresh[@]}" > /dev/null
        [ $SECONDS -lt $end ] || break
    done
}

corpus_item upgrade-running "a busy service keeps running while an upgrade replaces its program file (as dpkg does: rename over it)"
item_upgrade-running() {
    local dir="$corpus_work/upgrade/sbin"
    mkdir -p "$dir"
    cp "$corpus_work/bin/prog" "$dir/corvane-corpus-worker"
    "$dir/corvane-corpus-worker" spin "$CORPUS_HOLD" &
    local worker=$!
    sleep 2
    cp "$corpus_work/bin/prog" "$dir/corvane-corpus-worker.dpkg-new"
    mv "$dir/corvane-corpus-worker.dpkg-new" "$dir/corvane-corpus-worker"
    wait "$worker"
}

# Writes a small C project to DIR: UNITS units of generated code (some work for the
# compiler) and a test driver that exercises them for the seconds it is given.
write_project() {
    local dir=$1 units=$2 u f
    mkdir -p "$dir"
    for ((u = 0; u < units; u++)); do
        {
            for ((f = 0; f < 300; f++)); do
                echo "static unsigned long h$f(unsigned long x) { return (x << $((f % 13 + 1))) ^ (x >> 7) ^ ${f}UL; }"
            done
            echo "unsigned long unit$u(unsigned long x) {"
            for ((f = 0; f < 300; f++)); do
                echo "    x = h$f(x * 6364136223846793005UL + $u);"
            done
            echo "    return x;"
            echo "}"
        } > "$dir/unit$u.c"
    done
    {
        echo '#include <stdio.h>'
        echo '#include <stdlib.h>'
        echo '#include <time.h>'
        for ((u = 0; u < units; u++)); do echo "unsigned long unit$u(unsigned long);"; done
        echo 'int main(int argc, char** argv) {'
        echo '    const time_t end = time(NULL) + (argc > 1 ? atoi(argv[1]) : 1);'
        echo '    unsigned long x = 1, rounds = 0;'
        echo '    while (time(NULL) < end) {'
        for ((u = 0; u < units; u++)); do echo "        x = unit$u(x);"; done
        echo '        ++rounds;'
        echo '    }'
        printf '%s\n' '    printf("%lu rounds, %lx\n", rounds, x);'
        echo '    return 0;'
        echo '}'
    } > "$dir/check.c"
}

corpus_item build "compiler build in /tmp: make -j2 of a generated C project, then its tests (busy) from the build tree"
item_build() {
    local dir="$corpus_tmp/build"
    write_project "$dir" 8
    local objects=() u
    for ((u = 0; u < 8; u++)); do objects+=("unit$u.o"); done
    cat > "$dir/Makefile" << EOF
CFLAGS = -O2
check: check.o ${objects[*]}
	\$(CC) -o \$@ \$^
EOF
    make -s -C "$dir" -j2
    (cd "$dir" && ./check "$CORPUS_HOLD" > /dev/null)
}

corpus_item libtool-check "libtool-style 'make check' in /tmp: tests run from .libs/lt-* (a hidden directory), busy"
item_libtool-check() {
    local dir="$corpus_tmp/libtool" u units=()
    write_project "$dir" 4
    mkdir -p "$dir/.libs"
    for ((u = 0; u < 4; u++)); do units+=("$dir/unit$u.c"); done
    gcc -O2 -shared -fPIC -o "$dir/.libs/libunits.so.0" "${units[@]}"
    ln -s libunits.so.0 "$dir/.libs/libunits.so"
    gcc -O2 -o "$dir/.libs/lt-check" "$dir/check.c" -L"$dir/.libs" -lunits
    # libtool's wrapper: a script beside the tests that runs the real program in .libs.
    cat > "$dir/check" << 'EOF'
#!/bin/sh
progdir=$(dirname "$0")/.libs
LD_LIBRARY_PATH="$progdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" exec "$progdir/lt-check" "$@"
EOF
    chmod +x "$dir/check"
    "$dir/check" "$CORPUS_HOLD" > /dev/null
}

corpus_item rebuild-running "edit-compile-run in /tmp: a program built there keeps running while it is rebuilt (its file replaced)"
item_rebuild-running() {
    local dir="$corpus_tmp/devserver"
    mkdir -p "$dir"
    printf '#include <stdlib.h>\n#include <unistd.h>\nint main(int c, char** v) { sleep(c > 1 ? (unsigned)atoi(v[1]) : 1u); return 0; }\n' \
        > "$dir/server.c"
    gcc -O2 -o "$dir/server" "$dir/server.c"
    "$dir/server" "$CORPUS_HOLD" &
    local server=$!
    sleep 2
    echo '/* edited */' >> "$dir/server.c"
    gcc -O2 -o "$dir/server" "$dir/server.c"
    wait "$server"
}

corpus_item cron "cron-like jobs by run-parts, three rounds: backup (tar | gzip), logrotate with compression, a file index"
item_cron() {
    local jobs="$corpus_work/cron.hourly" state="$corpus_work/cron-state"
    mkdir -p "$jobs" "$state/log"
    head -c 64M /dev/urandom | base64 > "$state/log/app.log"
    cat > "$state/logrotate.conf" << EOF
$state/log/app.log {
    rotate 2
    compress
    copytruncate
    missingok
}
EOF
    cat > "$jobs/backup" << EOF
#!/bin/sh
tar -C / -czf "$state/backup.tgz" etc usr/share/doc 2> /dev/null || true
EOF
    cat > "$jobs/logrotate" << EOF
#!/bin/sh
cat "$state/log/app.log.1" >> "$state/log/app.log" 2> /dev/null || true
/usr/sbin/logrotate -f -s "$state/logrotate.status" "$state/logrotate.conf"
EOF
    cat > "$jobs/index" << EOF
#!/bin/sh
find /usr /etc -xdev 2> /dev/null | sort > "$state/index.txt"
EOF
    chmod 755 "$jobs"/*
    local _
    for _ in 1 2 3; do
        run-parts "$jobs"
        sleep $((CORPUS_HOLD / 3))
    done
}

corpus_item login "login sessions: script (a pty) with su - nobody and su - root, login shells running commands"
item_login() {
    script -qec "su - nobody -s /bin/sh -c 'id; ls / > /dev/null; sleep $CORPUS_HOLD'" /dev/null > /dev/null 2>&1
    script -qec "su - root -c 'id; uptime; sleep 2'" /dev/null > /dev/null 2>&1
}

corpus_item pyenv "language runtime under a hidden home directory: a python in ~/.corvane-pyenv*/versions, idle and busy"
item_pyenv() {
    local python
    python=$(readlink -f /usr/bin/python3) || corpus_die "no /usr/bin/python3"
    local version=${python##*/python}
    local root
    root=$(corpus_mkdir "$HOME/.corvane-pyenv.XXXXXX")
    # The layout pyenv builds: the interpreter with its standard library beside it.
    mkdir -p "$root/versions/$version/bin" "$root/versions/$version/lib"
    cp "$python" "$root/versions/$version/bin/"
    ln -s "/usr/lib/python$version" "$root/versions/$version/lib/python$version"
    local py="$root/versions/$version/bin/python$version"
    "$py" -c "import time; time.sleep($CORPUS_HOLD)" &
    local idle=$!
    "$py" -c "
import hashlib, time
end = time.time() + $CORPUS_HOLD
data = b'x' * (1 << 20)
while time.time() < end:
    data = hashlib.sha256(data).digest() * (1 << 15)
"
    wait "$idle"
}

corpus_item container-memfd "container-runtime style: /bin/sleep copied into a memfd (runc_cloned:/proc/self/exe) and run from it"
item_container-memfd() {
    "$corpus_work/bin/prog" memfd "runc_cloned:/proc/self/exe" /bin/sleep sleep "$CORPUS_HOLD"
}

corpus_item bursts "short CPU bursts of ordinary tools: sha256sum of 1 GiB, gzip, xz, sort, a second apart"
item_bursts() {
    local data="$corpus_work/bursts"
    mkdir -p "$data"
    truncate -s 1G "$data/sparse"
    seq 1 3000000 > "$data/numbers"
    local end=$((SECONDS + CORPUS_HOLD))
    while [ $SECONDS -lt $end ]; do
        sha256sum "$data/sparse" > /dev/null
        sleep 1
        gzip -6 -c "$data/numbers" > /dev/null
        sleep 1
        xz -T1 -3 -c "$data/numbers" > /dev/null
        sleep 1
        sort -R "$data/numbers" > /dev/null
        sleep 1
    done
}

corpus_main "$@"
