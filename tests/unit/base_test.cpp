// Our platform layer: formatting, trimming, file reads that refuse a final link, logging.
#include <base/file.h>
#include <base/logging.h>
#include <base/stringprintf.h>
#include <base/strings.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "temp_tree.h"

using namespace android::base;

TEST(Strings, TrimAndStartsWith) {
    EXPECT_EQ("system", Trim("system\n"));
    EXPECT_EQ("a b", Trim(" \t\r\n\v\fa b \t\n"));
    EXPECT_EQ("", Trim(" \n\t"));
    EXPECT_EQ("", Trim(""));
    EXPECT_TRUE(StartsWith("/dmabuf:camera", "/dmabuf"));
    EXPECT_TRUE(StartsWith("/dmabuf", "/dmabuf"));
    EXPECT_FALSE(StartsWith("/dmabu", "/dmabuf"));
    EXPECT_FALSE(StartsWith("anon_inode:dmabuf", "/dmabuf"));
}

TEST(StringPrintf, ShortAndLong) {
    EXPECT_EQ("/proc/42/fdinfo/7", StringPrintf("%s/%d/fdinfo/%d", "/proc", 42, 7));
    // Around the 256-byte buffer tried first: results of 255, 256 and 257 characters.
    for (size_t n : {253u, 254u, 255u, 1000u}) {
        std::string long_name(n, 'x');
        EXPECT_EQ("[" + long_name + "]", StringPrintf("[%s]", long_name.c_str())) << n;
    }
}

TEST(ReadFileToString, ReadsWholeFileButNotThroughFinalLink) {
    TempTree t;
    std::string big(100000, 'q');
    t.Write("big", big);
    t.Symlink("big", "link");
    std::string content = "old";
    ASSERT_TRUE(ReadFileToString(t.Path("big"), &content));
    EXPECT_EQ(big, content);
    EXPECT_FALSE(ReadFileToString(t.Path("link"), &content, false));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_TRUE(ReadFileToString(t.Path("link"), &content, true));
    EXPECT_FALSE(ReadFileToString(t.Path("missing"), &content));
    EXPECT_EQ(ENOENT, errno);
}

TEST(Logging, PlainAndErrnoFormsKeepErrno) {
    LogCapture capture;
    errno = ENOENT;
    LOG(ERROR) << "plain " << 1;
    EXPECT_EQ(ENOENT, errno);
    PLOG(ERROR) << "with errno";
    EXPECT_EQ(ENOENT, errno);
    ASSERT_EQ(2u, capture.messages().size());
    EXPECT_EQ("plain 1", capture.messages()[0]);
    EXPECT_EQ("with errno: No such file or directory", capture.messages()[1]);
}

TEST(Logging, MessageFormedOnlyWhenEnabled) {
    LogCapture capture;
    int formed = 0;
    auto count = [&formed]() { return ++formed; };
    LogSeverity old = SetMinimumLogSeverity(FATAL_WITHOUT_ABORT);
    LOG(ERROR) << count();
    SetMinimumLogSeverity(old);
    EXPECT_EQ(0, formed);
    EXPECT_TRUE(capture.messages().empty());
    LOG(ERROR) << count();
    EXPECT_EQ(1, formed);
}

// Without a sink, one line per message goes to standard error, named by the source file's base
// name and line.
TEST(Logging, DefaultLineOnStandardError) {
    TempTree t;
    int saved = dup(STDERR_FILENO);
    int fd = open(t.Path("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(STDERR_FILENO, dup2(fd, STDERR_FILENO));
    close(fd);
    SetLogSink(nullptr);
    const std::string path = "/sys/x";
    errno = EACCES;
    unsigned line = __LINE__ + 1;
    LOG(ERROR) << "Failed to parse /proc/68/maps for pid: " << 68;
    PLOG(WARNING) << "Unable to access " << path;
    int after = errno;
    dup2(saved, STDERR_FILENO);
    close(saved);
    EXPECT_EQ(EACCES, after);

    std::ifstream in(t.Path("stderr"));
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ("quarrystat: E base_test.cpp:" + std::to_string(line) +
                  "] Failed to parse /proc/68/maps for pid: 68\n"
                  "quarrystat: W base_test.cpp:" +
                  std::to_string(line + 1) + "] Unable to access /sys/x: Permission denied\n",
              text.str());
}
