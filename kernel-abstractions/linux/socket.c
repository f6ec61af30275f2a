/* SPDX-License-Identifier: GPL-2.0 */
/* Stream sockets. */
#include "../socket.h"

#include <linux/in.h>
#include <linux/net.h>
#include <linux/socket.h>
#include <linux/uio.h>
#include <net/sock.h>

#include "takeovers.h"
#include "this-kernel.h"

/* In ticks: how soon it is seen that the process behind a stream is being killed. */
#define POLL_INTERVAL (HZ / 2)

/* The process is at the other end, as far as that is known, and is being killed. */
static bool is_peer_being_killed(const struct socket *socket)
{
	struct task_struct *process = socket->sk->sk_user_data;

	return process && kernel_is_being_killed(process);
}

/* Whether a call ran out of the time between two looks at the process, which is still well. */
static bool is_to_be_repeated(const struct socket *socket, int result)
{
	return result == -EAGAIN && socket->sk->sk_user_data && !is_peer_being_killed(socket);
}

struct socket *ka_sock_create_tcp(void)
{
	struct socket *socket;
	int err = sock_create(AF_INET, SOCK_STREAM, IPPROTO_TCP, &socket);

	return err ? ERR_PTR(err) : socket;
}

int ka_sock_connect(struct socket *socket, uint32_t address, uint16_t port)
{
	struct sockaddr_in peer = {
		.sin_family = AF_INET,
		.sin_addr.s_addr = htonl(address),
		.sin_port = htons(port),
	};

	return socket->ops->connect(socket, (struct sockaddr *)&peer, sizeof(peer), O_RDWR);
}

int ka_sock_sendmsg(struct socket *socket, const void *buffer, size_t length, size_t total)
{
	int result;

	do {
		struct msghdr message = {.msg_flags = MSG_NOSIGNAL};
		struct kvec vector = {.iov_base = (void *)buffer, .iov_len = length};

		result = kernel_sendmsg(socket, &message, &vector, 1,
					kernel_send_size(length, total));
	} while (is_to_be_repeated(socket, result));
	if (result == -EAGAIN && is_peer_being_killed(socket))
		return -EPIPE;
	/* A wait without limit says so when it was called off, and would not be begun again. */
	return result == -EINTR ? -ERESTARTSYS : result;
}

void ka_sock_end_with_process(struct socket *socket, const struct ka_mapping *mapping)
{
	socket->sk->sk_user_data = kernel_get_process_of(mapping);
	socket->sk->sk_rcvtimeo = POLL_INTERVAL;
	socket->sk->sk_sndtimeo = POLL_INTERVAL;
}

/* What a receive that was called off returns: what has come before that, if anything has. */
static int receive(struct socket *socket, void *buffer, size_t size)
{
	struct msghdr message = {.msg_flags = MSG_NOSIGNAL | MSG_WAITALL};
	struct kvec vector = {.iov_base = buffer, .iov_len = size};

	return kernel_recvmsg(socket, &message, &vector, 1, size, message.msg_flags);
}

int ka_sock_recvmsg(struct socket *socket, void *buffer, size_t size)
{
	size_t received = 0;

	do {
		int result = receive(socket, (char *)buffer + received, size - received);

		if (result > 0)
			received += result;
		else if (is_peer_being_killed(socket))
			break;
		else if (!is_to_be_repeated(socket, result))
			return received ? received : result;
	} while (received < size && !(received && signal_pending(current)));
	return received;
}

void ka_sock_release(struct socket *socket)
{
	struct task_struct *process = socket->sk->sk_user_data;

	socket->sk->sk_user_data = NULL;
	sock_release(socket);
	if (process)
		put_task_struct(process);
}
