// SPDX-License-Identifier: Apache-2.0

#include "cli/options.h"

#include <algorithm>

namespace l2fibctl {

std::string filter_value(const client_options &options, std::string_view name)
{
    const auto found = std::ranges::find(options.filters, name, &filter::name);
    return found != options.filters.end() ? found->value : "";
}

} // namespace l2fibctl
