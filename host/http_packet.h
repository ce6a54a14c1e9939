// The platform's packet object and what is behind it.
#pragma once

#include <deque>
#include <string>

#include "abi.h"

namespace host {

/// A request with its serialised head, or a response with its fields.
struct Packet {
  packetheader head{};  // what callers see; its `opaque` points back here

  std::string raw;  // of a request

  struct Field {
    std::string name;
    std::string value;
    packetheader_field_node node{};
  };
  std::deque<Field> fields;  // of a response; a deque, so that nodes stay where they are

  Packet() { head.opaque = this; }
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;

  /// Appends a field behind those that are there.
  void add_field(std::string_view name, std::string_view value) {
    fields.push_back({std::string(name), std::string(value), {}});
    Field& field = fields.back();
    field.node = {field.name.c_str(), field.value.c_str(), nullptr};
    if (fields.size() == 1) {
      head.FirstField = &field.node;
    } else {
      fields[fields.size() - 2].node.NextField = &field.node;
    }
  }
};

}  // namespace host
