// The capture program's parts: the maps cut, the member list, the archive writer and the walk
// over a device tree.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "archive.h"
#include "maps_filter.h"
#include "members.h"
#include "temp_tree.h"
#include "walk.h"

namespace {

using namespace quarry::capture;

std::string Cut(std::string maps) {
    std::string out;
    size_t size = maps.size();
    maps.push_back('\0');
    KeepDmabufLines(maps.data(), size, &out);
    return out;
}

TEST(KeepDmabufLines, KeepsWhatTheReaderCountsOrStopsAt) {
    const std::string lib =
        "7f00000000-7f00001000 r-xp 00000000 fd:05 1234 /system/lib64/libc.so\n";
    const std::string anon = "7f00001000-7f00002000 rw-p 00000000 00:00 0 \n";
    const std::string buf = "7f00002000-7f00003000 rw-s 00000000 00:0a 40001     /dmabuf:gralloc\n";
    const std::string deleted =
        "7f00003000-7f00004000 rw-s 00000000 00:0a 40002 /dmabuf (deleted)\n";
    const std::string lookalike = "7f00004000-7f00005000 rw-s 00000000 fd:05 7 /data/dmabuf\n";
    const std::string bad = "7f00005000-7f00006000\trw-s 00000000 00:0a 40003 /dmabuf:\n";
    const struct {
        std::string in, out;
    } cases[] = {
        {lib + buf + anon + deleted + lookalike, buf + deleted},
        {"", ""},
        {lib + anon, ""},
        // Empty lines are passed over by the reader, so they go.
        {"\n" + buf + "\n\n" + lib, buf},
        // The reader stops at a line it cannot parse: that line stays, nothing after it.
        {lib + bad + buf, bad},
        {buf + "garbage\n" + deleted, buf + "garbage\n"},
        // A last line without its newline counts as written.
        {lib + buf.substr(0, buf.size() - 1), buf.substr(0, buf.size() - 1)},
        // A NUL ends the reader's line: judged by what comes before it, kept whole.
        {std::string("7f0-7f1 rw-s 0 00:0a 5 /dmabuf:\0rest\n", 37) + lib,
         std::string("7f0-7f1 rw-s 0 00:0a 5 /dmabuf:\0rest\n", 37)},
        {std::string("7f0-7f1 rw-s 0 00:0a 5 /lib\0/dmabuf\n", 36), ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.out, Cut(c.in)) << c.in;
    }
    // A /dmabuf line of any length is kept whole.
    std::string longest = "7f0-7f1 rw-s 0 00:0a 5 /dmabuf:" + std::string(1 << 20, 'x') + "\n";
    EXPECT_EQ(longest, Cut(lib + longest + anon));
}

TEST(ParseMembers, TheShippedListAndItsShape) {
    std::ifstream in(QUARRY_SOURCE_DIR "/capture/members.txt");
    std::stringstream text;
    text << in.rdbuf();
    std::vector<Member> members;
    std::string error;
    ASSERT_TRUE(ParseMembers(text.str(), &members, &error)) << error;
    std::map<std::string, Member> by_path;
    for (const Member& m : members) by_path[m.path] = m;
    ASSERT_TRUE(by_path.count("proc/<pid>/maps"));
    EXPECT_EQ(Keep::kDmabuf, by_path["proc/<pid>/maps"].keep);
    EXPECT_EQ(64u << 20, by_path["proc/<pid>/maps"].limit);
    EXPECT_TRUE(by_path["proc/<pid>/fdinfo"].folder);
    EXPECT_EQ(Keep::kInfo, members.front().keep);

    EXPECT_FALSE(ParseMembers("proc/meminfo 64K\n", &members, &error));
    EXPECT_EQ("line 1: not PATH LIMIT KEEP: proc/meminfo 64K", error);
    EXPECT_FALSE(ParseMembers("# c\nproc/x 4G all\n", &members, &error));
    EXPECT_FALSE(ParseMembers("proc/x 4K everything\n", &members, &error));
}

TEST(FitsComponent, NumbersAsTheKernelWritesThem) {
    for (const char* yes : {"0", "1", "42", "4294967295"}) {
        EXPECT_TRUE(FitsComponent("<pid>", yes)) << yes;
    }
    for (const char* no : {"", "01", "self", "12345678901", "-1", "1a", " 1"}) {
        EXPECT_FALSE(FitsComponent("<pid>", no)) << no;
    }
    EXPECT_TRUE(FitsComponent("<name>", "linux,cma"));
    EXPECT_TRUE(FitsComponent("<name>", "camera_cma@8a0000000"));
    for (const char* no : {"", ".", "..", " x", "a\tb", "\x7f"}) {
        EXPECT_FALSE(FitsComponent("<name>", no)) << no;
    }
    EXPECT_TRUE(FitsComponent("maps", "maps"));
    EXPECT_FALSE(FitsComponent("maps", "smaps"));
}

// The archive's members, name -> (type, data), read back through zlib as any tar reader would:
// each header's checksum and ustar magic checked, long names joined.
std::map<std::string, std::pair<char, std::string>> ReadBack(const std::string& path) {
    std::map<std::string, std::pair<char, std::string>> members;
    gzFile gz = gzopen(path.c_str(), "rb");
    EXPECT_NE(nullptr, gz);
    std::string longname;
    for (;;) {
        unsigned char block[512];
        if (gzread(gz, block, 512) != 512) {
            ADD_FAILURE() << "no end blocks";
            break;
        }
        if (std::all_of(block, block + 512, [](unsigned char c) { return c == 0; })) break;
        unsigned sum = 0;
        for (int i = 0; i < 512; i++) sum += (i >= 148 && i < 156) ? ' ' : block[i];
        EXPECT_EQ(sum, strtoul(reinterpret_cast<char*>(block + 148), nullptr, 8));
        EXPECT_EQ(0, memcmp(block + 257,
                            "ustar\0"
                            "00",
                            8));
        size_t size = strtoull(reinterpret_cast<char*>(block + 124), nullptr, 8);
        std::string data(size, '\0');
        if (size > 0) {
            EXPECT_EQ(static_cast<int>(size), gzread(gz, data.data(), size));
        }
        char pad[512];
        if (size % 512) gzread(gz, pad, 512 - size % 512);
        std::string name(reinterpret_cast<char*>(block),
                         strnlen(reinterpret_cast<char*>(block), 100));
        std::string prefix(reinterpret_cast<char*>(block + 345),
                           strnlen(reinterpret_cast<char*>(block + 345), 155));
        if (block[156] == 'L') {
            longname = data.substr(0, data.find('\0'));
            continue;
        }
        if (!prefix.empty()) name = prefix + "/" + name;
        if (!longname.empty()) name = longname;
        longname.clear();
        members[name] = {static_cast<char>(block[156]), data};
    }
    gzclose(gz);
    return members;
}

TEST(TarGzWriter, MembersFoldersAndLongNames) {
    TempTree t;
    std::string path = t.Path("c.tar.gz");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    TarGzWriter w(fd, 1795000000);
    std::string deep = "d/cma/" + std::string(90, 'a') + "/" + std::string(40, 'b') + "/used";
    std::string deeper = "d/cma/" + std::string(200, 'c') + "/used";
    std::string big(700000, 'z');
    ASSERT_TRUE(w.AddFile("proc/meminfo", "MemTotal: 1 kB\n"));
    ASSERT_TRUE(w.AddFolder("proc/1/fdinfo"));
    ASSERT_TRUE(w.AddFile("proc/1/maps", ""));
    ASSERT_TRUE(w.AddFile("proc/1/cmdline", big));
    ASSERT_TRUE(w.AddFile(deep, "1\n"));
    ASSERT_TRUE(w.AddFile(deeper, "2\n"));
    ASSERT_TRUE(w.Finish());
    close(fd);
    auto m = ReadBack(path);
    std::map<std::string, char> types;
    for (const auto& [name, v] : m) types[name] = v.first;
    EXPECT_EQ('5', types["./"]);
    EXPECT_EQ('5', types["./proc/"]);
    EXPECT_EQ('5', types["./proc/1/"]);
    EXPECT_EQ('5', types["./proc/1/fdinfo/"]);
    EXPECT_EQ("MemTotal: 1 kB\n", m["./proc/meminfo"].second);
    EXPECT_EQ("", m["./proc/1/maps"].second);
    EXPECT_EQ(big, m["./proc/1/cmdline"].second);
    EXPECT_EQ("1\n", m["./" + deep].second);
    EXPECT_EQ("2\n", m["./" + deeper].second);
    EXPECT_EQ(14u, m.size());  // 9 folders (the root and those on the way) and 5 files
}

TEST(TarGzWriter, AFailedWriteIsKept) {
    int fd = open("/dev/full", O_WRONLY);
    ASSERT_GE(fd, 0);
    TarGzWriter w(fd, 0);
    std::string noise;
    for (int i = 0; i < 400000; i++) noise += static_cast<char>(rand());
    bool ok = w.AddFile("proc/1/maps", noise) && w.Finish();
    EXPECT_FALSE(ok);
    EXPECT_EQ(ENOSPC, w.error());
    EXPECT_FALSE(w.AddFile("proc/meminfo", "x"));
    close(fd);
}

TEST(Walk, KeepsWhatTheListSaysOfATree) {
    TempTree t;
    t.Write("proc/meminfo", "MemTotal: 1 kB\n");
    t.Write("proc/7/maps", "7f0-7f1 r--p 0 fd:05 1 /lib.so\n7f1-7f2 rw-s 0 00:0a 9 /dmabuf:\n");
    t.Write("proc/7/comm", "surfaceflinger\nsecond line\n");
    t.Write("proc/7/cmdline", std::string("/system/bin/sf\0-x\0", 18) + std::string(5000, 'y'));
    t.Write("proc/7/fdinfo/3", "pos:\t0\nexp_name:\tsystem\n");
    t.Write("proc/7/fdinfo/4", "pos:\t0\nflags:\t02\n");
    t.Write("proc/self/maps", "not a process\n");
    t.Write("proc/007/maps", "nor this\n");
    t.Mkdir("proc/8/fdinfo");
    t.Mkdir("sys/kernel/dmabuf/buffers");
    t.Write("proc/iomem", std::string((4 << 20) + 1, 'i'));  // more than the list allows
    // A member file that is a link is not followed, wherever it leads: it never is one on a
    // device. A FIFO is not opened (it would block). Folders on the way may be links (/d).
    t.Write("secret", "7f0-7f1 rw-s 0 00:0a 9 /dmabuf:\n");
    t.Symlink("../../secret", "proc/9/maps");
    t.Symlink("../../secret", "proc/9/comm");
    t.Write("elsewhere/maps", "7f0-7f1 rw-s 0 00:0a 9 /dmabuf:\n");
    t.Symlink("../elsewhere", "proc/12");
    t.Mkdir("debug/cma/reserved");
    t.Write("debug/cma/reserved/used", "34\n");
    t.Symlink("debug", "d");
    ASSERT_EQ(0, mkfifo(t.Path("proc/7/fdinfo/5").c_str(), 0644));
    ASSERT_EQ(0, mkfifo(t.Path("sys/kernel/dmabuf/buffers/12").c_str(), 0644));
    std::vector<Member> members;
    std::string error;
    std::ifstream in(QUARRY_SOURCE_DIR "/capture/members.txt");
    std::stringstream text;
    text << in.rdbuf();
    ASSERT_TRUE(ParseMembers(text.str(), &members, &error));

    std::string path = t.Path("c.tar.gz");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    TarGzWriter w(fd, 0);
    WalkOptions options;
    options.root = t.Root();
    WalkResult result;
    ASSERT_TRUE(Walk(members, options, &w, &result));
    ASSERT_TRUE(w.Finish());
    close(fd);
    auto m = ReadBack(path);
    EXPECT_EQ("7f1-7f2 rw-s 0 00:0a 9 /dmabuf:\n", m["./proc/7/maps"].second);
    EXPECT_EQ("surfaceflinger\n", m["./proc/7/comm"].second);
    EXPECT_EQ(4096u, m["./proc/7/cmdline"].second.size());
    EXPECT_TRUE(m.count("./proc/7/fdinfo/3"));
    EXPECT_FALSE(m.count("./proc/7/fdinfo/4"));
    EXPECT_FALSE(m.count("./proc/self/maps"));
    EXPECT_FALSE(m.count("./proc/007/maps"));
    EXPECT_EQ('5', m["./proc/8/fdinfo/"].first);
    EXPECT_EQ('5', m["./sys/kernel/dmabuf/buffers/"].first);
    EXPECT_FALSE(m.count("./proc/9/maps"));
    EXPECT_FALSE(m.count("./proc/9/comm"));
    EXPECT_FALSE(m.count("./proc/12/") || m.count("./proc/12/maps"));
    EXPECT_FALSE(m.count("./proc/7/fdinfo/5"));
    EXPECT_EQ("34\n", m["./d/cma/reserved/used"].second);
    EXPECT_FALSE(m.count("./proc/iomem"));
    ASSERT_EQ(1u, result.notes.size());
    EXPECT_NE(std::string::npos, result.notes[0].find("/proc/iomem: more than 4194304 bytes"));
    EXPECT_TRUE(result.device_maps);
    EXPECT_FALSE(m.count("./capture-info"));  // the program writes it, not the walk
}

// A maps file is read a piece at a time: it keeps what the whole file's cut keeps (lines across
// pieces, a stop past the first piece), and one of hundreds of MB, which a process can make with
// many long-named mappings, costs no more memory than the most a capture keeps of it.
TEST(Walk, MapsReadInPiecesInBoundedMemory) {
    TempTree t;
    const std::string lib = "7f0-7f1 r--p 0 fd:05 1 /" + std::string(100, 'l') + "\n";
    const std::string buf = "7f1-7f2 rw-s 0 00:0a 9 /dmabuf:x\n";
    std::string maps;
    for (int i = 0; i < 3000; i++) maps += i % 7 ? lib : buf;
    t.Write("proc/1/maps", maps);
    t.Write("proc/2/maps", maps + "garbage\n" + maps);
    t.Write("proc/3/maps", buf);
    ASSERT_EQ(0, truncate(t.Path("proc/3/maps").c_str(), 512 << 20));  // sparse: no disk used
    std::vector<Member> members;
    std::string error;
    ASSERT_TRUE(ParseMembers("proc/<pid>/maps 64M dmabuf\n", &members, &error)) << error;
    auto walk = [&](const std::string& path) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        TarGzWriter w(fd, 0);
        WalkOptions options;
        options.root = t.Root();
        WalkResult result;
        bool ok = Walk(members, options, &w, &result) && w.Finish();
        close(fd);
        return ok && result.notes.size() == 1;
    };
    ASSERT_TRUE(walk(t.Path("c.tar.gz")));
    auto m = ReadBack(t.Path("c.tar.gz"));
    EXPECT_EQ(Cut(maps), m["./proc/1/maps"].second);
    EXPECT_EQ(Cut(maps + "garbage\n" + maps), m["./proc/2/maps"].second);
    EXPECT_FALSE(m.count("./proc/3/maps"));
#if !defined(__SANITIZE_ADDRESS__)  // (its shadow memory is address space too)
    auto bounded = [&] {
        std::ifstream statm("/proc/self/statm");
        size_t pages = 0;
        statm >> pages;
        rlim_t most = pages * sysconf(_SC_PAGESIZE) + (192 << 20);
        struct rlimit limit = {most, most};
        setrlimit(RLIMIT_AS, &limit);
        exit(walk(t.Path("d.tar.gz")) ? 0 : 1);
    };
    EXPECT_EXIT(bounded(), ::testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
