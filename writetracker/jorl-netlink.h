// SPDX-License-Identifier: GPL-2.0
// The data link to a disk's server: a TCP connection on the loopback address on which requests and
// replies travel, one at a time, and never the data. Sends and receives have no time limit.
#ifndef WT_JORL_NETLINK_H
#define WT_JORL_NETLINK_H

#include "../h/wt.h"
#include "../kernel-abstractions/socket.h"

int jorl_netlink_init();
int jorl_netlink_cleanup();

// Connects to the port on 127.0.0.1, of which the low 16 bits count. An error pointer on failure.
socket *jorl_netlink_connect(unsigned int port);
// Sends the whole buffer: the bytes sent, or a negative error.
int jorl_netlink_send(socket *sock, const void *buf, size_t size);
// One receive: the bytes received, which may be fewer, or a negative error.
int jorl_netlink_recv(socket *sock, void *buf, size_t size);
// Tells the server and closes the connection. Always 0.
int jorl_netlink_disconnect(socket *sock);

#endif
