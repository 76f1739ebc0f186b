#include "base/file.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace android::base {

bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks) {
    int flags = O_RDONLY | O_CLOEXEC | (follow_symlinks ? 0 : O_NOFOLLOW);
    int fd = open(path.c_str(), flags);
    if (fd < 0) return false;

    content->clear();
    char buf[4096];
    bool ok = true;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        content->append(buf, static_cast<size_t>(n));
    }
    int saved = errno;
    close(fd);
    errno = saved;
    return ok;
}

}  // namespace android::base
