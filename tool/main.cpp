/* quarrystat: memory accounting for 64-bit Arm Android devices. One option, one report. */
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kmem.h"
#include "paths.h"
#include "reserved.h"
#include "unmapped.h"

enum {
    MODE_NONE = 0,
    MODE_SHOW = 1,
    MODE_PHYADDR = 2,
    MODE_KMODULE = 3,
};

static const char usage_long[] =
    "Usage:\n"
    "\t\t\t\tquarrystat\n"
    "\t\t\t\t[-s | --show] Show reserved memory statistics\n"
    "\t\t\t\t[-p | --phyaddr] Look for the region the physical address is in\n"
    "\t\t\t\t[-k <module_name> | --kmodule] Show used memory of kernel_modules\n"
    "\t\t\t\t    eg. -kdebug_ext (no blank space)\n"
    "\t\t\t\t[-n | --kmem ] Show kernel memory\n"
    "\t\t\t\t[-u | --unmapped_dmabuf ] Show unmapped dmabuf details\n"
    "\t\t\t\t[-h | --help] Show help";

static const char usage_short[] = "Usage: quarrystat -s|-p <paddr>|-k<kmodule_name> |-n | -u";

/* Frees the region lists; only the modes that load them have anything to free. */
void release_source(int mode)
{
    if (mode == MODE_SHOW || mode == MODE_PHYADDR)
        release_region_lists();
}

/* Loads the statistics regions and both memblock tables, stopping at the first failure. */
static int load_sources(void)
{
    int ret = parse_reserved_memory_stat();

    if (ret >= 0)
        ret = parse_memblock(MEMBLOCK_RESERVED);
    if (ret >= 0)
        ret = parse_memblock(MEMBLOCK_MEMORY);
    return ret;
}

/* A report that did not reach its reader whole (standard output on a full disk, a closed pipe)
 * must not end with status 0: the status of a run whose report was lost is -EIO unless it
 * already failed otherwise. */
static int output_status(int ret)
{
    errno = 0;
    if (fflush(stdout) == 0 && !ferror(stdout))
        return ret;
    fprintf(stderr, "quarrystat: the report could not be written to standard output: %s\n",
            errno ? strerror(errno) : "write error");
    return ret ? ret : -EIO;
}

/* Runs the chosen report; main only adds the check that its output was written. */
static int run(int argc, char **argv)
{
    static const struct option options[] = {
        {"show", no_argument, NULL, 's'},
        {"phyaddr", required_argument, NULL, 'p'},
        {"kmodule", optional_argument, NULL, 'k'},
        {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0},
    };
    int mode = MODE_NONE;
    char *module = NULL;
    unsigned long addr = 0;
    int opt, index, ret;

    /* -h, -n and -u act as soon as they are read; -s, -p and -k only choose the mode, and
     * the last of them wins. */
    while ((opt = getopt_long(argc, argv, "sp:k::hnu", options, &index)) != -1) {
        switch (opt) {
        case 'h':
            puts(usage_long);
            return -1;
        case 'n':
            /* The report's own failures end with 0; running out of memory does not. */
            return parse_kernel_memory() == -ENOMEM ? -ENOMEM : 0;
        case 'u':
            return show_unmapped_dmabuf();
        case 's':
            mode = MODE_SHOW;
            break;
        case 'p':
            addr = static_cast<unsigned long>(strtol(optarg, NULL, 16));
            mode = MODE_PHYADDR;
            break;
        case 'k':
            module = optarg;
            mode = MODE_KMODULE;
            break;
        default:
            break; /* getopt_long has already named the bad option */
        }
    }

    if (mode == MODE_KMODULE) {
        ret = show_kmodule_mem(module);
        release_source(mode);
        return ret;
    }
    if (mode == MODE_NONE) {
        puts(usage_short);
        return -1;
    }

    ret = load_sources();
    if (ret < 0) {
        release_source(mode);
        return ret;
    }
    if (mode == MODE_PHYADDR) {
        check_physical_addr(addr);
        ret = 0;
    } else {
        ret = print_reserved_report();
    }
    release_source(mode);
    return ret;
}

int main(int argc, char **argv)
{
    /* A reader that went away (quarrystat -u | head -1) is one more way of losing the report:
     * the write fails with EPIPE and the run ends with the same status and message as on a
     * full disk, rather than being killed by the signal midway with a status of its own. */
    signal(SIGPIPE, SIG_IGN);
    return output_status(run(argc, argv));
}
