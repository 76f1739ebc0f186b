/* Reserved-memory accounting.
 *
 * The kernel's debug extension publishes how boot memory was reserved, one region a line:
 *     [fdt_no-map] modem_region: addr 0x8b800000, size 112640 KB
 * followed by total lines such as "fdt_no-map total: size 307200 KB". debugfs adds the
 * memblock tables, one inclusive range a line:
 *        2: 0x0000000080000000..0x00000000809fffff
 * (kernels from 6.5 on append a node id and a flags word after the range). These are loaded
 * into three lists; the -s report copies the statistics file with figures of our own inserted,
 * and the -p lookup says which region holds an address. */
#include "reserved.h"

#include <errno.h>
#include <fts.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "fields.h"
#include "paths.h"
#include "wrap.h"

struct list_head reserved_list = LIST_HEAD_INIT(reserved_list);
struct list_head memblock_reserved_list = LIST_HEAD_INIT(memblock_reserved_list);
struct list_head memblock_memory_list = LIST_HEAD_INIT(memblock_memory_list);

/* Memory ranges that start at a DDR bank base follow no gap of their own. */
#define DDR_BANK0_BASE 0x80000000UL
#define DDR_BANK1_BASE 0x880000000UL

/* Widths of the number texts; a longer text makes its line unusable (see copy_field). */
#define STAT_NUM_BUF 16
#define MEMBLOCK_NUM_BUF 20
#define IOMEM_NUM_BUF 16

/* A table or statistics number: strtol() in base 16, saturating at LONG_MAX and LONG_MIN as
 * strtol() does, then kept as an unsigned 64-bit value. */
static uint64_t hex_number(const char *text)
{
    return static_cast<uint64_t>(strtol(text, NULL, 16));
}

static bool is_strtol_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int parse_size_kb(const char *line, long *kb)
{
    char num[STAT_NUM_BUF];
    const char *size = strstr(line, "size");
    const char *unit = strstr(line, "KB");

    /* "size", one separator, the number, one blank, "KB". */
    if (!size || !unit || copy_field(num, sizeof(num), size + 5, unit - 1))
        return -EINVAL;
    *kb = strtol(num, NULL, 10);
    return 0;
}

int parse_region_line(const char *line, struct reserved_region *region)
{
    char num[STAT_NUM_BUF];
    const char *open = strchr(line, '[');
    const char *close = strchr(line, ']');
    const char *colon = strchr(line, ':');
    const char *addr = strstr(line, "addr");
    const char *size = strstr(line, ", size");
    long kb;

    if (!addr || !close || !colon)
        return -EINVAL;
    /* The name starts after "] " (one separator skipped) and ends at the first colon. */
    if (copy_field(region->name, sizeof(region->name), close + 2, colon))
        return -EINVAL;
    if (!open || copy_field(region->type, sizeof(region->type), open + 1, close))
        return -EINVAL;
    /* "addr", one separator, the hexadecimal address, then ", size". */
    if (!size || copy_field(num, sizeof(num), addr + 5, size))
        return -EINVAL;
    region->addr = hex_number(num);
    if (parse_size_kb(line, &kb))
        return -EINVAL;
    region->size = static_cast<uint64_t>(kb) << 10;
    region->hole_flag = HOLE_OUTSIDE;
    return 0;
}

int parse_reserved_memory_stat(void)
{
    char line[LINE_BUF_SIZE];
    struct reserved_region parsed;
    FILE *fp = fopen(RESERVED_MEMORY_STAT, "r");
    int ret = 0;

    if (!fp)
        return -EEXIST;
    while (fgets(line, sizeof(line), fp)) {
        if (parse_region_line(line, &parsed))
            continue;
        auto *region =
            static_cast<struct reserved_region *>(malloc(sizeof(struct reserved_region)));
        if (!region) {
            ret = -ENOMEM;
            break;
        }
        *region = parsed;
        list_add_tail(&region->list, &reserved_list);
    }
    report_read_error(fp, RESERVED_MEMORY_STAT);
    fclose(fp);
    return ret;
}

int parse_memblock_line(const char *line, uint64_t *start, uint64_t *end)
{
    char num[MEMBLOCK_NUM_BUF];
    const char *colon = strchr(line, ':');
    const char *dots = strstr(line, "..");
    const char *newline = strchr(line, '\n');
    const char *from, *to;

    if (!colon || !dots || copy_field(num, sizeof(num), colon + 2, dots))
        return -EINVAL;
    *start = hex_number(num);
    /* Only whole lines count: a piece without its newline may have lost digits. */
    if (!newline || newline < dots + 2)
        return -EINVAL;
    /* The end runs from two past ".." to the newline, read as strtol() reads it: the blanks
     * it skips come first, and it stops after the number. Kernels from 6.5 on put a node id
     * and a flags word ("   0 NONE") behind the range; they are not part of the number. */
    from = dots + 2;
    while (from < newline && is_strtol_space(*from))
        from++;
    to = from;
    while (to < newline && !is_strtol_space(*to))
        to++;
    if (copy_field(num, sizeof(num), from, to))
        return -EINVAL;
    *end = hex_number(num);
    return 0;
}

