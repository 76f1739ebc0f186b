// The maps-line grammar and the line walk.
#include <dirent.h>
#include <gtest/gtest.h>
#include <procinfo/process_map.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <fstream>
#include <string>
#include <vector>

using android::procinfo::MapInfo;
using android::procinfo::ParseMapLine;
using android::procinfo::ReadMapFileContent;

namespace {

std::vector<MapInfo> Walk(std::string text, bool* ok) {
    std::vector<MapInfo> maps;
    *ok = ReadMapFileContent(text.data(), [&](const MapInfo& m) { maps.push_back(m); });
    return maps;
}

TEST(ParseMapLine, Columns) {
    MapInfo m;
    ASSERT_TRUE(ParseMapLine("a000-c000 rw-s 00000000 00:0b 77  /dmabuf:camera", &m));
    EXPECT_EQ(0xa000u, m.start);
    EXPECT_EQ(0xc000u, m.end);
    EXPECT_EQ(PROT_READ | PROT_WRITE, m.flags);
    EXPECT_EQ(0u, m.offset);
    EXPECT_EQ(77u, m.inode);
    EXPECT_TRUE(m.shared);
    EXPECT_EQ("/dmabuf:camera", m.name);

    ASSERT_TRUE(
        ParseMapLine("ffff8b3c0000-ffff8b3c1000 --xp 0001f000 fe:01 1834  /a b (deleted) ", &m));
    EXPECT_EQ(PROT_EXEC, m.flags);
    EXPECT_FALSE(m.shared);
    EXPECT_EQ(0x1f000u, m.offset);
    EXPECT_EQ("/a b (deleted) ", m.name);  // inner and trailing blanks belong to the name

    // Anonymous mappings: nothing, or only padding, after the inode.
    ASSERT_TRUE(ParseMapLine("004a3000-004a8000 rw-p 00000000 00:00 0", &m));
    EXPECT_EQ("", m.name);
    ASSERT_TRUE(ParseMapLine("004a3000-004a8000 rw-p 00000000 00:00 0 ", &m));
    EXPECT_EQ("", m.name);
    ASSERT_TRUE(ParseMapLine("a000-c000   r--s 00000000 00:0b 77 /x", &m));  // padded columns
    EXPECT_EQ(PROT_READ, m.flags);
    ASSERT_TRUE(ParseMapLine("7f9178-7F91AF r--p 00000000 FE:0a 3 [vvar]", &m));
    EXPECT_EQ(PROT_READ, m.flags);
    EXPECT_EQ(0x7f91afu, m.end);  // read as strtoull reads hexadecimal: either case
}

TEST(ParseMapLine, Malformed) {
    const char* lines[] = {
        "",
        "a000 c000 rw-s 00000000 00:0b 77 /dmabuf",   // no '-'
        "a000-c000\trw-s 00000000 00:0b 77 /dmabuf",  // tab between columns
        "a000-c000 rx-s 00000000 00:0b 77 /dmabuf",   // write bit not w or -
        "a000-c000 r-ws 00000000 00:0b 77 /dmabuf",   // execute bit not x or -
        "a000-c000 rw-x 00000000 00:0b 77 /dmabuf",   // fourth permission not s or p
        "a000-c000 rwxsp 00000000 00:0b 77 /dmabuf",  // five permission characters
        "a000-c000 xw-s 00000000 00:0b 77 /dmabuf",   // letters in the wrong place
        "a000-c000 rw-s 00000000 000b 77 /dmabuf",    // device without a colon
        "a000-c000 rw-s 00000000 00: 77 /dmabuf",     // device minor missing
        "a000-c000 rw-s 00000000 00:0b /dmabuf",      // no inode
        "a000-c000 rw-s 00000000 00:0b 77/dmabuf",    // name glued to the inode
        "a000-c000 rw-s zz 00:0b 77 /dmabuf",         // offset not hexadecimal
        "-c000 rw-s 00000000 00:0b 77 /dmabuf",       // no start
        "a000\xff-c000 rw-s 00000000 00:0b 77 /dmabuf",  // a byte no digit table knows
    };
    for (const char* line : lines) {
        MapInfo m;
        EXPECT_FALSE(ParseMapLine(line, &m)) << "'" << line << "'";
    }
}

TEST(ReadMapFileContent, StopsAtEmptyLineAndAtMalformedLine) {
    bool ok;
    auto maps = Walk("a000-c000 rw-s 00000000 00:0b 77 /dmabuf\n\nnot a maps line\n", &ok);
    EXPECT_TRUE(ok);  // the empty line ends the walk before the bad line
    EXPECT_EQ(1u, maps.size());

    maps =
        Walk("a000-c000 rw-s 00000000 00:0b 77 /dmabuf\nbad\na000-c000 rw-s 00000000 00:0b 78 /x\n",
             &ok);
    EXPECT_FALSE(ok);
    ASSERT_EQ(1u, maps.size());
    EXPECT_EQ(77u, maps[0].inode);

    maps = Walk("a000-c000 rw-s 00000000 00:0b 77 /dmabuf", &ok);  // no final newline
    EXPECT_TRUE(ok);
    EXPECT_EQ(1u, maps.size());

    maps = Walk("", &ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(maps.empty());
    EXPECT_TRUE(ReadMapFileContent(nullptr, [](const MapInfo&) { FAIL(); }));
}

// A callback may read another maps text: each call owns the record it hands over.
TEST(ReadMapFileContent, NestedCallsKeepTheirRecords) {
    char outer[] = "a000-c000 rw-s 00000000 00:0b 77 /dmabuf:outer\n";
    std::vector<std::string> seen;
    ASSERT_TRUE(ReadMapFileContent(outer, [&](const MapInfo& m) {
        char inner[] = "1000-2000 r--p 00000000 00:0c 5 /system/lib64/libc.so\n";
        ASSERT_TRUE(ReadMapFileContent(inner, [&](const MapInfo& n) { seen.push_back(n.name); }));
        seen.push_back(m.name + " " + std::to_string(m.inode) + " " + std::to_string(m.start));
    }));
    EXPECT_EQ(std::vector<std::string>({"/system/lib64/libc.so", "/dmabuf:outer 77 40960"}), seen);
}

// Every line of every captured maps file parses, /dmabuf lines included.
TEST(ReadMapFileContent, RealCaptures) {
    const char* files[] = {
        "maps/android-phone-a-dmabuf-colon.txt",
        "maps/android-phone-b-launcher-dmabuf-deleted.txt",
        "maps/android10-phone-c-anon-inode-dmabuf.txt",
        "maps/arm64-vfio-bar-dmabuf-named.txt",
        "lab-arm64-6.1/parent-maps.txt",
        "lab-arm64-6.1/child-maps.txt",
    };
    size_t dmabuf_lines = 0;
    for (const char* file : files) {
        std::ifstream in(std::string(QUARRY_REALDATA_DIR) + "/" + file);
        ASSERT_TRUE(in) << file;
        std::string line;
        size_t lines = 0;
        while (std::getline(in, line)) {
            MapInfo m;
            EXPECT_TRUE(ParseMapLine(line.c_str(), &m)) << file << ": " << line;
            if (m.name.rfind("/dmabuf", 0) == 0) dmabuf_lines++;
            lines++;
        }
        EXPECT_GT(lines, 0u) << file;
    }
    EXPECT_GT(dmabuf_lines, 5u);
}

// This machine's own processes: whatever the running kernel prints must parse.
TEST(LiveMaps, EveryReadableProcessParses) {
    DIR* dir = opendir("/proc");
    ASSERT_NE(nullptr, dir);
    size_t lines = 0;
    while (struct dirent* entry = readdir(dir)) {
        if (atoi(entry->d_name) == 0) continue;
        std::ifstream in(std::string("/proc/") + entry->d_name + "/maps");
        if (!in) continue;  // needs ptrace access to that process
        std::string line;
        while (std::getline(in, line)) {
            MapInfo m;
            EXPECT_TRUE(ParseMapLine(line.c_str(), &m)) << entry->d_name << ": " << line;
            lines++;
        }
    }
    closedir(dir);
    EXPECT_GT(lines, 0u);  // our own maps file at least
}

}  // namespace
