// Boot stub, at 0x40400000 (QEMU keeps its own tree at 0x40000000): QEMU starts the CPU here (loaded with -device loader, which leaves the device
// tree as we wrote it, where -kernel would rewrite its memory node). It does what a boot
// loader does for an arm64 Image: x0 = device tree, x1..x3 = 0, jump to the Image.
	.globl	_start
_start:
	ldr	x0, dtb
	mov	x1, xzr
	mov	x2, xzr
	mov	x3, xzr
	ldr	x4, image
	br	x4
	.balign	8
dtb:	.quad	0x8a000000
image:	.quad	0x80200000
