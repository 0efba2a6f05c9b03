#pragma once

#include <cstddef>

// What of the process's memory is resident, in KiB. Sanitizers, valgrind and emulators have costs
// of their own, so figures are only comparable where resident_memory_is_our_own() holds.

bool resident_memory_is_our_own();
size_t resident_kib();
size_t resident_peak_kib(); // since the process's start or the last reset
void reset_resident_peak();
