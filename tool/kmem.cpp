#include "kmem.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <new>

#include "fields.h"
#include "paths.h"
#include "unmapped.h"
#include "wrap.h"

/* The /proc/meminfo counters that make up the kernel's own memory, each with its colon so that
 * ShmemHugePages and the like do not match. Kernel stacks count only when they do not come from
 * vmalloc, which VmallocUsed already holds. */
static const struct {
    const char *key;
    bool is_stack;
} meminfo_keys[] = {
    {"Shmem:", false},       {"SUnreclaim:", false}, {"PageTables:", false},
    {"VmallocUsed:", false}, {"KernelStack:", true},
};

/* True when the running kernel's configuration says its stacks are vmalloc-backed. A read
 * error ends the scan as if the line were absent, and is named on standard error, as is a
 * file that is not gzip data (zlib then reads it as plain text): either way the stacks may be
 * counted on a kernel that does not need it, and the user should know why. */
static bool kernel_has_vmap_stack(gzFile config)
{
    char line[LINE_BUF_SIZE];
    bool found = false;
    int err = Z_OK;

    while (!found && gzgets(config, line, sizeof(line)))
        found = strstr(line, "CONFIG_VMAP_STACK=y") != NULL;
    const char *why = gzerror(config, &err);
    if (err != Z_OK)
        fprintf(stderr, "quarrystat: cannot read %s\n", why); /* zlib's text names the file */
    else if (gzdirect(config))
        fprintf(stderr, "quarrystat: %s is not gzip data; read as plain text\n", PROC_CONFIG_GZ);
    return found;
}

int parse_meminfo_line(const char *line, char key[MEMINFO_FIELD_BUF], long *kb)
{
    char field[MEMINFO_FIELD_BUF];
    const char *colon = strchr(line, ':');
    const char *unit = strstr(line, " kB");
    int index = -1;

    for (size_t i = 0; i < sizeof(meminfo_keys) / sizeof(meminfo_keys[0]); i++) {
        if (!strncmp(line, meminfo_keys[i].key, strlen(meminfo_keys[i].key))) {
            index = static_cast<int>(i);
            break;
        }
    }
    if (index < 0)
        return MEMINFO_NOT_COUNTED;
    /* "Key:   1234 kB": the number runs from the colon through the blank before " kB". A
     * counted line without that shape is malformed rather than a 0. */
    if (!unit || copy_field(field, sizeof(field), colon + 1, unit + 1))
        return MEMINFO_MALFORMED;
    *kb = strtol(field, NULL, 10);
    copy_field(key, MEMINFO_FIELD_BUF, line, colon);
    return index;
}

int parse_kernel_memory()
{
    char line[LINE_BUF_SIZE];
    char key[MEMINFO_FIELD_BUF];
    long sum = 0, value;
    FILE *fp = fopen(PROC_MEMINFO, "r");

    if (!fp)
        return -EEXIST;
    gzFile config = gzopen(PROC_CONFIG_GZ, "r");
    if (!config) {
        fclose(fp);
        return -EEXIST;
    }
    bool vmap_stack = kernel_has_vmap_stack(config);
    gzclose(config);

    while (fgets(line, sizeof(line), fp)) {
        int index = parse_meminfo_line(line, key, &value);
        if (index == MEMINFO_NOT_COUNTED)
            continue;
        if (index == MEMINFO_MALFORMED) {
            /* Left out, and said so, rather than counted as some other number. */
            fprintf(stderr, "quarrystat: skipped malformed " PROC_MEMINFO " line: %s%s", line,
                    strchr(line, '\n') ? "" : "\n");
            continue;
        }
        printf("%s: ", key);
        printf("%ld KB\n", value);
        if (!meminfo_keys[index].is_stack) {
            sum = kb_add(sum, value);
        } else if (!vmap_stack) {
            sum = kb_add(sum, value);
            puts("CONFIG_VMAP_STACK is not set.");
        }
    }
    report_read_error(fp, PROC_MEMINFO);
    try {
        sum = kb_add(sum, get_unmapped_buf_total());
    } catch (const std::bad_alloc &) {
        fclose(fp); /* get_unmapped_buf_total has said what ran out */
        return -ENOMEM;
    }
    printf("Kernel Memory total size = %ld KB\n", sum);
    fclose(fp);
    return 0;
}

bool kmodule_first_column(const char *line, char column[KMODULE_COLUMN_BUF])
{
    const char *bar = strchr(line, '|');

    /* The first column with the bar turned into a line end. One that would not fit the
     * column buffer with its newline counts as no column: the line is then printed whole, as
     * a line without a bar is, rather than as a cut-off name. */
    if (!bar || copy_field(column, KMODULE_COLUMN_BUF - 1, line, bar))
        return false;
    column[bar - line] = '\n';
    column[bar - line + 1] = '\0';
    return true;
}

/* The module table is text, one module a line, columns separated by '|', the module name
 * (possibly padded with blanks) first. */
int show_kmodule_mem(char *name)
{
    char line[LINE_BUF_SIZE];
    char column[KMODULE_COLUMN_BUF];
    FILE *fp = fopen(KO_MEMORY_STAT, "r");

    if (!fp)
        return -EEXIST;
    if (name) {
        bool found = false;
        while (!found && fgets(line, sizeof(line), fp)) {
            if (strstr(line, name)) {
                printf("%s", line);
                found = true;
            }
        }
        if (!found)
            printf("%s%s doesn't exit\n", name, ".ko");
    } else {
        while (fgets(line, sizeof(line), fp))
            printf("%s", kmodule_first_column(line, column) ? column : line);
    }
    report_read_error(fp, KO_MEMORY_STAT);
    fclose(fp);
    return 0;
}
