#!/bin/sh
# A stand-in for the backup client: reports every path of its list file as sent. FAKE_LOG gets the list's
# name, FAKE_SLEEP delays the report, FAKE_AFTER names a file printed after it.
[ -n "${FAKE_LOG:-}" ] && echo "$1" >> "$FAKE_LOG"
[ -n "${FAKE_SLEEP:-}" ] && sleep "$FAKE_SLEEP"
sed 's/^"\(.*\)"$/\1/; s/.*/Normal File-->           1,024 & [Sent]/' "$1"
[ -z "${FAKE_AFTER:-}" ] || cat "$FAKE_AFTER"
