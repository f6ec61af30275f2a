// SPDX-License-Identifier: GPL-2.0
/* The server's end of the data link: its messages, and what a request asks for. */
#ifndef ZORVAT_DATA_LINK_H
#define ZORVAT_DATA_LINK_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <zorvat/file-descriptor.h>
#include <zorvat/transport.h>

#include "wt.h"

namespace zorvat
{

/* What requests are checked against. */
struct ServedDisk {
	DiskHandle handle;
	uint64_t block_size;
	uint64_t blocks;
	std::span<std::byte> area;
};

/* A range of the disk in bytes, and where in the service area it belongs. */
struct ReadRequest {
	uint64_t offset = 0;
	std::span<std::byte> memory;
};

/*
 * Reads a request, of which nothing is trusted. Returns 0, or the positive error number to answer
 * with: then nothing of the request may be used.
 */
int parse_request(const wt_netlinkmsg_hdr &request, const ServedDisk &disk, ReadRequest &parsed);

/* The answer to a request; error: 0 or a positive error number. */
wt_netlinkmsg_hdr make_reply(const wt_netlinkmsg_hdr &request, int error);

/* One connection from the driver. */
class DataLink
{
public:
	explicit DataLink(FileDescriptor connection);

	enum Event {
		nothing, // no whole message yet
		message,
		ended
	};
	/* Takes what has arrived, without waiting. */
	Event receive(wt_netlinkmsg_hdr &message);
	/* Whether it could be sent; the connection is lost otherwise. */
	bool send(const wt_netlinkmsg_hdr &message);

	int descriptor() const
	{
		return connection_.get();
	}

private:
	FileDescriptor connection_;
	wt_netlinkmsg_hdr incoming_{};
	size_t received_ = 0; // bytes of it
};

} // namespace zorvat

#endif
