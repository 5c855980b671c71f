// SPDX-License-Identifier: Apache-2.0

// This room is the plane of recorded tables: links.json and fdb.json in one directory, as `ip -j -d link show` and
// `bridge -j -d -s fdb show` printed them on some machine. Nothing changes, and reading needs no privilege.
//
// An element of fdb.json may have two members that those programs do not print:
//      "edm_flags"  a number: EDM_MAC_ bits that no kernel has
//      "backbone"   a MAC address: the backbone address of a backbone entry
// Ages count from the moment at which the tables are loaded.
//
// Threads: load_recorded_plane may run on any thread; the plane keeps the rules of plane.h.
#pragma once

#include <memory>
#include <string>

#include "forwarding/plane.h"

namespace forwarding {

// Reads the tables of `directory` into a new plane. A failure leaves `loaded` as it is and names the file, the element
// and what was expected.
base::result load_recorded_plane(const std::string &directory, std::unique_ptr<plane> &loaded);

} // namespace forwarding
