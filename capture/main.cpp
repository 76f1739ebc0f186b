/* quarry-capture: writes a capture of this device, the files quarrystat reads as
 * capture/members.txt lists them, straight into one gzip'd tar archive. capture.sh runs it with
 * what only the device's shell can tell (getprop); users run capture.sh.
 *
 *   quarry-capture [--full] [--partial] [--binary BINARY] [--info KEY=VALUE]... OUTPUT.tar.gz
 *
 * Exit status: 0 written; 1 not written (the archive could not be written, or a signal stopped
 * the capture); 2 usage; 3 a file every report needs is missing or empty (the archive is removed
 * unless --partial). Whenever the status is not 0 or 3 with --partial, no archive is left. */
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "archive.h"
#include "members.h"
#include "members_text.h"
#include "walk.h"

using quarry::capture::Member;

/* The archive being written, removed by a signal: a stopped capture leaves nothing behind. */
static char output_path[PATH_MAX];
static volatile sig_atomic_t output_made;

static void on_signal(int) {
    if (output_made) unlink(output_path);
    _exit(1);
}

static int usage(void) {
    fprintf(stderr,
            "usage: quarry-capture [--full] [--partial] [--binary BINARY] "
            "[--info KEY=VALUE]... OUTPUT.tar.gz\n");
    return 2;
}

