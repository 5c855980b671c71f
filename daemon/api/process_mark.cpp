// SPDX-License-Identifier: Apache-2.0

#include "daemon/api/process_mark.h"

#include <random>

namespace l2fibd {

const std::string &process_mark()
{
    static const std::string mark = std::to_string(std::random_device()());
    return mark;
}

} // namespace l2fibd
