// SPDX-License-Identifier: GPL-2.0
/*
 * Lab stand-in for the vendor debug extension that quarrystat reads on devices. It publishes
 *   /proc/debug_ext/mem_statis/reserved_memory_stat  the device tree's reserved-memory regions,
 *       their totals, the initrd, the reserved total and a Summary line;
 *   /proc/debug_ext/mem_statis/ko_memory_stat        a per-module memory table.
 * The lab kernel has no loadable modules, so the module table lists parts of the kernel image
 * with the sizes of their text, data and bss as the linker placed them.
 */
#include <linux/init.h>
#include <linux/initrd.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/of.h>
#include <linux/of_address.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <asm/sections.h>

static phys_addr_t initrd_base;
static unsigned long initrd_bytes;

static const char *region_type(struct device_node *np)
{
	if (of_property_read_bool(np, "no-map"))
		return "fdt_no-map";
	if (of_property_read_bool(np, "reusable"))
		return "fdt_reserved_cma";
	return "fdt_reserved";
}

static int reserved_memory_stat_show(struct seq_file *m, void *v)
{
	static const char *const types[] = { "fdt_no-map", "fdt_reserved", "fdt_reserved_cma" };
	struct device_node *parent = of_find_node_by_path("/reserved-memory");
	u64 ddr_bytes;
	int t;

	seq_puts(m, "=============== reserved memory statistics ===============\n");
	for (t = 0; t < ARRAY_SIZE(types); t++) {
		unsigned long long type_kb = 0;
		struct device_node *np;

		for_each_child_of_node(parent, np) {
			struct resource res;

			if (strcmp(region_type(np), types[t]) || of_address_to_resource(np, 0, &res))
				continue;
			seq_printf(m, "[%s] %s: addr 0x%llx, size %llu KB\n", types[t], np->name,
				   (unsigned long long)res.start,
				   (unsigned long long)resource_size(&res) >> 10);
			type_kb += resource_size(&res) >> 10;
		}
		seq_printf(m, "%s total: size %llu KB\n", types[t], type_kb);
	}
	of_node_put(parent);
	if (initrd_bytes)
		seq_printf(m, "[memblock_reserved] initrd: addr 0x%llx, size %lu KB\n",
			   (unsigned long long)initrd_base, initrd_bytes >> 10);
	/*
	 * What the operating system does not get of the DDR: the DDR size (the board's, from the
	 * device tree) less the memory the kernel manages.
	 */
	if (!of_property_read_u64(of_root, "quarry,ddr-size", &ddr_bytes))
		seq_printf(m, "ReservedMemoryTotal: size %llu KB\n",
			   (ddr_bytes >> 10) - (totalram_pages() << (PAGE_SHIFT - 10)));
	seq_puts(m, "======================== Summary ========================\n");
	return 0;
}

struct part {
	const char *name;
	unsigned long text, data, bss;
};

static int ko_memory_stat_show(struct seq_file *m, void *v)
{
	const struct part parts[] = {
		{ "kernel_core", _etext - _stext, _edata - _sdata, __bss_stop - __bss_start },
		{ "kernel_rodata", 0, __end_rodata - __start_rodata, 0 },
		{ "kernel_init", __init_end - __init_begin, 0, 0 },
	};
	int i;

	seq_puts(m, "module name          | text(KB) | data(KB) | bss(KB) | total(KB)\n");
	for (i = 0; i < ARRAY_SIZE(parts); i++)
		seq_printf(m, "%-20s | %8lu | %8lu | %7lu | %9lu\n", parts[i].name,
			   parts[i].text >> 10, parts[i].data >> 10, parts[i].bss >> 10,
			   (parts[i].text + parts[i].data + parts[i].bss) >> 10);
	return 0;
}

static int __init quarry_debug_ext_init(void)
{
	struct proc_dir_entry *dir;

	/* The initrd's place is only known while init memory lives; keep it for the report. */
	initrd_base = phys_initrd_start;
	initrd_bytes = phys_initrd_size;

	dir = proc_mkdir("debug_ext", NULL);
	dir = dir ? proc_mkdir("mem_statis", dir) : NULL;
	if (!dir)
		return -ENOMEM;
	proc_create_single("reserved_memory_stat", 0444, dir, reserved_memory_stat_show);
	proc_create_single("ko_memory_stat", 0444, dir, ko_memory_stat_show);
	return 0;
}
device_initcall(quarry_debug_ext_init);
