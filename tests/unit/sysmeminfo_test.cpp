// ION totals: a lenient reader that refuses only the overflow value.
#include <gtest/gtest.h>
#include <meminfo/sysmeminfo.h>

#include "temp_tree.h"

using android::meminfo::ReadIonHeapsSizeKb;
using android::meminfo::ReadIonPoolsSizeKb;

TEST(ReadIonSizeKb, Contents) {
    struct {
        const char* content;
        bool ok;
        uint64_t value;
    } cases[] = {
        {"2048\n", true, 2048},
        {"", true, 0},
        {"abc", true, 0},
        {"  77 kB", true, 77},
        {"99999999999999999999\n", false, UINT64_MAX},
        {"-1\n", false, UINT64_MAX},
    };
    for (const auto& c : cases) {
        TempTree t;
        t.Write("total_heaps_kb", c.content);
        LogCapture log;
        uint64_t value = 5;
        EXPECT_EQ(c.ok, ReadIonHeapsSizeKb(&value, t.Path("total_heaps_kb"))) << c.content;
        EXPECT_EQ(c.value, value) << c.content;
        if (!c.ok) {
            ASSERT_EQ(1u, log.messages().size());
            EXPECT_EQ(0u, log.messages()[0].find(
                              "Invalid file format: " + t.Path("total_heaps_kb") + ": "));
        }
    }
}

TEST(ReadIonSizeKb, MissingFile) {
    LogCapture log;
    uint64_t value = 5;
    EXPECT_FALSE(ReadIonPoolsSizeKb(&value, "/nonexistent/total_pools_kb"));
    EXPECT_EQ(5u, value);
    ASSERT_EQ(1u, log.messages().size());
    EXPECT_EQ("Can't open file: /nonexistent/total_pools_kb", log.messages()[0]);
}
