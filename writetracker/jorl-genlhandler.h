// SPDX-License-Identifier: GPL-2.0
// Execution of the generic-netlink commands about restore disks.
#ifndef WT_JORL_GENLHANDLER_H
#define WT_JORL_GENLHANDLER_H

#include "../kernel-abstractions/genetlink.h"
#include "jorl-manager.h"

// Both return 0 once they have answered; an error is left to the caller to acknowledge. The caller
// holds a reference on the manager, and on the disk.
int jorlmanager_process_genl_msg(jorlmanager_context_t *context, sk_buff *skb, genl_info *info);
int jorlmanager_process_volume_genl_msg(jorlvolume_info *volume, sk_buff *skb, genl_info *info);

#endif
