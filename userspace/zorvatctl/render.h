// SPDX-License-Identifier: GPL-2.0
/* What the subcommands' files share: how they ask, and how they print. */
#ifndef ZORVATCTL_RENDER_H
#define ZORVATCTL_RENDER_H

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <zorvat/transport.h>

#include "commands.h"

using Json = nlohmann::ordered_json;

constexpr uint64_t sector_bytes = 512;

std::unique_ptr<zorvat::Transport> open_transport(const Options &options);

inline std::string dump(const Json &json)
{
	return json.dump(2) + "\n";
}

#endif
