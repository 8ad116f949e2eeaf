#!/bin/sh
# A whole backup cycle on generated sample data:
#   1. updateshadow merges yesterday's shadow database with today's scan;
#   2. the work lists are cut into bunch files (the backup driver's job);
#   3. one execbunch per bunch runs a stand-in backup client, side by side,
#      with the shadow database locked per bunch, and marks each record;
#   4. a second updateshadow finds every record settled.
# At the end, a table of the record states by step, reconciled with what
# the data generator changed (bench/cycle_report.py makes the tables).
#
#   bench/sample_cycle.sh [QUENBY] [RECORDS] [DIR]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
quenby=${1:-$here/../build/release/quenby}
quenby=$(cd "$(dirname "$quenby")" && pwd)/$(basename "$quenby")
records=${2:-1000}
dir=${3:-${TMPDIR:-/tmp}/quenby-sample}
client=$here/../tests/e2e/fake_client.sh
report="python3 $here/cycle_report.py"

mkdir -p "$dir"
cd "$dir"
rm -f shadow.new shadow.next changed expired unsupp hsm bunch.* list.* out.* next.* states.tsv gen.txt
python3 "$here/gen_data.py" --records "$records" --out . > gen.txt

echo "Sample data in $dir (bench/gen_data.py):"
echo "  shadow.old  yesterday's shadow database, $(($(wc -l < shadow.old) - 5)) records"
echo "  scan.new    today's policy scan list, $(wc -l < scan.new) records"
$report count "shadow.old" shadow.old
echo

echo "1. quenby updateshadow shadow.old shadow.new scan.new changed expired unsupp hsm"
result=$(KESTREL_QBSC_INCR_SUPPORTED=1 "$quenby" updateshadow shadow.old shadow.new scan.new changed expired \
    unsupp hsm)
echo "   $result   (::UPDATESHADOW::0::<changed>::<expired>::<unsupported>::)"
$report worklists "$result"
$report count "1. after updateshadow" shadow.new
echo

echo "2. The work lists cut into bunches of 40 (keyword and offset before ' -- ', the path after it)"
python3 "$here/make_bunches.py" --mount /cluster/fs1 --size 40 --out bunch changed hsm expired > bunches
echo "   $(wc -l < bunches) bunch files; the first line of bunch.1, whole:"
echo "     $(head -n 1 bunch.1)"
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
$report bunches bunches
$report count "3. after execbunch" shadow.new
echo

echo "4. quenby updateshadow shadow.new shadow.next scan.new next.changed next.expired next.unsupp next.hsm"
KESTREL_QBSC_INCR_SUPPORTED=1 "$quenby" updateshadow shadow.new shadow.next scan.new next.changed next.expired \
    next.unsupp next.hsm | sed 's/^/   /'
$report count "4. shadow.next" shadow.next
echo

echo "Record states by step"
$report states
