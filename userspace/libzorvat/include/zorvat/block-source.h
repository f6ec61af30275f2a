// SPDX-License-Identifier: GPL-2.0
/* What the contents of a restore disk are read from: an image file, a block device, an NBD server.
 */
#ifndef ZORVAT_BLOCK_SOURCE_H
#define ZORVAT_BLOCK_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace zorvat
{

class BlockSource
{
public:
	virtual ~BlockSource() = default;

	/* In bytes; does not change. */
	virtual uint64_t size() const = 0;

	/*
	 * Fills the memory with what the source has at the offset; all of it lies within size().
	 * Returns 0 or a positive error number; never throws.
	 *
	 * The memory is shown and taken away by the kernel, and can be gone at any moment. It must
	 * be written by system calls only, which fail with EFAULT then: a store of the program's
	 * own would end it.
	 *
	 * Called from one thread at a time.
	 */
	virtual int read(uint64_t offset, std::span<std::byte> memory) noexcept = 0;

	/*
	 * Makes the read that is under way, and all later ones, fail with ECANCELED if they would
	 * wait for long. Called from any thread.
	 */
	virtual void cancel() noexcept
	{
	}
};

/* A raw image, or a block device. Throws Error(bad_image). */
std::unique_ptr<BlockSource> open_image(const std::string &path);

/*
 * An export of an NBD server, as nbd://localhost/name or nbd+unix:///name?socket=PATH. Throws
 * Error(bad_image). A server that went away is connected to again at the next read.
 */
std::unique_ptr<BlockSource> open_nbd(const std::string &uri);

/* Whichever of the two the name means: a URI of NBD's, or a path. */
std::unique_ptr<BlockSource> open_source(const std::string &name);

} // namespace zorvat

#endif
