"""Whether captures are of one board, and which build each ran: the rule compare.sh and
report.py share.

Two captures are of one board when their capture-info models match; the build is named by the
fingerprint. A capture without a model (older captures have no capture-info) is placed by the
DDR banks its memory table lies in. The memory table itself never decides: on one board a new
no-map carve-out changes it, and that is exactly what a build-over-build review looks at.
"""
# The tool's two DDR banks.
BANKS = ((0x80000000, 0x100000000), (0x880000000, 0x1000000000))


def banks(memory):
    """The indexes of the banks a memory table ([start, end) ranges) reaches, or None."""
    if not memory:
        return None
    return tuple(i for i, (lo, hi) in enumerate(BANKS)
                 if any(a < hi and z > lo for a, z in memory))


def _bank_words(found):
    if found is None:
        return "no memory table"
    if not found:
        return "memory in no DDR bank"
    return "memory in bank%s %s" % ("s" if len(found) > 1 else "", " and ".join(
        "0x%x" % BANKS[i][0] for i in found))


def model(info):
    return (info or {}).get("model") or None


def build(info):
    """The build a capture ran, named by its fingerprint, or None."""
    return (info or {}).get("fingerprint") or None


def differ(info_a, memory_a, info_b, memory_b):
    """None when two captures are of one board (or nothing tells them apart), else the words
    that tell the two apart: both models, or where each one's memory lies."""
    ma, mb = model(info_a), model(info_b)
    if ma and mb:
        return None if ma == mb else "models %s and %s" % (ma, mb)
    ba, bb = banks(memory_a), banks(memory_b)
    if ba is None or bb is None or ba == bb:
        return None
    return "%s and %s" % (_bank_words(ba), _bank_words(bb))
