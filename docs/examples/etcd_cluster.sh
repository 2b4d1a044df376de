#!/bin/sh
# From one process to a cluster: a local etcd cluster of three members, a
# table created in it with corvida-pb, and processes that use it at once (the
# tool, and the guide's program store_etcd.cpp).
#
#   etcd_cluster.sh CORVIDA_PB SOURCE_DIR GUIDE_STORE_ETCD
#
# Runs in a scratch directory of its own, on loopback ports chosen free for
# the run (PORTS), and stops the members it started however it ends; fails on
# the first unexpected result. docs/guide.md quotes the regions between
# START and END.
set -eu
tool=$1
source_dir=$2
program=$3
work=$(mktemp -d)
data=
cleanup() {
    if [ -n "$data" ] && [ -f "$data/pids" ]; then
        kill $(cat "$data/pids") 2>/dev/null || true
        wait
    fi
    [ -z "$data" ] || rm -rf "$data"
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
mkdir "$work/bin"
ln -s "$tool" "$work/bin/corvida-pb"
PATH="$work/bin:$PATH"
cd "$work"
cp "$source_dir/docs/examples/guide.proto" .

fail() {
    echo "etcd_cluster.sh: $*" >&2
    [ -z "$data" ] || tail -n 5 "$data"/*.log >&2 || true
    exit 1
}

# True when no socket of this machine uses TCP port $1 (listening or not).
port_free() {
    hex=$(printf ':%04X ' "$1")
    ! cat /proc/net/tcp /proc/net/tcp6 2>/dev/null | grep -q "$hex"
}

# Six free ports below the range the kernel hands out to outgoing
# connections, so that none is taken by a client between now and the start.
PORTS=
while [ "$(echo $PORTS | wc -w)" -lt 6 ]; do
    port=$(($(od -An -N2 -tu2 /dev/urandom) % 12000 + 20000))
    case " $PORTS " in *" $port "*) continue ;; esac
    if port_free "$port"; then PORTS="$PORTS $port"; fi
done
export PORTS

# [START start-cluster]
# The client and peer port of each member (any free ones; PORTS picks others).
set -- ${PORTS:-2379 2380 22379 22380 32379 32380}
data=$(mktemp -d /tmp/corvida-etcd.XXXXXX)    # the members' data directories and logs
peers=m1=http://127.0.0.1:$2,m2=http://127.0.0.1:$4,m3=http://127.0.0.1:$6
endpoints=127.0.0.1:$1,127.0.0.1:$3,127.0.0.1:$5
member() {  # NAME CLIENT_PORT PEER_PORT
    etcd --name "$1" --data-dir "$data/$1" \
        --listen-client-urls "http://127.0.0.1:$2" --advertise-client-urls "http://127.0.0.1:$2" \
        --listen-peer-urls "http://127.0.0.1:$3" --initial-advertise-peer-urls "http://127.0.0.1:$3" \
        --initial-cluster "$peers" --initial-cluster-state new >"$data/$1.log" 2>&1 &
    echo $! >>"$data/pids"
}
member m1 "$1" "$2"
member m2 "$3" "$4"
member m3 "$5" "$6"
# Ready once they have elected a leader: a second or two.
for try in $(seq 50); do
    etcdctl --endpoints "$endpoints" endpoint health >/dev/null 2>&1 && break
    sleep 0.2
done
# [END start-cluster]
etcdctl --endpoints "$endpoints" endpoint health >/dev/null 2>&1 || fail "the cluster did not come up"

# [START create]
db="etcd://$endpoints/game"    # the namespace "game" of the cluster
corvida-pb store create --db "$db" --proto guide.proto --table Account
# created table bank.Account in etcd://127.0.0.1:2379,127.0.0.1:22379,127.0.0.1:32379/game: schema blob ...
# [END create]
corvida-pb store create --db "$db" --proto guide.proto --table Account >created.txt 2>&1 && fail "a second create succeeded"
grep -q "already" created.txt || fail "a second create did not say the table exists: $(cat created.txt)"

# [START two-writers]
# Two processes write at once: no lock to wait for, each write one transaction.
corvida-pb store put --db "$db" --proto guide.proto --table Account \
    --text 'region: 3 account_id: 300 email: "ann@ex.com" balance: 990' >ann.txt &
ann=$!
corvida-pb store put --db "$db" --proto guide.proto --table Account \
    --text 'region: 3 account_id: 301 email: "bob@ex.com" balance: 990' >bob.txt &
bob=$!
wait "$ann" && wait "$bob"
cat ann.txt bob.txt
# put: 1 record of bank.Account
# put: 1 record of bank.Account

# Any other process, here or on another machine, reads what they wrote.
corvida-pb store find --db "$db" --proto guide.proto --table Account --index by_balance \
    --text 'region: 3 balance: 990' --format json
# {"region":3,"accountId":"300","email":"ann@ex.com","balance":"990"}
# {"region":3,"accountId":"301","email":"bob@ex.com","balance":"990"}
# [END two-writers]
[ "$(cat ann.txt bob.txt)" = "put: 1 record of bank.Account
put: 1 record of bank.Account" ] || fail "the writers printed: $(cat ann.txt bob.txt)"
found=$(corvida-pb store find --db "$db" --proto guide.proto --table Account --index by_balance \
    --text 'region: 3 balance: 990' --format json)
[ "$found" = '{"region":3,"accountId":"300","email":"ann@ex.com","balance":"990"}
{"region":3,"accountId":"301","email":"bob@ex.com","balance":"990"}' ] || fail "find printed: $found"

# The library, in another process: docs/examples/store_etcd.cpp.
"$program" "$db" || fail "guide_store_etcd failed"
[ "$(corvida-pb store get --db "$db" --proto guide.proto --table Account --paths balance \
    --text 'region: 3 account_id: 300')" = 'region: 3
account_id: 300
balance: 1250' ] || fail "the program's update is not seen by the tool"

# [START namespace]
# The store's keys all begin with "game/": its layout version, for one.
etcdctl --endpoints "$endpoints" get game/Mlayout
# game/Mlayout
# 2
# [END namespace]
[ "$(etcdctl --endpoints "$endpoints" get game/Mlayout)" = "game/Mlayout
2" ] || fail "the layout key is not under the namespace"

# [START stop-cluster]
kill $(cat "$data/pids") && wait    # stops the members
rm -rf "$data"                      # and forgets everything they held
# [END stop-cluster]

# A cluster that cannot answer is an error within --timeout, not a hang.
if corvida-pb store get --db "$db" --proto guide.proto --table Account --timeout 2 \
    --text 'region: 3 account_id: 300' >down.txt 2>&1; then
    fail "a get succeeded with every member stopped"
fi
grep -q "no member of the cluster is reachable" down.txt || fail "the get without members said: $(cat down.txt)"
echo "etcd_cluster.sh: ok"
