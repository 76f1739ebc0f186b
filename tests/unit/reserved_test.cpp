// Line parsers and accounting of the reserved-memory side: region lines, size fields,
// memblock tables (both kernel formats), /proc/iomem, the bp hole and the address lookup.
#include "reserved.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> ReadLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    return lines;
}

std::string Realdata(const std::string& rel) {
    return std::string(QUARRY_REALDATA_DIR) + "/" + rel;
}

TEST(ParseRegionLine, AcceptedLines) {
    struct Case {
        const char* line;
        const char* name;
        const char* type;
        uint64_t addr;
        uint64_t size;
    } cases[] = {
        {"[fdt_no-map] modem_region: addr 0x8b800000, size 112640 KB\n", "modem_region",
         "fdt_no-map", 0x8b800000, 115343360},
        {"[t] x: addr 0x1000, size 0 KB\n", "x", "t", 0x1000, 0},
        // No blank after ']': one character of the name is lost, as on the device.
        {"[t]xyz: addr 0x1000, size 4 KB\n", "yz", "t", 0x1000, 4096},
        // Nine-digit addresses of the second DDR bank, names with ',' and '@'.
        {"[fdt_reserved_cma] camera_cma@8a0000000: addr 0x8a0000000, size 16384 KB\n",
         "camera_cma@8a0000000", "fdt_reserved_cma", 0x8a0000000, 16777216},
        // The first "size" is the one read, even when another follows.
        {"[t] r: addr 0x2000, size 8 KB, size 16 KB\n", "r", "t", 0x2000, 8192},
    };
    for (const Case& c : cases) {
        reserved_region r;
        ASSERT_EQ(0, parse_region_line(c.line, &r)) << c.line;
        EXPECT_STREQ(c.name, r.name) << c.line;
        EXPECT_STREQ(c.type, r.type) << c.line;
        EXPECT_EQ(c.addr, r.addr) << c.line;
        EXPECT_EQ(c.size, r.size) << c.line;
        EXPECT_EQ(0u, r.hole_flag);
    }
}

TEST(ParseRegionLine, SkippedLines) {
    const char* lines[] = {
        "fdt_no-map total: size 307200 KB\n",         // a total: no "addr"
        "=============== Summary ===============\n",  // heading
        "[t] x: addr 0x1000 size 4 KB\n",             // no ", size"
        "[t] x: addr 0x1000, size 4 kB\n",            // no "KB"
        "[t] x addr 0x1000, size 4 KB\n",             // no ':'
        "t] x: addr 0x1000, size 4 KB\n",             // no '['
        "[t]: addr 0x1000, size 4 KB\n",              // ':' right after ']'
        "x] y [t: addr 0x1000, size 4 KB\n",          // '[' after ']'
        "[t] x: addr 0x1000,size 4 KB\n",             // ", size" missing
        "[t] x: addr 0x1000, size KB\n",              // "KB" too close to "size"
        // Overlong fields are never cut short: the line is skipped.
        ("[t] a234567890123456789012345678901234567890123456789012345678901234: addr 0x1, "
         "size 4 KB\n"),
        "[a2345678901234567890] x: addr 0x1000, size 4 KB\n",
        "[t] x: addr 0x00000000000000001000, size 4 KB\n",
        "[t] x: addr 0x1000, size 0000000000000000004 KB\n",
        "",
    };
    for (const char* line : lines) {
        reserved_region r;
        EXPECT_NE(0, parse_region_line(line, &r)) << line;
    }
    // Fields of exactly the buffer widths still fit.
    reserved_region r;
    EXPECT_EQ(0,
              parse_region_line("[a234567890123456789] "
                                "a23456789012345678901234567890123456789012345678901234567890123: "
                                "addr 0x0000000001000, size 000000000000004 KB\n",
                                &r));
    EXPECT_EQ(63u, strlen(r.name));
    EXPECT_EQ(19u, strlen(r.type));
    EXPECT_EQ(0x1000u, r.addr);
    EXPECT_EQ(4096u, r.size);
}

