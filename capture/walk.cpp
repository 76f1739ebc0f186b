#include "walk.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "maps_filter.h"

namespace quarry::capture {

namespace {

// The list as a tree of path components, children in the order the list names them (so
// /proc/meminfo, second in the list, is read before the capture's own work shows in it).
struct Node {
    std::string part;
    const Member* member = nullptr;
    std::vector<Node> children;
};

// A file's bytes as read, uninitialised beyond them: clearing a maps file's worth of room for each
// of a phone's thousands of small files would cost more than reading them.
struct Scratch {
    std::unique_ptr<char[]> bytes;
    size_t capacity = 0;
    size_t size = 0;
    std::string_view view() const { return std::string_view(bytes.get(), size); }
    void Reserve(size_t want) {
        if (want <= capacity) return;
        size_t grown = capacity < 64 * 1024 ? 64 * 1024 : capacity;
        while (grown < want) grown *= 2;
        std::unique_ptr<char[]> bigger(new char[grown]);
        if (size > 0) memcpy(bigger.get(), bytes.get(), size);
        bytes = std::move(bigger);
        capacity = grown;
    }
};

// Reads at most limit bytes of path into *s; 0, or the errno of the open or read that failed.
// Only regular files are read, and no other kind is even opened: a FIFO would block, and opening
// a device node as root can set its driver going (a watchdog starts on open). A member file is
// never a link on a device, so one is not followed (ELOOP): it could lead to any file of the
// device, whose text would then leave with the capture. Folders on the way may be links (/d is
// one on Android). The open is still non-blocking and checked again, should the file be
// replaced between the look and the open.
int OpenRegular(const std::string& path, int* fd) {
    struct stat before;
    if (lstat(path.c_str(), &before) != 0) return errno;
    if (!S_ISREG(before.st_mode)) return S_ISLNK(before.st_mode) ? ELOOP : ENODEV;
    *fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (*fd < 0) return errno;
    struct stat st;
    if (fstat(*fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(*fd);
        return ENODEV;
    }
    return 0;
}

int ReadUpTo(const std::string& path, size_t limit, Scratch* s) {
    s->size = 0;
    int fd;
    if (int error = OpenRegular(path, &fd); error != 0) return error;
    // procfs and sysfs files say they are empty: read until the end, in large pieces (a maps
    // file is generated anew for every read); one byte of room stays behind the text.
    int error = 0;
    while (s->size < limit) {
        s->Reserve(s->size + 64 * 1024 + 1);
        size_t room = s->capacity - s->size - 1;
        size_t want = limit - s->size < room ? limit - s->size : room;
        ssize_t n = read(fd, s->bytes.get() + s->size, want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) error = errno;
        if (n <= 0) break;
        s->size += static_cast<size_t>(n);
    }
    close(fd);
    return error;
}

// Appends a maps file's kept lines (KeepDmabufLines) to *out, read a piece at a time: a process
// can make its maps file hundreds of MB (thousands of mappings of files with long names) while
// a capture keeps only its few /dmabuf lines, so no more than the line being read is held whole.
// *nonempty tells whether the file held anything. 0, EFBIG once what is kept, or one line,
// passes limit (the member is then left out whole), else the errno of the open or read.
int ReadDmabufLines(const std::string& path, size_t limit, Scratch* s, std::string* out,
                    bool* nonempty) {
    s->size = 0;
    int fd;
    if (int error = OpenRegular(path, &fd); error != 0) return error;
    int error = 0;
    for (bool stopped = false; !stopped;) {
        s->Reserve(s->size + 64 * 1024 + 1);
        ssize_t n = read(fd, s->bytes.get() + s->size, s->capacity - s->size - 1);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            break;
        }
        if (n > 0) *nonempty = true;
        char* text = s->bytes.get();
        size_t total = s->size + static_cast<size_t>(n);
        // Whole lines, and at the end of the file what is left.
        size_t end = total;
        if (n > 0) {
            const char* last =
                static_cast<const char*>(memrchr(text + s->size, '\n', static_cast<size_t>(n)));
            end = last != nullptr ? static_cast<size_t>(last - text) + 1 : 0;
        }
        if (end > 0) {
            stopped = KeepDmabufLines(text, end, out);
            memmove(text, text + end, total - end);
        }
        s->size = total - end;
        if (out->size() > limit || s->size > limit) {
            error = EFBIG;
            break;
        }
        if (n == 0) break;
    }
    close(fd);
    return error;
}

// What a folder's walk has read, held back until the folder is known to be still there.
struct Entry {
    std::string name;
    bool folder;
    std::string data;
};

class Walker {
  public:
    Walker(const WalkOptions& options, TarGzWriter* out, WalkResult* result)
        : options_(options), out_(out), result_(result) {}

    bool Children(const Node& node, const std::string& device, const std::string& rel,
                  std::vector<Entry>* held);

  private:
    bool Visit(const Node& node, const std::string& device, const std::string& rel,
               std::vector<Entry>* held);
    bool File(const Member& m, const std::string& device, const std::string& rel,
              std::vector<Entry>* held);
    bool Emit(Entry entry, std::vector<Entry>* held);
    bool TooLarge(const Member& m, const std::string& device);

