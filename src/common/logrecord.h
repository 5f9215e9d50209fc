#pragma once

#include <cstdarg>
#include <string>

namespace corvel {

/// Composes one record of the debug log, with the present local time and the ids of process and thread.
///
/// @param component,function  stand as they are; null reads "(null)", as printf has it.
/// @param file       path of the source, of which the name and its extension stay; null is an empty name.
/// @param format     printf's narrow format, positional parameters allowed. A message that cannot be printed
///                   is named by its format; one with a NUL in it ends there.
/// @return the record with its line end, in the bytes of the texts that came in. Throws std::bad_alloc.
std::string ComposeLogRecord(int level, const char* component, const char* function, const char* file,
                             int line, const char* format, std::va_list arguments);

}  // namespace corvel
