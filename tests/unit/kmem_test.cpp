// /proc/meminfo lines of the kernel total and the first column of the module table.
#include "kmem.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

namespace {

TEST(ParseMeminfoLine, CountedKeysOnly) {
    char key[MEMINFO_FIELD_BUF];
    long kb = -1;
    EXPECT_EQ(0, parse_meminfo_line("Shmem:              2436 kB\n", key, &kb));
    EXPECT_STREQ("Shmem", key);
    EXPECT_EQ(2436, kb);
    EXPECT_EQ(4, parse_meminfo_line("KernelStack:         544 kB\n", key, &kb));
    EXPECT_EQ(544, kb);
    const char* not_counted[] = {"ShmemHugePages:        0 kB\n",
                                 "ShmemPmdMapped:        0 kB\n",
                                 "  Shmem:  5 kB\n",
                                 "shmem:  5 kB\n",
                                 "SReclaimable:  392 kB\n",
                                 "VmallocTotal:   259653632 kB\n",
                                 ""};
    for (const char* line : not_counted)
        EXPECT_EQ(MEMINFO_NOT_COUNTED, parse_meminfo_line(line, key, &kb)) << line;
    // No " kB", or a number text that does not fit its 40-byte field: malformed, not 0.
    EXPECT_EQ(MEMINFO_MALFORMED, parse_meminfo_line("Shmem:   2436\n", key, &kb));
    EXPECT_EQ(MEMINFO_MALFORMED,
              parse_meminfo_line("PageTables: 123456789012345678901234567890123456789012 kB\n", key,
                                 &kb));
    // The field is the text from the colon through the blank before "kB": 39 characters fit.
    const std::string digits(37, '7');
    EXPECT_EQ(2, parse_meminfo_line(("PageTables: " + digits + " kB\n").c_str(), key, &kb));
    EXPECT_EQ(MEMINFO_MALFORMED,
              parse_meminfo_line(("PageTables: 7" + digits + " kB\n").c_str(), key, &kb));
    // No blank after the colon is still a number.
    EXPECT_EQ(0, parse_meminfo_line("Shmem:2436 kB\n", key, &kb));
    EXPECT_EQ(2436, kb);
}

// The real files give each counted key once, with the number the file shows.
TEST(ParseMeminfoLine, RealFiles) {
    for (const char* file : {"meminfo/android12-phone-d-k4.9-ion-heap.txt",
                             "meminfo/android-perfetto-2018-vmallocused-zero.txt",
                             "lab-arm64-6.1/alloc-meminfo.txt"}) {
        std::ifstream in(std::string(QUARRY_REALDATA_DIR) + "/" + file);
        std::map<std::string, long> seen;
        std::string line;
        while (std::getline(in, line)) {
            char key[MEMINFO_FIELD_BUF];
            long kb;
            line += "\n";
            int index = parse_meminfo_line(line.c_str(), key, &kb);
            ASSERT_NE(MEMINFO_MALFORMED, index) << file << ": " << line;
            if (index >= 0) {
                EXPECT_EQ(std::stol(line.substr(line.find(':') + 1)), kb) << line;
                EXPECT_TRUE(seen.emplace(key, kb).second) << key;
            }
        }
        EXPECT_EQ(5u, seen.size()) << file;
    }
}

TEST(KmoduleFirstColumn, Columns) {
    char column[KMODULE_COLUMN_BUF];
    ASSERT_TRUE(kmodule_first_column("debug_ext            |       84 |\n", column));
    EXPECT_STREQ("debug_ext            \n", column);
    ASSERT_TRUE(kmodule_first_column("|x\n", column));
    EXPECT_STREQ("\n", column);
    EXPECT_FALSE(kmodule_first_column("no columns\n", column));
    std::string fits(62, 'm'), too_long(63, 'm');
    ASSERT_TRUE(kmodule_first_column((fits + "|1\n").c_str(), column));
    EXPECT_EQ(fits + "\n", column);
    EXPECT_FALSE(kmodule_first_column((too_long + "|1\n").c_str(), column));
}

}  // namespace
