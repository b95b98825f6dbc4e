// Text: the string checks and conversions the kit needs, on ICU.
//
// Pure functions, safe from any thread.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

// Whether `bytes` are well-formed UTF-8 (no overlong forms, no surrogates,
// nothing past U+10FFFF), as the platform's UTF-8 decoder demands.
bool isValidUtf8(std::string_view bytes);

// printf-style formatting into a string (the logs' stringWithFormat:).
std::string stringWithFormatv(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));

}  // namespace nimb