int parse_memblock(const char *path)
{
    char line[LINE_BUF_SIZE];
    struct list_head *head;
    unsigned int counter = 0;
    uint64_t start, end;
    FILE *fp;
    int ret = 0;

    if (!strcmp(path, MEMBLOCK_RESERVED))
        head = &memblock_reserved_list;
    else if (!strcmp(path, MEMBLOCK_MEMORY))
        head = &memblock_memory_list;
    else
        return -EEXIST;

    fp = fopen(path, "r");
    if (!fp)
        return -EEXIST;
    while (fgets(line, sizeof(line), fp)) {
        if (parse_memblock_line(line, &start, &end))
            continue;
        uint64_t size = end - start + 1; /* the table prints inclusive ends */
        if (!list_empty(head)) {
            auto *last = list_entry(head->prev, struct memblock_entry, list);
            if (last->base + last->size == start) {
                last->size += size;
                continue;
            }
        }
        auto *entry = static_cast<struct memblock_entry *>(malloc(sizeof(struct memblock_entry)));
        if (!entry) {
            ret = -ENOMEM;
            break;
        }
        entry->index = static_cast<uint8_t>(counter++);
        entry->base = start;
        entry->size = size;
        list_add_tail(&entry->list, head);
    }
    report_read_error(fp, path);
    fclose(fp);
    return ret;
}

template <typename T>
static void free_list(struct list_head *head)
{
    while (!list_empty(head)) {
        struct list_head *item = head->next;
        list_del(item);
        free(list_entry(item, T, list));
    }
}

void release_region_lists(void)
{
    free_list<struct reserved_region>(&reserved_list);
    free_list<struct memblock_entry>(&memblock_memory_list);
    free_list<struct memblock_entry>(&memblock_reserved_list);
}

long lookfor_item_size(const char *name)
{
    char line[LINE_BUF_SIZE];
    FILE *fp = fopen(RESERVED_MEMORY_STAT, "r");
    long kb = 0;

    /* An unreadable file and a missing name both give 0, as a line without a size does: the
     * report then shows that total as 0 rather than a figure taken from some other line. */
    if (!fp)
        return 0;
    while (fgets(line, sizeof(line), fp)) {
        if (strstr(line, name)) {
            if (parse_size_kb(line, &kb))
                kb = 0;
            break;
        }
    }
    fclose(fp);
    return kb;
}

/* Floor of a signed byte count in KB, so that holes and in-hole bytes that were shifted
 * separately still add up when the in-hole bytes exceed the holes. */
static long bytes_to_kb_signed(int64_t bytes)
{
    if (bytes >= 0)
        return static_cast<long>(bytes >> 10);
    return -static_cast<long>((static_cast<uint64_t>(-(bytes + 1)) >> 10) + 1);
}

long cal_bp_hole_size(unsigned long *memhole_kb, unsigned long *nomap_inhole_kb)
{
    struct list_head *pos, *mpos;
    struct memblock_entry *prev = NULL;
    uint64_t holes = 0, inhole = 0;

    list_for_each(pos, &memblock_memory_list) {
        auto *mem = list_entry(pos, struct memblock_entry, list);
        if (prev && mem->base != DDR_BANK0_BASE && mem->base != DDR_BANK1_BASE)
            holes += mem->base - (prev->base + prev->size);
        prev = mem;
    }

    list_for_each(pos, &reserved_list) {
        auto *region = list_entry(pos, struct reserved_region, list);
        uint64_t start = region->addr, end = region->addr + region->size;
        bool placed = false;

        if (!strstr(region->type, "fdt_no-map"))
            continue;
        list_for_each(mpos, &memblock_memory_list) {
            auto *mem = list_entry(mpos, struct memblock_entry, list);
            uint64_t m_start = mem->base, m_end = mem->base + mem->size;

            if (start < m_start && end > m_start) {
                region->hole_flag = HOLE_ACROSS;
                inhole += m_start - start;
            } else if (start >= m_start && end <= m_end) {
                region->hole_flag = HOLE_INSIDE;
            } else if (start < m_end && end > m_end) {
                region->hole_flag = HOLE_ACROSS;
                inhole += end - m_end;
            } else {
                continue;
            }
            placed = true;
            break;
        }
        if (!placed) {
            region->hole_flag = HOLE_OUTSIDE;
            inhole += region->size;
        }
    }

    *memhole_kb = holes >> 10;
    *nomap_inhole_kb = inhole >> 10;
    if (holes >= inhole)
        return static_cast<long>((holes - inhole) >> 10);
    /* No-map regions in front of the first range, or an empty memory table, put more no-map
     * bytes in holes than there are holes. Show the shortfall as a negative figure so the
     * summary still adds up, never as a wrapped unsigned count. */
    return bytes_to_kb_signed(static_cast<int64_t>(holes - inhole)); /* wraps, never overflows */
}