/* "UPTIME" as /proc/uptime prints the boot clock's seconds, or "" where it cannot be read. */
static std::string uptime_text(void) {
    char buf[64];
    int fd = open("/proc/uptime", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    if (n <= 0) return "";
    buf[n] = '\0';
    return std::string(buf, strcspn(buf, " \n"));
}

/* Device text on one line of capture-info: NULs go (the device tree's strings end in one),
 * line breaks become blanks, trailing blanks go. */
static std::string one_line(std::string text) {
    std::string line;
    for (char c : text)
        if (c != '\0') line.push_back(c == '\n' || c == '\r' ? ' ' : c);
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

/* A small file's text on one line, or "" when it cannot be read. */
static std::string file_line(const char *path) {
    char buf[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    ssize_t n = read(fd, buf, sizeof(buf));
    close(fd);
    return n > 0 ? one_line(std::string(buf, static_cast<size_t>(n))) : "";
}

/* capture-info's device keys in their order, from the kernel itself where it says them; a
 * --info KEY=VALUE given for one of them, or any other key (after them), is taken as given. An
 * empty model falls back to the device tree's. */
static std::string device_keys(const std::vector<std::pair<std::string, std::string>> &given) {
    struct utsname uts;
    bool have_uts = uname(&uts) == 0;
    std::vector<std::pair<std::string, std::string>> keys = {
        {"kernel_release",
         have_uts ? one_line(uts.release) : file_line("/proc/sys/kernel/osrelease")},
        {"kernel_version", have_uts ? one_line(uts.version) : file_line("/proc/version")},
        {"model", ""},
        {"fingerprint", ""},
        {"boot_id", file_line("/proc/sys/kernel/random/boot_id")},
    };
    for (const auto &[key, value] : given) {
        bool known = false;
        for (auto &k : keys) {
            if (k.first == key) {
                k.second = value;
                known = true;
            }
        }
        if (!known) keys.emplace_back(key, value);
    }
    if (keys[2].second.empty()) keys[2].second = file_line("/proc/device-tree/model");
    std::string text;
    for (const auto &[key, value] : keys) text += key + "=" + value + "\n";
    return text;
}

/* The release of the quarrystat binary at path ("quarrystat version X.Y.Z" between NULs), ""
 * when it has none; -1 when the file cannot be read. */
static int binary_version(const char *path, std::string *version) {
    static const char kKey[] = "quarrystat version ";
    std::string bytes;
    char buf[64 * 1024];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return -1;
        }
        if (n == 0) break;
        bytes.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    version->clear();
    /* A printable run of its own, as strings(1) would show it: no text character around. */
    auto text = [](char c) {
        return isalnum(static_cast<unsigned char>(c)) ||
               (c != '\0' && strchr("._+- ", c) != nullptr);
    };
    for (size_t at = bytes.find(kKey); at != std::string::npos; at = bytes.find(kKey, at + 1)) {
        if (at > 0 && text(bytes[at - 1])) continue;
        size_t start = at + sizeof(kKey) - 1, end = start;
        while (end < bytes.size() && text(bytes[end]) && bytes[end] != ' ') end++;
        if (end > start && isdigit(static_cast<unsigned char>(bytes[start])) &&
            (end == bytes.size() || !text(bytes[end]))) {
            version->assign(bytes, start, end - start);
            return 0;
        }
    }
    return 0;
}

/* Where a file system is mounted: the longest mount point in the mount table that holds path,
 * or "" without a table. */
static std::string mount_point(const std::string &path) {
    std::string best;
    FILE *mounts = fopen("/proc/self/mounts", "re");
    if (!mounts) mounts = fopen("/proc/mounts", "re");
    if (!mounts) return best;
    char device[4096], dir[4096];
    while (fscanf(mounts, "%4095s %4095s %*[^\n]", device, dir) == 2) {
        std::string d = dir;
        bool holds = d == "/" || path == d || path.compare(0, d.size() + 1, d + "/") == 0;
        if (holds && d.size() >= best.size()) best = d;
    }
    fclose(mounts);
    return best;
}

/* The one message of a capture that could not be written, naming the file system and the room
 * left on it, so a user knows where to make space. */
static void report_write_failure(const char *out, int error) {
    std::string folder = out;
    size_t slash = folder.rfind('/');
    folder = slash == std::string::npos ? "." : slash == 0 ? "/" : folder.substr(0, slash);
    char real[PATH_MAX];
    if (realpath(folder.c_str(), real)) folder = real;
    std::string where = mount_point(folder);
    std::string fs = where.empty() ? "the file system of " + folder : "the file system on " + where;
    struct statvfs st;
    if (statvfs(folder.c_str(), &st) == 0) {
        unsigned long long kb = static_cast<unsigned long long>(st.f_bavail) * st.f_frsize / 1024;
        fprintf(stderr, "capture: cannot write %s: %s (%s has %llu KB free); nothing kept\n", out,
                strerror(error), fs.c_str(), kb);
    } else {
        fprintf(stderr, "capture: cannot write %s: %s (%s); nothing kept\n", out, strerror(error),
                fs.c_str());
    }
}

int main(int argc, char **argv) {
    bool partial = false;
    quarry::capture::WalkOptions options;
    const char *binary = nullptr;
    std::vector<std::pair<std::string, std::string>> info;
    int i = 1;
    for (; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--full") {
            options.full = true;
        } else if (arg == "--partial") {
            partial = true;
        } else if ((arg == "--binary" || arg == "--info") && i + 1 < argc) {
            std::string value = argv[++i];
            if (arg == "--binary") {
                binary = argv[i];
            } else if (value.find('=') == std::string::npos || value[0] == '=') {
                return usage();
            } else {
                size_t eq = value.find('=');
                info.emplace_back(one_line(value.substr(0, eq)), one_line(value.substr(eq + 1)));
            }
        } else if (arg == "--") {
            i++;
            break;
        } else if (arg.size() > 1 && arg[0] == '-') {
            return usage();
        } else {
            break;
        }
    }
    if (i != argc - 1 || argv[i][0] == '\0' || strlen(argv[i]) >= sizeof(output_path))
        return usage();
    const char *out = argv[i];

    std::vector<Member> members;
    std::string error;
    if (!quarry::capture::ParseMembers(kMembersText, &members, &error)) {
        fprintf(stderr, "capture: the list of members built into this program is damaged: %s\n",
                error.c_str());
        return 2;
    }
    std::string version;
    if (binary && binary_version(binary, &version) != 0) {
        fprintf(stderr, "capture: cannot read the binary %s\n", binary);
        return 2;
    }
    if (binary && version.empty()) fprintf(stderr, "capture: no version text in %s\n", binary);

    /* The output's name is known to the handler before the file exists, and the file exists
     * only while the handler can see it. */
    strcpy(output_path, out);
    struct sigaction sa = {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigset_t stops, old;
    sigemptyset(&stops);
    /* A signal that would end the program ends it here, leaving no archive behind. */
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2}) {
        sigaction(sig, &sa, nullptr);
        sigaddset(&stops, sig);
    }
    signal(SIGPIPE, SIG_IGN);
    sigprocmask(SIG_BLOCK, &stops, &old);
    /* The program runs as root: a link at the output's name is not followed (it could lead
     * onto any file of the device, which would be emptied, then removed on a failure), and only
     * a regular file or a FIFO (a stream read by another program) is opened and written: a
     * device node's driver could act on the open alone. */
    struct stat out_st;
    const char *odd = nullptr;
    if (lstat(out, &out_st) == 0) {
        if (S_ISLNK(out_st.st_mode)) {
            odd = "it is a link";
        } else if (!S_ISREG(out_st.st_mode) && !S_ISFIFO(out_st.st_mode)) {
            odd = "not a regular file or a FIFO";
        }
    }
    int fd = odd ? -1 : open(out, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    int open_error = errno;
    if (fd >= 0 &&
        (fstat(fd, &out_st) != 0 || !(S_ISREG(out_st.st_mode) || S_ISFIFO(out_st.st_mode)))) {
        close(fd);  // replaced between the look and the open
        fd = -1;
        odd = "not a regular file or a FIFO";
    }
    output_made = fd >= 0;
    sigprocmask(SIG_SETMASK, &old, nullptr);
    if (fd < 0) {
        fprintf(stderr, "capture: cannot write %s: %s\n", out, odd ? odd : strerror(open_error));
        return 1;
    }

    std::string uptime_start = uptime_text();
    time_t wall_start = time(nullptr);
    quarry::capture::TarGzWriter writer(fd, wall_start);
    quarry::capture::WalkResult walked;
    bool ok = quarry::capture::Walk(members, options, &writer, &walked);
    std::string uptime_end = uptime_text();
    time_t wall_end = time(nullptr);
    if (ok) {
        std::string text = "format=1\n" + device_keys(info);
        text += "uptime_start=" + uptime_start + "\nwall_start=" + std::to_string(wall_start) +
                "\nuptime_end=" + uptime_end + "\nwall_end=" + std::to_string(wall_end) + "\n";
        if (binary) text += "binary_version=" + version + "\n";
        ok = writer.AddFile("capture-info", text) && writer.Finish();
    }
    int write_error = writer.error();
    if (close(fd) != 0 && ok) {
        ok = false;
        write_error = errno;
    }
    if (!ok) {
        unlink(out);
        report_write_failure(out, write_error);
        return 1;
    }
    for (const std::string &note : walked.notes) fprintf(stderr, "capture: %s\n", note.c_str());

    /* What every report needs: without these the capture cannot answer -n, -s or -u. */
    std::vector<std::string> missing;
    for (const char *need : {"proc/meminfo", "proc/debug_ext/mem_statis/reserved_memory_stat",
                             "d/memblock/memory", "d/memblock/reserved"}) {
        bool found = false;
        for (const std::string &name : walked.nonempty) found = found || name == need;
        if (!found) missing.push_back(std::string("/") + need);
    }
    if (!walked.device_maps) missing.push_back("/proc/<pid>/maps");
    if (missing.empty()) return 0;
    for (const std::string &name : missing)
        fprintf(stderr, "capture: missing or empty: %s\n", name.c_str());
    if (partial) {
        fprintf(stderr, "capture: kept the incomplete capture %s (--partial)\n", out);
    } else {
        sigprocmask(SIG_BLOCK, &stops, nullptr);
        unlink(out);
        output_made = 0;
        fprintf(stderr, "capture: incomplete, not kept (run as root; --partial keeps it)\n");
    }
    return 3;
}
