#include "archive.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace quarry::capture {

static constexpr size_t kBlock = 512;
static constexpr size_t kOut = 256 * 1024;
// Speed over the last few per cent: a slim capture is mostly tar headers and short text, which
// the fastest level already shrinks twenty-fold, and the device is busy while it runs.
static constexpr int kLevel = 1;

TarGzWriter::TarGzWriter(int fd, int64_t mtime)
    : fd_(fd), mtime_(mtime), out_(new unsigned char[kOut]) {
    // 16 + 15: a gzip header and trailer around the deflate stream; its header carries no name
    // and no time, so the same members make the same bytes.
    if (deflateInit2(&z_, kLevel, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY) == Z_OK) {
        ready_ = true;
    } else {
        error_ = ENOMEM;
    }
}

TarGzWriter::~TarGzWriter() {
    if (ready_) deflateEnd(&z_);
}

bool TarGzWriter::Deflate(int flush) {
    for (;;) {
        z_.next_out = out_.get();
        z_.avail_out = kOut;
        int ret = deflate(&z_, flush);
        if (ret == Z_STREAM_ERROR) {
            error_ = EINVAL;
            return false;
        }
        size_t have = kOut - z_.avail_out;
        for (size_t done = 0; done < have;) {
            ssize_t n = write(fd_, out_.get() + done, have - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                error_ = n < 0 ? errno : EIO;
                return false;
            }
            done += static_cast<size_t>(n);
            written_ += static_cast<uint64_t>(n);
        }
        // Output that filled the buffer may have more behind it; otherwise this call is done.
        if (z_.avail_out != 0 && (flush != Z_FINISH || ret == Z_STREAM_END)) return true;
    }
}

bool TarGzWriter::Put(const void* data, size_t size) {
    if (error_ != 0) return false;
    z_.next_in = static_cast<Bytef*>(const_cast<void*>(data));
    z_.avail_in = static_cast<uInt>(size);
    while (z_.avail_in > 0) {
        if (!Deflate(Z_NO_FLUSH)) return false;
    }
    return true;
}

// An octal field of width bytes: width - 1 digits (the lowest ones of a larger value) and a NUL.
static void Octal(char* field, size_t width, uint64_t value) {
    field[width - 1] = '\0';
    for (size_t i = width - 1; i > 0; i--, value >>= 3)
        field[i - 1] = static_cast<char>('0' + (value & 7));
}

bool TarGzWriter::Header(const std::string& name, char type, uint64_t size) {
    char block[kBlock] = {};
    std::string_view base = name, prefix;
    // ustar holds 100 bytes of name and 155 of folders before it; a longer name goes ahead in a
    // GNU long-name member, which replay's unpacking reads too.
    if (name.size() > 100) {
        size_t slash = name.rfind('/', 155);
        while (slash != std::string::npos && name.size() - slash - 1 > 100)
            slash = std::string::npos;
        if (slash != std::string::npos && slash > 0) {
            prefix = std::string_view(name).substr(0, slash);
            base = std::string_view(name).substr(slash + 1);
        } else {
            std::string longname = name;
            longname.push_back('\0');
            if (!Header("././@LongLink", 'L', longname.size()) ||
                !Put(longname.data(), longname.size()))
                return false;
            static const char kZeros[kBlock] = {};
            size_t pad = (kBlock - longname.size() % kBlock) % kBlock;
            if (!Put(kZeros, pad)) return false;
            base = std::string_view(name).substr(0, 100);
        }
    }
    memcpy(block, base.data(), base.size());
    Octal(block + 100, 8, type == '5' ? 0755 : 0644);
    Octal(block + 108, 8, 0);
    Octal(block + 116, 8, 0);
    Octal(block + 124, 12, size);
    Octal(block + 136, 12, static_cast<uint64_t>(mtime_ < 0 ? 0 : mtime_));
    memset(block + 148, ' ', 8);
    block[156] = type;
    memcpy(block + 257, "ustar", 6);
    memcpy(block + 263, "00", 2);
    memcpy(block + 265, "root", 4);
    memcpy(block + 297, "root", 4);
    if (!prefix.empty()) memcpy(block + 345, prefix.data(), prefix.size());
    unsigned sum = 0;
    for (unsigned char c : block) sum += c;
    Octal(block + 148, 7, sum);
    return Put(block, kBlock);
}

bool TarGzWriter::Parents(const std::string& name) {
    for (size_t slash = name.find('/'); slash != std::string::npos;
         slash = name.find('/', slash + 1)) {
        if (!AddFolder(name.substr(0, slash))) return false;
    }
    return true;
}

bool TarGzWriter::AddFolder(const std::string& name) {
    if (error_ != 0) return false;
    if (folders_.count(name)) return true;
    if (folders_.empty() && !name.empty()) {
        if (!AddFolder("")) return false;
    }
    if (!Parents(name) || !Header(name.empty() ? "./" : "./" + name + "/", '5', 0)) return false;
    folders_.insert(name);
    return true;
}

bool TarGzWriter::AddFile(const std::string& name, std::string_view data) {
    if (!AddFolder("") || !Parents(name) || !Header("./" + name, '0', data.size()) ||
        !Put(data.data(), data.size()))
        return false;
    static const char kZeros[kBlock] = {};
    return Put(kZeros, (kBlock - data.size() % kBlock) % kBlock);
}

bool TarGzWriter::Finish() {
    static const char kEnd[2 * kBlock] = {};
    if (!AddFolder("") || !Put(kEnd, sizeof(kEnd))) return false;
    return Deflate(Z_FINISH);
}

}  // namespace quarry::capture
