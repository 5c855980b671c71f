// SPDX-License-Identifier: Apache-2.0

// Checks values of options and stores them in the record. Rows of the table (table.h) name these functions.
//
// Threads: pure functions.
#pragma once

#include <cstdint>
#include <string>

#include "cli/line/table.h"

namespace l2fibctl {

// Each returns success or an error that names the value and what was expected.
base::result check_choice(const value_place &place, std::string &value);
base::result check_number(const value_place &place, std::string &value); // from 1 to the row's max_number
base::result check_name(const value_place &place, std::string &value);
base::result check_event(const value_place &place, std::string &value);
base::result check_path(const value_place &place, std::string &value);
base::result check_ip(const value_place &place, std::string &value);
base::result check_age(const value_place &place, std::string &value);
base::result check_address(const value_place &place, std::string &value); // rewrites it in the API's form
base::result check_prefix(const value_place &place, std::string &value);
base::result check_not(const value_place &place, std::string &value); // rewrites it as PARAMETER=VALUE
base::result check_columns(const value_place &place, std::string &value);

void store_filter(client_options &to, const option_row &row, const std::string &value);
void store_not(client_options &to, const option_row &row, const std::string &value);
void store_columns(client_options &to, const option_row &row, const std::string &value);
void store_color(client_options &to, const option_row &row, const std::string &value);
void store_window(client_options &to, const option_row &row, const std::string &value);
void store_aging(client_options &to, const option_row &row, const std::string &value);
void store_word(client_options &to, const option_row &row, const std::string &value);

template <auto member>
void store_flag(client_options &to, const option_row & /*row*/, const std::string & /*value*/)
{
    to.*member = true;
}

template <auto member>
void store_text(client_options &to, const option_row & /*row*/, const std::string &value)
{
    to.*member = value;
}

template <form shown_as>
void store_form(client_options &to, const option_row & /*row*/, const std::string & /*value*/)
{
    to.shown_as = shown_as;
}

// The value has passed check_number.
void store_number_in(uint64_t &to, const std::string &value);
void store_number_in(unsigned &to, const std::string &value);

template <auto member>
void store_number(client_options &to, const option_row & /*row*/, const std::string &value)
{
    store_number_in(to.*member, value);
}

} // namespace l2fibctl
