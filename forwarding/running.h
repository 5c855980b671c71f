// SPDX-License-Identifier: Apache-2.0

// forwarding.h for a plane of one's own: tests, and who embeds another plane.
#pragma once

#include <memory>
#include <string>

#include "forwarding/forwarding.h"

namespace forwarding {

// As start, whatever `options` says about the plane.
std::string start_on(std::unique_ptr<plane> source, const options &options);

} // namespace forwarding
