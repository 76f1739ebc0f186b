// A gzip'd tar archive written straight to a file descriptor, member by member, as the capture
// goes: nothing is staged on the device.
#pragma once

#include <stdint.h>
#include <zlib.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>

namespace quarry::capture {

class TarGzWriter {
  public:
    // fd stays the caller's to close. mtime is every member's time (the capture's start).
    TarGzWriter(int fd, int64_t mtime);
    ~TarGzWriter();
    TarGzWriter(const TarGzWriter&) = delete;
    TarGzWriter& operator=(const TarGzWriter&) = delete;

    // name is relative ("proc/1/maps"); members are named "./proc/1/maps" as tar -C DIR . names
    // them. The folders on the way are added first, once each. False once a write has failed.
    bool AddFolder(const std::string& name);
    bool AddFile(const std::string& name, std::string_view data);
    // The end-of-archive blocks and the gzip trailer, all written out.
    bool Finish();

    // The errno of the write that failed, or 0.
    int error() const { return error_; }
    // Bytes written to fd so far.
    uint64_t written() const { return written_; }

  private:
    bool Parents(const std::string& name);
    bool Header(const std::string& name, char type, uint64_t size);
    bool Put(const void* data, size_t size);
    bool Deflate(int flush);

    int fd_;
    int64_t mtime_;
    z_stream z_{};
    bool ready_ = false;
    std::unique_ptr<unsigned char[]> out_;
    std::unordered_set<std::string> folders_;
    int error_ = 0;
    uint64_t written_ = 0;
};

}  // namespace quarry::capture
