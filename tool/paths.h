/* Every file quarrystat reads. The paths are fixed on the device; tests run the binary in a
 * chroot laid out the same way instead of changing them. */
#pragma once

#define RESERVED_MEMORY_STAT "/proc/debug_ext/mem_statis/reserved_memory_stat"
#define KO_MEMORY_STAT "/proc/debug_ext/mem_statis/ko_memory_stat"
#define MEMBLOCK_RESERVED "/d/memblock/reserved"
#define MEMBLOCK_MEMORY "/d/memblock/memory"
#define PROC_IOMEM "/proc/iomem"
#define CMA_DEBUGFS "/d/cma"
#define PROC_MEMINFO "/proc/meminfo"
#define PROC_CONFIG_GZ "/proc/config.gz"
#define PROC_ROOT "/proc"
#define DMABUF_SYSFS_BUFFERS "/sys/kernel/dmabuf/buffers"
#define DMABUF_BUFINFO "/d/dma_buf/bufinfo"
#define ION_TOTAL_HEAPS_KB "/sys/kernel/ion/total_heaps_kb"
#define ION_TOTAL_POOLS_KB "/sys/kernel/ion/total_pools_kb"
#define ION_DEVICE "/dev/ion"