void print_cma_driver_used(bool total_only)
{
    char root[] = CMA_DEBUGFS;
    char *roots[] = {root, NULL};
    char line[LINE_BUF_SIZE];
    uint32_t sum = 0; /* page counts are 32-bit; wrap rather than overflow */
    FTS *fts;
    FTSENT *ent;

    /* FTS_LOGICAL follows the area links and reports directory cycles instead of entering
     * them, so a looping tree ends the walk rather than hanging it. */
    fts = fts_open(roots, FTS_LOGICAL, NULL);
    if (!fts)
        return;
    /* fts_open() succeeds on a root that is not there; its first entry tells. A root that
     * cannot be stat'ed, is no directory, or cannot be entered (its second entry then says
     * FTS_DNR before any area was read) means no CMA line at all, not a total of 0. */
    ent = fts_read(fts);
    if (!ent || ent->fts_info != FTS_D) {
        fts_close(fts);
        return;
    }
    while ((ent = fts_read(fts))) {
        if (ent->fts_level == FTS_ROOTLEVEL && ent->fts_info == FTS_DNR) {
            fts_close(fts);
            return;
        }
        if (ent->fts_info != FTS_F || !S_ISREG(ent->fts_statp->st_mode) ||
            strcmp(ent->fts_name, "used"))
            continue;
        FILE *fp = fopen(ent->fts_accpath, "r");
        if (!fp) {
            printf("%s can't be read\n", ent->fts_path);
            continue;
        }
        if (!fgets(line, sizeof(line), fp)) {
            report_read_error(fp, ent->fts_path);
        } else {
            uint32_t pages = static_cast<uint32_t>(strtol(line, NULL, 10));
            if (!total_only && pages)
                printf("[cma_fix_used] %s: size %d KB\n", ent->fts_parent->fts_name,
                       static_cast<int>(pages * 4));
            sum += pages;
        }
        fclose(fp);
    }
    fts_close(fts);
    if (total_only)
        printf("[CmaFixUsedTotal] size %d KB\n", static_cast<int>(sum * 4));
}

int parse_iomem_line(const char *line, uint64_t *start, uint64_t *end)
{
    char num[IOMEM_NUM_BUF];
    const char *blank = strchr(line, ' ');
    const char *dash = strchr(line, '-');
    const char *colon = strchr(line, ':');

    /* "  80210000-8051ffff : Kernel code": the line's first character is the first of its
     * two indenting blanks, and a blank stands before the colon. */
    if (!blank || !dash || copy_field(num, sizeof(num), blank + 2, dash))
        return -EINVAL;
    *start = hex_number(num);
    if (!colon || copy_field(num, sizeof(num), dash + 1, colon - 1))
        return -EINVAL;
    /* An end below the start is taken as it stands: the kernel prints an empty resource as
     * "start-(start - 1)", which makes a size of 0 KB. */
    *end = hex_number(num);
    return 0;
}

int get_kernel_code_data_info(struct kernel_code_data_region *region, const char *name)
{
    char line[LINE_BUF_SIZE];
    uint64_t start, end;
    FILE *fp = fopen(PROC_IOMEM, "r");
    int ret = -EINVAL;

    if (!fp)
        return -errno;
    while (fgets(line, sizeof(line), fp)) {
        if (!strstr(line, name))
            continue;
        if (!parse_iomem_line(line, &start, &end)) {
            region->addr = start;
            region->size = (end - start + 1) >> 10;
            ret = 0;
        }
        break;
    }
    report_read_error(fp, PROC_IOMEM);
    fclose(fp);
    return ret;
}

static uint64_t sum_sizes(struct list_head *head)
{
    struct list_head *pos;
    uint64_t sum = 0;

    list_for_each(pos, head)
        sum += list_entry(pos, struct memblock_entry, list)->size;
    return sum;
}

