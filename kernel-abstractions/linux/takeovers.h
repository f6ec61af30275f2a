/* SPDX-License-Identifier: GPL-2.0 */
#ifndef KA_LINUX_TAKEOVERS_H
#define KA_LINUX_TAKEOVERS_H

/* Returns when no process has a mapping any more that would call into the module. May sleep. */
void ka_wait_for_takeovers(void);

#endif
