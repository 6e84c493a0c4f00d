// How a log message is made from a printf format; for the .cpp files of this folder.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace tavrik {

// Writes what vsnprintf(to, size, format, args) writes, a terminating zero included; `size` is 1 or
// more. `to` is empty where vsnprintf fails. Does not use the heap for messages of plain text, %s,
// %d, %i, %u and %%. Threads: any.
void formatMessage(char* to, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

}  // namespace tavrik
