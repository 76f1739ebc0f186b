// DMA-BUF buffers and the processes that hold them, found through procfs and sysfs.
#pragma once

#include <stdint.h>

#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace android::dmabufinfo {

// One DMA-BUF buffer, identified by the inode of its file, and every reference to it that a
// process scan found: open descriptors and mappings, counted per process.
class DmaBuffer {
  public:
    DmaBuffer(uint64_t inode, uint64_t size, uint64_t count, const std::string& exporter,
              const std::string& name);

    uint64_t inode() const { return inode_; }
    uint64_t size() const { return size_; }
    // The kernel's reference count of the buffer's file; 0 when unknown (met only as a mapping).
    uint64_t count() const { return count_; }
    // Every recorded fd and mapping reference adds one.
    uint64_t total_refs() const { return total_refs_; }
    // Processes with at least one reference, ascending.
    const std::set<int>& pids() const { return pids_; }
    const std::string& exporter() const { return exporter_; }
    const std::string& name() const { return name_; }
    const std::unordered_map<int, int>& fdrefs() const { return fdrefs_; }
    const std::unordered_map<int, int>& maprefs() const { return maprefs_; }

    void set_name(const std::string& name) { name_ = name; }
    void set_exporter(const std::string& exporter) { exporter_ = exporter; }
    void set_count(uint64_t count) { count_ = count; }

    void RecordFdRef(int pid);
    void RecordMapRef(int pid);

  private:
    void AddRefToPidMap(int pid, std::unordered_map<int, int>* map);

    uint64_t inode_;
    uint64_t size_;
    uint64_t count_;
    uint64_t total_refs_;
    std::set<int> pids_;
    std::string exporter_;
    std::string name_;
    std::unordered_map<int, int> fdrefs_;
    std::unordered_map<int, int> maprefs_;
};

// The records of one scan of many processes, one per inode in the order their buffers were
// first met, with an index on the inode beside them. A device with thousands of buffers and
// tens of thousands of references would otherwise pay for every reference with a walk of the
// whole array. The index cannot go stale: the records can only be added to through the readers
// below, and the list owns both.
class DmaBufferList {
  public:
    const std::vector<DmaBuffer>& buffers() const { return buffers_; }
    // The first record with this inode, or null.
    DmaBuffer* Find(uint64_t inode);
    DmaBuffer* Append(uint64_t inode, uint64_t size, uint64_t count, const std::string& exporter,
                      const std::string& name);
    // Hands the records over and leaves the list empty.
    std::vector<DmaBuffer> Release();

  private:
    std::vector<DmaBuffer> buffers_;
    std::unordered_map<uint64_t, size_t> positions_;
};

// Records every DMA-BUF buffer that process pid holds through an open file descriptor, from
// <procfs_path>/<pid>/fdinfo. New buffers are appended to *dmabufs; a record is found by its
// inode along the array from the front, so the array may hold anything its owner put there.
// False at the first failure.
bool ReadDmaBufFdRefs(int pid, std::vector<DmaBuffer>* dmabufs,
                      const std::string& procfs_path = "/proc");
bool ReadDmaBufFdRefs(int pid, DmaBufferList* dmabufs, const std::string& procfs_path = "/proc");

// Records every DMA-BUF buffer that process pid maps, from <procfs_path>/<pid>/maps; a buffer
// not yet recorded gets its exporter and size from dmabuf_sysfs_path. False when the maps
// file cannot be opened or a line is malformed.
bool ReadDmaBufMapRefs(int pid, std::vector<DmaBuffer>* dmabufs,
                       const std::string& procfs_path = "/proc",
                       const std::string& dmabuf_sysfs_path = "/sys/kernel/dmabuf/buffers");
bool ReadDmaBufMapRefs(int pid, DmaBufferList* dmabufs, const std::string& procfs_path = "/proc",
                       const std::string& dmabuf_sysfs_path = "/sys/kernel/dmabuf/buffers");

}  // namespace android::dmabufinfo
