// SPDX-License-Identifier: Apache-2.0

// The compiled part of Boost.JSON. Built from its headers, it needs no library beside the program.

#include <boost/json/src.hpp>
