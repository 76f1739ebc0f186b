// A fresh directory tree per test, removed afterwards: t.Write("proc/42/maps", "...").
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

class TempTree {
  public:
    TempTree() {
        char tmpl[] = "/tmp/quarry-unit.XXXXXX";
        root_ = mkdtemp(tmpl);
    }
    ~TempTree() {
        std::error_code ec;
        // Give back permissions a test took away, so the tree can be removed.
        for (auto& entry : std::filesystem::recursive_directory_iterator(
                 root_, std::filesystem::directory_options::skip_permission_denied, ec)) {
            if (!entry.is_symlink()) chmod(entry.path().c_str(), 0755);
        }
        std::filesystem::remove_all(root_, ec);
    }
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    const std::string& Root() const { return root_; }
    std::string Path(const std::string& rel) const { return root_ + "/" + rel; }

    void Write(const std::string& rel, const std::string& content) const {
        std::filesystem::create_directories(std::filesystem::path(Path(rel)).parent_path());
        std::ofstream(Path(rel), std::ios::binary) << content;
    }
    void Mkdir(const std::string& rel) const { std::filesystem::create_directories(Path(rel)); }
    void Symlink(const std::string& target, const std::string& rel) const {
        std::filesystem::create_directories(std::filesystem::path(Path(rel)).parent_path());
        std::filesystem::create_symlink(target, Path(rel));
    }
    void Chmod(const std::string& rel, mode_t mode) const { chmod(Path(rel).c_str(), mode); }

  private:
    std::string root_;
};

// Collects what the library logs during its lifetime.
#include <base/logging.h>

#include <vector>

class LogCapture {
  public:
    LogCapture() {
        old_ = android::base::SetLogSink(
            [this](android::base::LogSeverity, const char*, unsigned, const std::string& message) {
                messages_.push_back(message);
            });
    }
    ~LogCapture() { android::base::SetLogSink(old_); }
    const std::vector<std::string>& messages() const { return messages_; }

  private:
    android::base::LogSink old_;
    std::vector<std::string> messages_;
};
