// SPDX-License-Identifier: GPL-2.0
// The data link. Despite its name it is no netlink: the port id that user space gives when it
// starts a disk is a TCP port.
#include "jorl-netlink.h"

#include "../kernel-abstractions/thread.h"
#include "wt-logging.h"

static constexpr wt_log_group wt_group = WT_LOG_GROUP_JORL_NETLINK;

static constexpr uint32_t LOOPBACK = 0x7f000001;

int jorl_netlink_init()
{
	return 0;
}

int jorl_netlink_cleanup()
{
	return 0;
}

socket *jorl_netlink_connect(unsigned int port)
{
	socket *sock = ka_sock_create_tcp();
	if (ka_is_err(sock)) {
		WT_ERROR("Unable to create socket for port %u. Error %d\n", port,
			 static_cast<int>(ka_ptr_err(sock)));
		return static_cast<socket *>(ka_err_ptr(-KA_ENOMEM));
	}
	int err = ka_sock_connect(sock, LOOPBACK, static_cast<uint16_t>(port));
	if (err != 0 && err != -KA_EINPROGRESS) {
		WT_ERROR("[NETL] Unable to connect to socket on port %u. Error(%d)\n", port, err);
		return static_cast<socket *>(ka_err_ptr(err)); // deliberate: the socket stays
	}
	WT_INFO("[NETL] Successfully connected to socket on port %u via socket %p\n", port,
		static_cast<void *>(sock));
	return sock;
}

// One send of what remains. 0 when it is to be tried again.
static int send_some(socket *sock, const char *rest, size_t left, size_t size)
{
	int sent = ka_sock_sendmsg(sock, rest, left, size);
	switch (sent) {
	case -KA_EAGAIN:
		WT_WARN("[NETL] Socket=%p Unable to send message retrying\n",
			static_cast<void *>(sock));
		return 0;
	case -KA_EINTR:
		WT_WARN("[NETL] Socket=%p Unable to send message due to interruption\n",
			static_cast<void *>(sock));
		ka_flush_signals();
		return 0;
	case -KA_EPIPE:
	case -KA_ENOTCONN:
	case -KA_ECONNRESET:
		WT_WARN("[NETL] Socket=%p connection broken\n", static_cast<void *>(sock));
	}
	if (sent < 0)
		WT_WARN("[NETL] Socket=%p error while sending data on socket. Error(%d)\n",
			static_cast<void *>(sock), sent);
	return sent;
}

int jorl_netlink_send(socket *sock, const void *buf, size_t size)
{
	size_t total = 0;
	while (total < size) {
		const int sent =
			send_some(sock, static_cast<const char *>(buf) + total, size - total, size);
		if (sent < 0)
			return sent;
		total += static_cast<size_t>(sent);
	}
	return static_cast<int>(total);
}

int jorl_netlink_recv(socket *sock, void *buf, size_t size)
{
	int attempts = 0; // counts what is logged
	int received;
	while ((received = ka_sock_recvmsg(sock, buf, size)) == -KA_ERESTARTSYS ||
	       received == -KA_EAGAIN) {
		if (wt_log_above(wt_group, 1))
			attempts++;
		WT_WARN("[NETL] Socket=%p Unable to recv. retrying %d\n", static_cast<void *>(sock),
			attempts);
	}
	if (received >= 0)
		return received;
	if (received == -KA_ENOTCONN) {
		WT_WARN("[NETL] Socket=%p Broken socket detected\n", static_cast<void *>(sock));
		WT_WARN("[NETL] Socket=%p broken socket\n", static_cast<void *>(sock));
	} else {
		WT_WARN("[NETL] Socket=%p Unable to recv data from socket. Error(%d)\n",
			static_cast<void *>(sock), received);
	}
	WT_WARN("[NETL] Socket=%p Error processing recv request.Error(%d)\n",
		static_cast<void *>(sock), received);
	return received;
}

int jorl_netlink_disconnect(socket *sock)
{
	wt_netlinkmsg_hdr message = {};
	message.version = WT_NETLINK_VERSION;
	message.id = WT_NETLINK_CLOSE_ID;
	message.code = WT_NETLINK_CMD_CLOSE;
	// Deliberate: a send that succeeded is complained about as well.
	if (jorl_netlink_send(sock, &message, sizeof(message)) != 0)
		WT_WARN("Unable to disconnect the socket %p\n", static_cast<void *>(sock));
	ka_sock_release(sock);
	return 0;
}
