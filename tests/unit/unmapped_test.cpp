// The -u report's process walks, where no fixture tree can show it: /proc gone between walks.
#include "unmapped.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "temp_tree.h"

namespace {

// The mapped walk could open /proc, the held walk cannot: after its bounded passes it says
// that no holders are known, so the report's "kernel" owners are not taken at face value.
TEST(CollectHeldDmabufs, NoProcMeansNoHoldersKnown) {
    TempTree t;
    std::string err_path = t.Path("stderr");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || dup2(fd, STDERR_FILENO) < 0 || chroot(t.Root().c_str()) != 0 ||
            chdir("/") != 0)
            _exit(2);
        std::vector<android::dmabufinfo::DmaBuffer> held;
        collect_held_dmabufs(&held);
        _exit(held.empty() ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    std::ifstream in(err_path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(
        "Failed to open /proc directory\n"
        "Failed to open /proc directory\n"
        "Failed to open /proc directory\n"
        "Failed to open /proc directory\n"
        "quarrystat: /proc could not be opened in 4 passes: no holders could be read, so an "
        "owner shown as \"kernel\" is not known\n",
        text.str());
}

}  // namespace
