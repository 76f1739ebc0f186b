#include "kmem.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "fields.h"
#include "paths.h"
#include "unmapped.h"

/* FIXME: stub, replaced by the real report. */
int parse_kernel_memory() { return 0; }

#define KMODULE_COLUMN_BUF 64

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
        while (fgets(line, sizeof(line), fp)) {
            const char *bar = strchr(line, '|');
            /* The first column, the bar turned into a line end. One that would not fit the
             * column buffer with its newline counts as no column: the line is printed whole,
             * as a line without a bar is, rather than as a cut-off name. */
            if (!bar || copy_field(column, sizeof(column) - 1, line, bar)) {
                printf("%s", line);
                continue;
            }
            column[bar - line] = '\n';
            column[bar - line + 1] = '\0';
            printf("%s", column);
        }
    }
    fclose(fp);
    return 0;
}
