// What the tool prints to standard output. Scripts read it: every byte counts.
#pragma once

#include "libubus.h"

namespace bus {

// An object's path; with `verbose` its id and a line for each method.
void print_object(const ubus_object_data& obj, bool verbose);

// The table that a call answered: indented by tabs, or with `simple` on one line.
void print_answer(const blob_attr* table, bool simple);

// An event, on one line, at once.
void print_event(const char* type, const blob_attr* table);

// False once memory did not suffice for something that was to be printed.
bool printed_all();

} // namespace bus
