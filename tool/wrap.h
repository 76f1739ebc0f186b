/* Sums of kernel counters in KB. */
#pragma once

#include <stdint.h>

/* A counter file can hold any 64-bit value, and a few near 2^63 make a signed sum overflow,
 * which is undefined. The sums are taken modulo 2^64, as unsigned counters wrap, and the
 * result is the signed number its bits make: a nonsense figure from nonsense input, never
 * undefined behaviour. */
static inline long kb_add(long a, long b)
{
    return static_cast<long>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

static inline long kb_sub(long a, long b)
{
    return static_cast<long>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}
