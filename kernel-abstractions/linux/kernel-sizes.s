	.file	"kernel-sizes.c"
# GNU C11 (Debian 12.2.0-14+deb12u1) version 12.2.0 (x86_64-linux-gnu)
#	compiled by GNU C version 12.2.0, GMP version 6.2.1, MPFR version 4.2.0, MPC version 1.3.1, isl version isl-0.25-GMP

# GGC heuristics: --param ggc-min-expand=100 --param ggc-min-heapsize=131072
# options passed: -mno-sse -mno-mmx -mno-sse2 -mno-3dnow -mno-avx -m64 -mno-80387 -mno-fp-ret-in-387 -mpreferred-stack-boundary=3 -mskip-rax-setup -mtune=generic -mno-red-zone -mcmodel=kernel -mindirect-branch=thunk-extern -mindirect-branch-register -mindirect-branch-cs-prefix -mfunction-return=thunk-extern -mharden-sls=all -mrecord-mcount -mfentry -march=x86-64 -O2 -std=gnu11 -p -fno-strict-aliasing -fno-common -fshort-wchar -fno-PIE -fcf-protection=none -falign-jumps=1 -falign-loops=1 -fno-asynchronous-unwind-tables -fno-jump-tables -fno-delete-null-pointer-checks -fno-allow-store-data-races -fstack-protector-strong -ftrivial-auto-var-init=zero -fno-stack-clash-protection -fno-strict-overflow -fstack-check=no -fconserve-stack -fno-builtin-wcslen
	.text
	.section	.text.startup,"ax",@progbits
	.p2align 4
	.globl	main
	.type	main, @function
main:
1:	call	__fentry__
	.section __mcount_loc, "a",@progbits
	.quad 1b
	.previous
# /work/trees/vm/kernel-abstractions/linux/kernel-sizes.c:11: 	KA_FOR_EACH_OBJECT(KA_DEFINE_SIZE)
#APP
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_MUTEX $32 sizeof(struct mutex)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_RWSEM $40 sizeof(struct rw_semaphore)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_COMPLETION $32 sizeof(struct completion)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_KOBJECT $64 sizeof(struct kobject)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_KOBJ_TYPE $48 sizeof(struct kobj_type)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_BIN_ATTRIBUTE $64 sizeof(struct bin_attribute)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_DELAYED_WORK $88 sizeof(struct delayed_work)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_BLOCK_DEVICE_OPERATIONS $152 sizeof(struct block_device_operations)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_KSET_UEVENT_OPS $24 sizeof(struct kset_uevent_ops)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_MISCDEVICE $360 sizeof(struct ka_kernel_misc)"	#
# 0 "" 2
# 11 "/work/trees/vm/kernel-abstractions/linux/kernel-sizes.c" 1
	
.ascii "->KA_SIZEOF_GENL_FAMILY $1640 sizeof(struct ka_kernel_genl)"	#
# 0 "" 2
# /work/trees/vm/kernel-abstractions/linux/kernel-sizes.c:13: }
#NO_APP
	xorl	%eax, %eax	#
	jmp	__x86_return_thunk
	.size	main, .-main
	.ident	"GCC: (Debian 12.2.0-14+deb12u1) 12.2.0"
	.section	.note.GNU-stack,"",@progbits
