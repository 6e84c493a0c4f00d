#include "log/src/Message.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

namespace tavrik {
namespace {

// The conversions that nearly all messages are made of. vsnprintf takes half of a log line's time,
// most of it for getting ready for all the others.
class SimpleFormat {
  public:
    SimpleFormat(char* to, size_t size, va_list arguments) : at(to), end(to + size - 1) {
        va_copy(args, arguments);
    }
    ~SimpleFormat() { va_end(args); }
    SimpleFormat(const SimpleFormat&) = delete;
    SimpleFormat& operator=(const SimpleFormat&) = delete;

    // False if the format has something else in it; then `to` holds anything.
    bool write(const char* format) {
        for (;;) {
            const char* const percent = strchrnul(format, '%');
            append({format, static_cast<size_t>(percent - format)});
            if (*percent == '\0') break;
            if (!convert(percent[1])) return false;
            format = percent + 2;
        }
        *at = '\0';
        return true;
    }

  private:
    bool convert(char conversion) {
        switch (conversion) {
            case 's':
                return text(va_arg(args, const char*));
            case 'd':
            case 'i':
                return number(va_arg(args, int));
            case 'u':
                return number(va_arg(args, unsigned));
            case '%':
                return append("%");
            default:
                return false;
        }
    }

    bool text(const char* value) { return value != nullptr && append(value); }

    template <typename Number>
    bool number(Number value) {
        char digits[12];
        const auto last = std::to_chars(digits, std::end(digits), value).ptr;
        return append({digits, static_cast<size_t>(last - digits)});
    }

    // Cuts what does not fit.
    bool append(std::string_view value) {
        const size_t length = std::min(value.size(), static_cast<size_t>(end - at));
        memcpy(at, value.data(), length);
        at += length;
        return true;
    }

    char* at;
    char* const end;
    va_list args;
};

}  // namespace

void formatMessage(char* to, size_t size, const char* format, va_list args) {
    if (SimpleFormat(to, size, args).write(format)) return;
    to[0] = '\0';
    vsnprintf(to, size, format, args);
}

}  // namespace tavrik