TEST(ParseMemblockLine, ClassicAndNodeFlagsFormats) {
    struct Case {
        const char* line;
        uint64_t start, end;
    } cases[] = {
        {"   2: 0x0000000080000000..0x00000000809fffff\n", 0x80000000, 0x809fffff},
        {"   0: 0x0000000080000000..0x00000000bfffffff    0 NONE\n", 0x80000000, 0xbfffffff},
        {"   1: 0x0000000090200000..0x00000000905fffff    0 NOMAP\n", 0x90200000, 0x905fffff},
        {"  15: 0x0000000880000000..0x0000000affffffff    0 NONE\n", 0x880000000, 0xaffffffff},
        {"   0: 0x10000000..0x8fffffff\n", 0x10000000, 0x8fffffff},  // 32-bit phys_addr_t
        {"   8: 0x00000008bffb97c0..0x00000008bffb9bc7\n", 0x8bffb97c0, 0x8bffb9bc7},
        // The end is read as strtol reads it: blanks before it are skipped...
        {"   3: 0x0000000080002000.. 0x0000000080002fff\n", 0x80002000, 0x80002fff},
        {"   3: 0x0000000080002000..\t 0x0000000080002fff    0 NONE\n", 0x80002000, 0x80002fff},
        // ...and numbers beyond the signed range saturate at its ends.
        {"   4: 0xffffffffffffffff..0x8000000000000000\n", 0x7fffffffffffffff, 0x7fffffffffffffff},
        {"   4: 0x7ffffffffffffffe..-0x8000000000000001\n", 0x7ffffffffffffffe, 0x8000000000000000},
        {"   5: 0x1000..\n", 0x1000, 0},  // no digits: 0
        // The widest number texts that fit their 20-byte field: 19 characters.
        {"   6: 0x00000000080000000..0x00000000080000fff\n", 0x80000000, 0x80000fff},
    };
    for (const Case& c : cases) {
        uint64_t start = 0, end = 0;
        ASSERT_EQ(0, parse_memblock_line(c.line, &start, &end)) << c.line;
        EXPECT_EQ(c.start, start) << c.line;
        EXPECT_EQ(c.end, end) << c.line;
    }
    const char* skipped[] = {
        "   2: 0x0000000080000000..0x00000000809fffff",   // last line without newline
        "   2: 0x0000000080000000-0x00000000809fffff\n",  // no ".."
        "   2 0x0000000080000000..0x00000000809fffff\n",  // no ':'
        "   2:..0x00000000809fffff\n",                    // ".." right after ':'
        "   2: 0x000000000000000080000000..0x1\n",        // start text too long
        "   2: 0x1..0x00000000000000000000809fffff\n",    // end text too long
        "   6: 0x000000000080000000..0x1\n",              // 20 characters: one too many
        "   6: 0x1..0x000000000080000fff\n",
    };
    for (const char* line : skipped) {
        uint64_t start, end;
        EXPECT_NE(0, parse_memblock_line(line, &start, &end)) << line;
    }
}

// Every range of the real tables loads, and a table printed in both kernel formats gives the
// same ranges: the node/flags columns of newer kernels must not be lost or misread.
TEST(ParseMemblockLine, RealTablesBothFormatsAgree) {
    auto plain = ReadLines(Realdata("memblock/arm64-2bank-memory-plain.txt"));
    auto flags = ReadLines(Realdata("memblock/arm64-2bank-memory-nid-flags.txt"));
    ASSERT_EQ(16u, plain.size());
    ASSERT_EQ(plain.size(), flags.size());
    for (size_t i = 0; i < plain.size(); i++) {
        uint64_t s1, e1, s2, e2;
        ASSERT_EQ(0, parse_memblock_line(plain[i].c_str(), &s1, &e1)) << plain[i];
        ASSERT_EQ(0, parse_memblock_line(flags[i].c_str(), &s2, &e2)) << flags[i];
        EXPECT_EQ(s1, s2);
        EXPECT_EQ(e1, e2);
        EXPECT_LT(s1, e1);
    }
    for (const char* file :
         {"memblock/vm-ubuntu2404-reserved-nid-flags.txt",
          "memblock/arm32-imx6q-reserved-8digit.txt",
          "memblock/arm64-phone-e-reserved-unaligned.txt", "lab-arm64-6.1/memblock-reserved.txt",
          "lab-arm64-6.1/memblock-memory.txt"}) {
        for (const std::string& line : ReadLines(Realdata(file))) {
            uint64_t s, e;
            EXPECT_EQ(0, parse_memblock_line(line.c_str(), &s, &e)) << file << ": " << line;
            EXPECT_LE(s, e) << line;
        }
    }
}

