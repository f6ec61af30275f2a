// SPDX-License-Identifier: GPL-2.0
/* Where a disk's server is reached: by the driver, and by those who look for its port. */
#ifndef ZORVAT_LISTENERS_H
#define ZORVAT_LISTENERS_H

#include <cstdint>
#include <string>
#include <zorvat/file-descriptor.h>
#include <zorvat/restore.h>

namespace zorvat
{

/* A port of the kernel's choice on 127.0.0.1. Constructors throw Error. */
class DriverListener
{
public:
	DriverListener();

	/*
	 * The connection that waits, if it is the driver's; without waiting. Anybody on this
	 * machine can connect. The driver does so in the name of who resumes the disk, so others
	 * than the superuser and the server's own user are sent away.
	 */
	FileDescriptor accept() const;

	uint16_t port() const
	{
		return port_;
	}
	int descriptor() const
	{
		return socket_.get();
	}

private:
	FileDescriptor socket_;
	uint16_t port_ = 0;
};

/*
 * Tells the port to whoever connects, at an address that follows from what the driver tells of the
 * disk. It is a name in the abstract socket namespace, which goes with the process.
 */
class PortTeller
{
public:
	PortTeller(const std::string &disk, uint16_t port);

	/* Answers the one that waits. */
	void answer() const;

	int descriptor() const
	{
		return socket_.get();
	}

private:
	FileDescriptor socket_;
	uint16_t port_;
};

} // namespace zorvat

#endif
