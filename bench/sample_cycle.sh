#!/bin/sh
# One updateshadow cycle on generated sample data: the previous shadow
# database and today's scan list go in; the next shadow database, the result
# line and the work lists come out.
#
#   bench/sample_cycle.sh [QUENBY] [RECORDS] [DIR]
set -eu

here=$(cd "$(dirname "$0")" && pwd)
quenby=${1:-$here/../build/release/quenby}
records=${2:-1000}
dir=${3:-${TMPDIR:-/tmp}/quenby-sample}

mkdir -p "$dir"
rm -f "$dir"/shadow.new "$dir"/changed "$dir"/expired "$dir"/unsupp "$dir"/hsm
python3 "$here/gen_data.py" --records "$records" --out "$dir" >/dev/null

echo "== sample data in $dir"
echo "   shadow.old: previous shadow database, $(wc -l < "$dir/shadow.old") lines (5 header lines)"
echo "   scan.new:   today's policy scan list, $(wc -l < "$dir/scan.new") records"
echo
echo "== quenby updateshadow shadow.old shadow.new scan.new changed expired unsupp hsm"
cd "$dir"
KESTREL_QBSC_INCR_SUPPORTED=1 "$quenby" updateshadow shadow.old shadow.new scan.new changed expired unsupp hsm
echo "   (result line: ::UPDATESHADOW::0::<changed>::<expired>::<unsupported>::)"
echo
for list in changed hsm expired unsupp; do
    if [ -f "$list" ]; then
        echo "== $list list: $(wc -l < "$list") lines; the first three:"
        head -n 3 "$list" | sed 's/^/   /'
    else
        echo "== $list list: none written (an unused list is removed)"
    fi
    echo
done
echo "== record states in shadow.new (flag: count)"
awk -F: 'NR > 5 { n[substr($8, length($8))]++ }
         END { split("0 NORMAL a METACH b BACKUP c CHANGE e EXPIRE", names, " ");
               for (i = 1; i < 10; i += 2) if (names[i] in n) printf "   %s %-7s %d\n", names[i], names[i+1], n[names[i]] }' shadow.new
