#!/bin/sh
# A stand-in for the backup client: reads the list file it is given and
# reports every path in it, as the real client does.
#
#   fake_client.sh LISTFILE
#
# FAKE_MODE    how each file is reported: sent (default), unchanged,
#              unsuccessful, ans1228 (failed), ans1345 (expired already),
#              noend (no end pattern), silent (nothing)
# FAKE_BEFORE  a file whose lines are printed first (ANS messages, ...)
# FAKE_AFTER   a file whose lines are printed last (a summary block, ...)
# FAKE_LOG     a file that gets one line per run: the list's name
# FAKE_SLEEP   seconds to wait before reporting
# FAKE_EXIT    the exit code (default 0)
list=$1
[ -n "${FAKE_LOG:-}" ] && echo "$list" >> "$FAKE_LOG"
[ -n "${FAKE_SLEEP:-}" ] && sleep "$FAKE_SLEEP"
[ -n "${FAKE_BEFORE:-}" ] && cat "$FAKE_BEFORE"
awk -v mode="${FAKE_MODE:-sent}" '
{
    p = $0
    if (p ~ /^".*"$/) p = substr(p, 2, length(p) - 2)
    if (mode == "sent")              printf "Normal File-->           1,024 %s [Sent]\n", p
    else if (mode == "unchanged")    printf "Normal File-->           1,024 %s [Unchanged]\n", p
    else if (mode == "unsuccessful") printf "Normal File-->           1,024 %s  ** Unsuccessful **\n", p
    else if (mode == "ans1228")      printf "ANS1228E Sending of object %c%s%c failed.\n", 39, p, 39
    else if (mode == "ans1345")      printf "ANS1345E No objects on server match %c%s%c\n", 39, p, 39
    else if (mode == "noend")        printf "Normal File-->           1,024 %s\n", p
}' "$list"
[ -n "${FAKE_AFTER:-}" ] && cat "$FAKE_AFTER"
exit "${FAKE_EXIT:-0}"
