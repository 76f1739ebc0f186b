/* Reserved-memory accounting: the region lists loaded from the debug extension's statistics
 * and the memblock tables, the -s report and the -p address lookup. */
#pragma once

#include <stdint.h>

#include "list.h"

/* Where a no-map region stands against the memblock memory ranges. */
enum {
    HOLE_OUTSIDE = 0, /* wholly in a hole */
    HOLE_ACROSS = 1,  /* reaches across the start or the end of a memory range */
    HOLE_INSIDE = 2,  /* wholly inside a memory range */
};

struct reserved_region {
    char name[64];
    char type[20];
    uint64_t addr;
    uint64_t size; /* bytes */
    uint32_t hole_flag;
    struct list_head list;
};

struct memblock_entry {
    uint8_t index;
    uint64_t base;
    uint64_t size; /* bytes */
    struct list_head list;
};

struct kernel_code_data_region {
    uint64_t addr;
    uint64_t size; /* KB */
};

extern struct list_head reserved_list;
extern struct list_head memblock_reserved_list;
extern struct list_head memblock_memory_list;

/* Loaders: 0, -EEXIST when the file cannot be opened, -ENOMEM when a record cannot be made. */
int parse_reserved_memory_stat(void);
int parse_memblock(const char *path);
void release_region_lists(void);

/* Size in KB on the first statistics line that contains name; 0 when there is none. */
long lookfor_item_size(const char *name);

/* Line parsers, kept apart from the files so they can be tested on their own.
 * Each returns 0, or -EINVAL for a line to skip. */
int parse_region_line(const char *line, struct reserved_region *region);
int parse_size_kb(const char *line, long *kb);
int parse_memblock_line(const char *line, uint64_t *start, uint64_t *end);
int parse_iomem_line(const char *line, uint64_t *start, uint64_t *end);

int print_reserved_report(void);
long cal_bp_hole_size(unsigned long *memhole_kb, unsigned long *nomap_inhole_kb);
void print_cma_driver_used(bool total_only);
int get_kernel_code_data_info(struct kernel_code_data_region *region, const char *name);

int check_physical_addr(unsigned long addr);
