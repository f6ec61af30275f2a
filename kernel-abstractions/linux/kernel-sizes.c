/* SPDX-License-Identifier: GPL-2.0 */
/* Compiled to assembly only: kernel-sizes.h is made of the constants in it. */
#define KA_MAKING_SIZES
#include <linux/kbuild.h>

#include "objects.h"

int main(void)
{
#define KA_DEFINE_SIZE(NAME, type) DEFINE(KA_SIZEOF_##NAME, sizeof(type));
	KA_FOR_EACH_OBJECT(KA_DEFINE_SIZE)
	return 0;
}
