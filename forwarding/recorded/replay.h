// SPDX-License-Identifier: Apache-2.0

// Recorded tables: what `ip -j -d link show` and `bridge -j -d -s fdb show` printed on some machine, as links.json and
// fdb.json in one directory. Nothing changes and no privilege is needed.
//
// Beside what those programs print, an element of fdb.json may have:
//      "edm_flags"  a number: EDM_MAC_ bits that no kernel has
//      "backbone"   a MAC address: the backbone address of a backbone entry
// Ages count from the moment at which the tables are loaded.
#pragma once

#include <memory>
#include <string>

#include "forwarding/plane.h"

namespace forwarding {

// Null with a text that names the file, the element and what was expected.
std::unique_ptr<plane> load_recorded_plane(const std::string &directory, std::string &error);

} // namespace forwarding
