/* SPDX-License-Identifier: GPL-2.0 */
/* Stream sockets. All of these may sleep for as long as the peer likes. */
#ifndef KA_SOCKET_H
#define KA_SOCKET_H

#include "types.h"

KA_BEGIN_DECLS

struct ka_mapping;
struct socket;

/* A TCP socket over IPv4, not connected; an error pointer on failure. */
struct socket *ka_sock_create_tcp(void);
/* Both in host byte order. 0, -EINPROGRESS, or another negative error. */
int ka_sock_connect(struct socket *socket, uint32_t address, uint16_t port);
/*
 * One send of `length` bytes, without SIGPIPE. `total` is what the caller says the whole message
 * has; only 2.6.32 takes note of it. The bytes sent, or a negative error.
 */
int ka_sock_sendmsg(struct socket *socket, const void *buffer, size_t length, size_t total);
/*
 * The peer is the process that the mapping was taken from. Once that is being killed, the stream is
 * at its end. The process itself would close it only when its last thread has ended, and that may
 * be waiting for an answer to come through here.
 */
void ka_sock_end_with_process(struct socket *socket, const struct ka_mapping *mapping);
/* One receive that waits for the full size. The bytes received, 0 at the end of the stream. */
int ka_sock_recvmsg(struct socket *socket, void *buffer, size_t size);
/* Closes the connection and frees the socket. */
void ka_sock_release(struct socket *socket);

KA_END_DECLS

#endif