TEST(ParseIomemLine, KernelRanges) {
    struct Case {
        const char* line;
        uint64_t start, end;
    } cases[] = {
        {"  80080000-8126ffff : Kernel code\n", 0x80080000, 0x8126ffff},
        {"  80590000-8067ffff : Kernel data\n", 0x80590000, 0x8067ffff},
        {"    8a0000000-8a0ffffff : Kernel data\n", 0x8a0000000, 0x8a0ffffff},  // deeper nesting
        {"  80080000-8007ffff : Kernel code\n", 0x80080000, 0x8007ffff},  // empty: end = start - 1
        {"  8126ffff-80080000 : Kernel code\n", 0x8126ffff, 0x80080000},  // end before start
        {"  80080000-80080000 : Kernel code\n", 0x80080000, 0x80080000},  // one byte
        {"  0-fffffffffffffff : Kernel code\n", 0, 0xfffffffffffffff},     // widest end that fits
    };
    for (const Case& c : cases) {
        uint64_t start, end;
        ASSERT_EQ(0, parse_iomem_line(c.line, &start, &end)) << c.line;
        EXPECT_EQ(c.start, start);
        EXPECT_EQ(c.end, end);
    }
    const char* bad[] = {
        "80080000-8126ffff : Kernel code\n",                  // not indented: no start text
        "  80080000 8126ffff : Kernel code\n",                // no '-'
        "  80080000-8126ffff Kernel code\n",                  // no ':'
        "  0000000000000080080000-8126ffff : Kernel code\n",  // start over 15 characters
    };
    for (const char* line : bad) {
        uint64_t start, end;
        EXPECT_NE(0, parse_iomem_line(line, &start, &end)) << line;
    }
    // Every Kernel code / Kernel data line of the real captures parses.
    for (const char* file :
         {"iomem/arm64-phone-e-initrd-excerpt.txt", "iomem/arm64-phytium-e2000q-full.txt",
          "iomem/arm64-renesas-rzg2m-full.txt", "iomem/arm64-zynqmp-ultra96-jailhouse-cell.txt",
          "lab-arm64-6.1/iomem.txt"}) {
        for (const std::string& line : ReadLines(Realdata(file))) {
            if (line.find("Kernel ") == std::string::npos) continue;
            uint64_t start, end;
            EXPECT_EQ(0, parse_iomem_line(line.c_str(), &start, &end)) << file << ": " << line;
        }
    }
}

TEST(ParseSizeKb, TotalLines) {
    long kb = -1;
    EXPECT_EQ(0, parse_size_kb("fdt_no-map total: size 307200 KB\n", &kb));
    EXPECT_EQ(307200, kb);
    EXPECT_EQ(0, parse_size_kb("ReservedMemoryTotal: size 0 KB\n", &kb));
    EXPECT_EQ(0, kb);
    EXPECT_NE(0, parse_size_kb("fdt_no-map total: 307200 KB\n", &kb));
    EXPECT_NE(0, parse_size_kb("fdt_no-map total: size 307200\n", &kb));
    EXPECT_NE(0, parse_size_kb("total: size 12345678901234567 KB\n", &kb));
    // The number's field holds 15 characters: one more and the line has no size.
    EXPECT_EQ(0, parse_size_kb("total: size 123456789012345 KB\n", &kb));
    EXPECT_EQ(123456789012345, kb);
    EXPECT_NE(0, parse_size_kb("total: size 1234567890123456 KB\n", &kb));
}

// Lists built by hand for the accounting that walks them.
class RegionLists : public ::testing::Test {
  protected:
    void TearDown() override { release_region_lists(); }

    static void AddMemory(uint64_t start, uint64_t end) {
        AddEntry(&memblock_memory_list, start, end);
    }
    static reserved_region* AddRegion(const char* type, const char* name, uint64_t addr,
                                      uint64_t size) {
        auto* r = static_cast<reserved_region*>(calloc(1, sizeof(reserved_region)));
        snprintf(r->type, sizeof(r->type), "%s", type);
        snprintf(r->name, sizeof(r->name), "%s", name);
        r->addr = addr;
        r->size = size;
        r->hole_flag = 99;
        list_add_tail(&r->list, &reserved_list);
        return r;
    }
    static std::string Lookup(unsigned long addr) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, check_physical_addr(addr));
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

  private:
    static void AddEntry(list_head* head, uint64_t start, uint64_t end) {
        auto* e = static_cast<memblock_entry*>(calloc(1, sizeof(memblock_entry)));
        e->base = start;
        e->size = end - start;
        list_add_tail(&e->list, head);
    }
};

