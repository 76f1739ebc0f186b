#!/usr/bin/env bash
# Compares two captures of one device (capture/capture.sh), taken before and after a use case:
#   snapshot/compare.sh [--drop-unsafe] BEFORE.tar.gz AFTER.tar.gz BINARY
# Replays -u, -n and -s on each (replay.sh, with its checks and bounds) and prints what changed,
# one fact per line, each line starting with the report it comes from:
#   dmabuf INODE became unmapped: SIZE bytes, EXPORTER, held by OWNERS
#   dmabuf INODE no longer unmapped: SIZE bytes, EXPORTER, was held by OWNERS
#   dmabuf INODE holders changed: OWNERS -> OWNERS
#   dmabuf unmapped total: N KB -> N KB (+N KB)
#   kmem COUNTER: N KB -> N KB (+N KB)           every counter of -n, changed or not
#   reserved FIGURE: N KB -> N KB (+N KB)        every figure of the -s summary
#   reserved region [KIND] NAME CHANGE: ...      each region of -s that changed (added, removed,
#   reserved figure [KIND] NAME CHANGE: ...      resized, moved, moved and resized), matched by
#                                                kind and name ("#N" when a name repeats)
#   reserved memory table CHANGE: RANGES (+N KB) each change of /d/memblock/memory
# Differences are exact, however large the figures. A report that gives no figures for a
# capture is named once with the reason ("dmabuf: no figures after: no DMA-BUF sysfs
# statistics"), its figures read "none", and no buffer is said to have changed. Captures that
# carry their metadata (capture-info) add their device, kernel and time to the header, and both
# builds when one board (one model) runs two; two devices, or two kernels on one build, are
# warned about on standard error, a reboot between them is noted.
# Process and exporter names are shown with control characters as \xHH (C1 controls and the
# bidirectional overrides as \uHHHH), so each fact stays one line and no name reaches the
# terminal as an escape sequence or reorders it.
# Exit status 0 when both captures could be replayed; 2 when the binary cannot run here, a
# capture cannot be read or a report of it is malformed (a number no device prints);
# otherwise the status of the replay that failed (3 refused, 4 truncated, 5 a report past the
# output bound, 124 out of time). Each failure is one line naming the capture and the cause:
#   compare: cannot replay CAPTURE (status N): CAUSE
exec /usr/bin/python3 "$(dirname "$0")/compare.py" "$@"
