#!/bin/sh
# A whole backup cycle on generated sample data:
#   1. updateshadow merges yesterday's shadow database with today's scan;
#   2. the work lists are cut into bunch files (the backup driver's job);
#   3. one execbunch per bunch runs a stand-in backup client, side by side,
#      with the shadow database locked per bunch, and marks each record;
#   4. a second updateshadow finds every record settled.
#
#   bench/sample_cycle.sh [QUENBY] [RECORDS] [DIR]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
quenby=${1:-$here/../build/release/quenby}
quenby=$(cd "$(dirname "$quenby")" && pwd)/$(basename "$quenby")
records=${2:-1000}
dir=${3:-${TMPDIR:-/tmp}/quenby-sample}
client=$here/../tests/e2e/fake_client.sh

mkdir -p "$dir"
cd "$dir"
rm -f shadow.new shadow.next changed expired unsupp hsm bunch.* list.* out.* next.*
python3 "$here/gen_data.py" --records "$records" --out . >/dev/null

states() { # the record flags of a shadow database, counted
    awk -F: 'NR > 5 { n[substr($8, length($8))]++ }
        END { split("0 NORMAL a METACH b BACKUP c CHANGE d DELETE e EXPIRE", s, " ")
              line = ""
              for (i = 1; i < 12; i += 2) if (s[i] in n) line = line sprintf("  %s %d", s[i+1], n[s[i]])
              print line }' "$1"
}

echo "Sample data in $dir:"
echo "  shadow.old  yesterday's shadow database, $(($(wc -l < shadow.old) - 5)) records"
echo "  scan.new    today's policy scan list, $(wc -l < scan.new) records"
echo

echo "1. quenby updateshadow shadow.old shadow.new scan.new changed expired unsupp hsm"
KESTREL_QBSC_INCR_SUPPORTED=1 "$quenby" updateshadow shadow.old shadow.new scan.new changed expired unsupp hsm \
    | sed 's/^/   /'
echo "   (::UPDATESHADOW::0::<changed>::<expired>::<unsupported>::)"
for list in changed hsm expired unsupp; do
    if [ -f "$list" ]; then
        printf '   %-8s %4d lines, e.g. %s\n' "$list" "$(wc -l < "$list")" \
            "$(head -n 1 "$list" | sed 's/^.*;[0-9]*!//' | cut -c1-60)..."
    else
        printf '   %-8s none (an unused list is removed)\n' "$list"
    fi
done
echo "   record states in shadow.new:$(states shadow.new)"
echo

echo "2. The work lists cut into bunches of 40 (keyword and offset before ' -- ', the path after it)"
python3 "$here/make_bunches.py" --mount /cluster/fs1 --size 40 --out bunch changed hsm expired > bunches
echo "   $(wc -l < bunches) bunch files, e.g. $(head -n 1 bunch.1 | cut -c1-50)... -- $(head -n 1 bunch.1 | sed 's/.* -- //')"
echo

echo "3. One execbunch per bunch, side by side, KESTREL_LOCK_SHADOW=1, a stand-in client"
for b in $(cat bunches); do
    n=${b#bunch.}
    KESTREL_LOCK_SHADOW=1 \
    KESTREL_EXPIRE_CMD="$client list.exp.$n" KESTREL_BACKUP_CMD="$client list.chg.$n" \
    KESTREL_UPDATE_CMD="$client list.upd.$n" \
        "$quenby" execbunch "$b" list.chg.$n list.exp.$n list.upd.$n shadow.new 40 > out.$n 2>&1 &
done
wait
for b in $(cat bunches); do
    n=${b#bunch.}
    printf '   %-9s %s\n' "$b" "$(grep -c . "$b") files: $(grep '^::EXECANDMONITOR' out.$n | tr '\n' ' ')$(grep -q 'lock denied' out.$n && echo '(waited for a lock)' || true)"
done
echo "   (::EXECANDMONITOR::<updated>::<failed>::<client status>:: per client run: expire, backup, update)"
echo "   record states in shadow.new:$(states shadow.new)"
echo

echo "4. quenby updateshadow shadow.new shadow.next scan.new next.changed next.expired next.unsupp next.hsm"
KESTREL_QBSC_INCR_SUPPORTED=1 "$quenby" updateshadow shadow.new shadow.next scan.new next.changed next.expired \
    next.unsupp next.hsm | sed 's/^/   /'
echo "   record states in shadow.next:$(states shadow.next)  (DELETE records dropped, nothing left to do)"