TEST_F(RegionLists, BpHoleWorkedExample) {
    AddMemory(0x80000000, 0x85000000);
    AddMemory(0x86000000, 0x100000000);
    AddMemory(0x880000000, 0x900000000);
    auto* outside = AddRegion("fdt_no-map", "a", 0x85000000, 0x800000);
    auto* across = AddRegion("fdt_no-map", "b", 0x85c00000, 0x800000);
    auto* inside = AddRegion("fdt_no-map", "c", 0x90000000, 0x100000);
    auto* plain = AddRegion("fdt_reserved", "d", 0x85000000, 0x100000);  // not no-map: ignored
    unsigned long memhole = 0, inhole = 0;
    EXPECT_EQ(4096, cal_bp_hole_size(&memhole, &inhole));
    EXPECT_EQ(16384u, memhole);
    EXPECT_EQ(12288u, inhole);
    EXPECT_EQ(0u, outside->hole_flag);
    EXPECT_EQ(1u, across->hole_flag);
    EXPECT_EQ(2u, inside->hole_flag);
    EXPECT_EQ(99u, plain->hole_flag);
}

TEST_F(RegionLists, BpHoleFirstTestWinsAndTypeIsSubstring) {
    AddMemory(0x80000000, 0x81000000);
    AddMemory(0x82000000, 0x83000000);
    // Starts below the second range and ends beyond it: only the part below counts.
    AddRegion("fdt_no-map_xyz", "wide", 0x81800000, 0x2000000);
    // Runs past the end of the first range into the second: the part past the end counts.
    AddRegion("fdt_no-map", "over", 0x80800000, 0x2000000);
    unsigned long memhole, inhole;
    long bp = cal_bp_hole_size(&memhole, &inhole);
    EXPECT_EQ(16384u, memhole);
    EXPECT_EQ(8192u + 24576u, inhole);
    EXPECT_EQ(static_cast<long>(memhole) - static_cast<long>(inhole), bp);
}

TEST_F(RegionLists, BpHoleIsSignedWhenNoMapExceedsHoles) {
    // Empty memory table: every no-map region lies wholly in a hole that is not counted.
    AddRegion("fdt_no-map", "a", 0x80000000, 0x800000);
    unsigned long memhole, inhole;
    EXPECT_EQ(-8192, cal_bp_hole_size(&memhole, &inhole));
    EXPECT_EQ(0u, memhole);
    EXPECT_EQ(8192u, inhole);

    // Rounding of separately shifted totals: memhole = bp + inhole still holds exactly.
    release_region_lists();
    AddMemory(0x80000000, 0x80001000);
    AddMemory(0x80001600, 0x80002000);                    // a 1536-byte hole
    AddRegion("fdt_no-map", "front", 0x7ffff400, 0xc00);  // 3072 bytes in front of memory
    long bp = cal_bp_hole_size(&memhole, &inhole);
    EXPECT_EQ(1u, memhole);
    EXPECT_EQ(3u, inhole);
    EXPECT_EQ(-2, bp);
}

TEST_F(RegionLists, AddressLookupDdrBoundaries) {
    for (unsigned long addr :
         {0x0UL, 0x7fffffffUL, 0x100000000UL, 0x87fffffffUL, 0x1000000000UL, ~0UL}) {
        char want[64];
        snprintf(want, sizeof(want), "0x%lx is not a ddr physical address\n", addr);
        EXPECT_EQ(want, Lookup(addr));
    }
    // Empty memory list: every DDR address outside the named regions is in the bp hole.
    for (unsigned long addr : {0x80000000UL, 0xffffffffUL, 0x880000000UL, 0xfffffffffUL}) {
        char want[64];
        snprintf(want, sizeof(want), "0x%lx is in bp hole\n", addr);
        EXPECT_EQ(want, Lookup(addr));
    }
}

}  // namespace
