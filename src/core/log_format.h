// Log texts that stand in tables: the compiler counts their conversions where the table is written.
#pragma once

#include <cstddef>
#include <type_traits>

#include "core/debug_log.h"

namespace kestrel {

/// What one conversion takes: "%d" an int, "%s" a text.
template <char Conversion>
using LogArgument = std::conditional_t<Conversion == 'd', int, const char*>;

/// Never defined: a call of it stops the compiler at a table's wrong text.
void the_text_has_other_conversions();

/// A text for debug_log with exactly these conversions in this order, or with none; a null text is not logged.
template <char... Conversions>
struct LogFormat {
  static_assert(((Conversions == 'd' || Conversions == 's') && ...));
  const char* text = nullptr;

  constexpr LogFormat() = default;
  constexpr LogFormat(std::nullptr_t) {}
  consteval LogFormat(const char* format) : text(format) {
    const char wanted[] = {Conversions..., '\0'};
    std::size_t found = 0;
    for (const char* at = format; *at != '\0'; ++at) {
      if (*at == '%' && *++at != wanted[found++]) the_text_has_other_conversions();
    }
    const bool none = found == 0;
    if (!none && found != sizeof...(Conversions)) the_text_has_other_conversions();
  }
};

/// Logs a text of a table, when there is one. Never inlined: its callers are many, and the daemon is to be small.
template <char... Conversions>
[[gnu::noinline]] void log_if(LogFormat<Conversions...> format, LogArgument<Conversions>... args) {
  if (format.text == nullptr) return;
  if constexpr (sizeof...(Conversions) == 0) {
    debug_log("%s", format.text);
  } else {
    debug_log(format.text, args...);
  }
}

}  // namespace kestrel