    const WalkOptions& options_;
    TarGzWriter* out_;
    WalkResult* result_;
    Scratch scratch_;  // one file at a time, reused
};

bool Walker::Emit(Entry entry, std::vector<Entry>* held) {
    if (held != nullptr) {
        held->push_back(std::move(entry));
        return true;
    }
    if (entry.folder) return out_->AddFolder(entry.name);
    if (!entry.data.empty()) result_->nonempty.push_back(entry.name);
    return out_->AddFile(entry.name, entry.data);
}

// A folder the list names by a number or a name (a process, a buffer, a CMA area) is never a
// link on a device, so one that is is not followed: it could lead to any folder of the device.
// Folders of fixed names may be links (/d is one on Android).
static bool IsDirectory(const std::string& path, bool follow) {
    struct stat st;
    return (follow ? stat(path.c_str(), &st) : lstat(path.c_str(), &st)) == 0 &&
           S_ISDIR(st.st_mode);
}

static bool Gone(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) != 0 && (errno == ENOENT || errno == ESRCH);
}

bool Walker::Children(const Node& node, const std::string& device, const std::string& rel,
                      std::vector<Entry>* held) {
    for (const Node& child : node.children) {
        if (!IsPlaceholder(child.part)) {
            std::string child_rel = rel.empty() ? child.part : rel + "/" + child.part;
            if (!Visit(child, device + "/" + child.part, child_rel, held)) return false;
            continue;
        }
        std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(device.c_str()), closedir);
        if (!dir) continue;
        std::vector<std::string> names;
        while (struct dirent* entry = readdir(dir.get())) {
            if (FitsComponent(child.part, entry->d_name)) names.emplace_back(entry->d_name);
        }
        dir.reset();
        for (const std::string& name : names) {
            if (!Visit(child, device + "/" + name, rel.empty() ? name : rel + "/" + name, held))
                return false;
        }
    }
    return true;
}

bool Walker::Visit(const Node& node, const std::string& device, const std::string& rel,
                   std::vector<Entry>* held) {
    if (node.member != nullptr && !node.member->folder)
        return File(*node.member, device, rel, held);
    if (!IsDirectory(device, !IsPlaceholder(node.part))) return true;
    // A folder the list names by a number (a process, a buffer) may go while it is read: what
    // was read of it waits until the walk knows whether it is still there.
    bool numbered = IsPlaceholder(node.part) && held == nullptr;
    std::vector<Entry> mine;
    std::vector<Entry>* into = numbered ? &mine : held;
    // Every folder on the way that the device has stands in the capture, as the tool finds
    // it live (an empty /proc, a buffer folder without its files).
    if (!Emit({rel, true, {}}, into)) return false;
    if (!Children(node, device, rel, into)) return false;
    if (!numbered || Gone(device)) return true;
    for (Entry& entry : mine) {
        if (!Emit(std::move(entry), nullptr)) return false;
    }
    return true;
}

static bool HasExpName(std::string_view text) {
    static constexpr std::string_view kKey = "exp_name:";
    if (text.substr(0, kKey.size()) == kKey) return true;
    return text.find("\nexp_name:") != std::string_view::npos;
}

bool Walker::File(const Member& m, const std::string& device, const std::string& rel,
                  std::vector<Entry>* held) {
    std::string data;
    Scratch& s = scratch_;
    switch (m.keep) {
        case Keep::kInfo:
            return true;
        case Keep::kExists:
            if (access(device.c_str(), R_OK) != 0) return true;
            return Emit({rel, false, {}}, held);
        case Keep::kDmabuf: {
            bool nonempty = false;
            int error;
            if (options_.full) {
                error = ReadUpTo(device, m.limit + 1, &s);
                nonempty = s.size > 0;
                if (error == 0) data.assign(s.view());
            } else {
                error = ReadDmabufLines(device, m.limit, &s, &data, &nonempty);
            }
            if (nonempty) result_->device_maps = true;
            if (error == EFBIG) return TooLarge(m, device);
            if (error != 0) return true;
            break;
        }
        case Keep::kLine: {
            if (ReadUpTo(device, m.limit, &s) != 0) return true;
            size_t newline = s.view().find('\n');
            data.assign(
                s.view().substr(0, newline == std::string_view::npos ? s.size : newline + 1));
            break;
        }
        case Keep::kHead:
            if (ReadUpTo(device, m.limit, &s) != 0) return true;
            data.assign(s.view());
            break;
        case Keep::kExpName:
        case Keep::kAll:
            if (ReadUpTo(device, m.limit + 1, &s) != 0) return true;
            if (m.keep == Keep::kExpName && !HasExpName(s.view())) return true;
            data.assign(s.view());
            break;
    }
    if (data.size() > m.limit) return TooLarge(m, device);
    return Emit({rel, false, std::move(data)}, held);
}

bool Walker::TooLarge(const Member& m, const std::string& device) {
    result_->notes.push_back("left out " + device + ": more than " + std::to_string(m.limit) +
                             " bytes, the most a capture may hold of it");
    return true;
}

void Insert(Node* root, const Member& m) {
    Node* node = root;
    size_t start = 0;
    for (;;) {
        size_t slash = m.path.find('/', start);
        std::string part = m.path.substr(start, slash == std::string::npos ? slash : slash - start);
        Node* next = nullptr;
        for (Node& child : node->children) {
            if (child.part == part) next = &child;
        }
        if (next == nullptr) {
            node->children.push_back(Node{part, nullptr, {}});
            next = &node->children.back();
        }
        node = next;
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    node->member = &m;
}

}  // namespace

bool Walk(const std::vector<Member>& members, const WalkOptions& options, TarGzWriter* out,
          WalkResult* result) {
    Node root;
    for (const Member& m : members) Insert(&root, m);
    Walker walker(options, out, result);
    return walker.Children(root, options.root, "", nullptr);
}

}  // namespace quarry::capture
