// SPDX-License-Identifier: MIT
// Records and lists of them, for people in columns and for programs as JSON. What is printed is put
// together as JSON in both cases.
#pragma once

#include "command.h"
#include "owners.h"

#include <string_view>

namespace qzctl
{

// These end the program where memory runs out.
Json new_list();
Json new_record();
void append(const Json &list, Json record);
void put(const Json &record, const char *key, const char *text); // null: no value
void put_number(const Json &record, const char *key, double number);
void put_flag(const Json &record, const char *key, bool flag);
// A byte that is no character of UTF-8 becomes U+FFFD.
void put_bytes(const Json &record, const char *key, std::string_view bytes);
// "length", "data" as text and "hex" as it is.
void put_data(const Json &record, std::string_view bytes);

// A list is printed as a table with a line of headings, a record as a line for each key.
int print_list(const Arguments &arguments, const Json &list);
int print_record(const Arguments &arguments, const Json &record);
// On one line; for what is printed as it comes.
void print_json_line(const Json &record);

// Text that came from elsewhere: what is no printable character is shown as \xNN, so that it does
// nothing to a terminal.
void print_text(std::string_view text);

// Whether standard output is a terminal that shows colours, and nobody asked for none.
bool has_colours();

} // namespace qzctl
