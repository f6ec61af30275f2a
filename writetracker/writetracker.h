// SPDX-License-Identifier: GPL-2.0
// The driver as a whole: load, staged start-up with retry, unload. init_module and cleanup_module
// are declared by the contract.
#ifndef WT_WRITETRACKER_H
#define WT_WRITETRACKER_H

#include "writetracker-context.h"
#include "wt-logging.h"

// A counted reference on the driver context, which keeps the driver loaded while it is held.
class ContextRef
{
public:
	ContextRef() : held(ka_kobject_get(&wt_context.kobj) != nullptr)
	{
	}
	~ContextRef()
	{
		if (held)
			ka_kobject_put(&wt_context.kobj);
	}
	ContextRef(const ContextRef &) = delete;
	ContextRef &operator=(const ContextRef &) = delete;

	// False when the context can no longer be referenced.
	explicit operator bool() const
	{
		return held;
	}

private:
	bool held;
};

// Copies the driver's version to the calling process. -EAGAIN without a context; -EACCES when the
// copy fails, which is logged in the caller's group.
int copy_driver_version(wt_log_group wt_group, void *record);

#endif
