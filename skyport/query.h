// The query of a request's target: names and values behind its '?'.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace skyport {

/// A name that a query may have, and where its value goes: a text, or a number of digits alone.
struct QueryField {
  const char* name;
  std::string* text;
  uint64_t* number;
};

/// Reads the query of `target`, if any; what it lacks stays as it is. An empty text, or what is wrong with it.
std::string read_query(const std::string& target, std::initializer_list<QueryField> fields);

}  // namespace skyport