static void print_kernel_ranges(long mb_reserved, long cma, long bp)
{
    struct kernel_code_data_region code, data;

    if (!get_kernel_code_data_info(&code, "Kernel code"))
        printf("[MemblockReserved] Kernel code: addr 0x%lx, size %ld KB\n",
               static_cast<unsigned long>(code.addr), static_cast<long>(code.size));
    if (!get_kernel_code_data_info(&data, "Kernel data"))
        printf("[MemblockReserved] Kernel data: addr 0x%lx, size %ld KB\n",
               static_cast<unsigned long>(data.addr), static_cast<long>(data.size));
    printf("[MemblockReserved] MemblockReservedTotal: size %ld KB\n", mb_reserved);
    printf("[MemblockReserved] CmaTotal: size %ld KB\n", cma);
    printf("[BpHoles] BpHoles: size %ld KB\n", bp);
    print_cma_driver_used(false);
}

int print_reserved_report(void)
{
    char line[LINE_BUF_SIZE];
    unsigned long memhole, nomap_inhole;
    long mb_reserved = static_cast<long>(sum_sizes(&memblock_reserved_list) >> 10);
    long total = lookfor_item_size("ReservedMemoryTotal");
    long nomap = lookfor_item_size("fdt_no-map total");
    long cma = lookfor_item_size("fdt_reserved_cma total");
    long bp = cal_bp_hole_size(&memhole, &nomap_inhole);
    FILE *fp = fopen(RESERVED_MEMORY_STAT, "r");

    if (!fp)
        return -EEXIST;
    while (fgets(line, sizeof(line), fp)) {
        printf("%s", line);
        if (strstr(line, "ReservedMemoryTotal"))
            print_cma_driver_used(true);
        if (strstr(line, "initrd"))
            print_kernel_ranges(mb_reserved, cma, bp);
        if (strstr(line, "Summary")) {
            printf("ReservedMemoryTotal %ld KB ?=\n", total);
            printf(
                "%ld KB = bp hole(%ld KB) + fdt_nomap(%ld KB) + mb_reserved(%ld KB) - "
                "cma_total(%ld KB)\n\n",
                kb_add(kb_sub(kb_add(nomap, mb_reserved), cma), bp), bp, nomap, mb_reserved, cma);
            printf("bootloader_memhole(%ld KB) = bp hole(%ld KB) + fdt_nomap_inhole(%ld KB)\n\n",
                   static_cast<long>(memhole), bp, static_cast<long>(nomap_inhole));
            printf("fdt nomap(%ld KB) = fdt_nomap_inkernel (%ld KB) + fdt_nomap_inhole(%ld KB)\n\n",
                   nomap, kb_sub(nomap, static_cast<long>(nomap_inhole)),
                   static_cast<long>(nomap_inhole));
        }
    }
    fclose(fp);
    return 0;
}

/* Inclusive containment in unsigned 64-bit arithmetic: the last byte is addr + size - 1. */
static bool range_contains(uint64_t start, uint64_t size, uint64_t addr)
{
    return start <= addr && addr <= start + size - 1;
}

static bool memblock_contains(struct list_head *head, uint64_t addr)
{
    struct list_head *pos;

    list_for_each(pos, head) {
        auto *entry = list_entry(pos, struct memblock_entry, list);
        if (range_contains(entry->base, entry->size, addr))
            return true;
    }
    return false;
}

/* The two DDR banks: 2 GiB from 0x80000000 and 30 GiB from 0x880000000. */
static bool is_ddr_address(uint64_t addr)
{
    return (addr >> 31) == 1 || ((addr - DDR_BANK1_BASE) >> 31) < 15;
}

int check_physical_addr(unsigned long addr)
{
    struct list_head *pos;

    if (!is_ddr_address(addr)) {
        printf("0x%lx is not a ddr physical address\n", addr);
        return 0;
    }
    list_for_each(pos, &reserved_list) {
        auto *region = list_entry(pos, struct reserved_region, list);
        if (range_contains(region->addr, region->size, addr)) {
            char type[sizeof(region->type)], name[sizeof(region->name)];
            memcpy(type, region->type, sizeof(type));
            memcpy(name, region->name, sizeof(name));
            printf("0x%lx is in [%s] %s, 0x%lx~0x%lx\n", addr, type, name,
                   static_cast<unsigned long>(region->addr),
                   static_cast<unsigned long>(region->addr + region->size - 1));
            return 0;
        }
    }
    if (!memblock_contains(&memblock_memory_list, addr))
        printf("0x%lx is in bp hole\n", addr);
    else if (memblock_contains(&memblock_reserved_list, addr))
        printf("0x%lx is in reserved memory\n", addr);
    else
        printf("0x%lx is for HLOS use\n", addr);
    return 0;
}
