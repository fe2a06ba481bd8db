// ZPHAgent: the support agent who has joined a session, as the session resource
// names them under "agent". A plain value: build, copy and read it on any thread.
#pragma once

#include <optional>
#include <string>

#include "zephlo/base/value.hpp"

namespace zephlo {

class ZPHAgent {
 public:
  ZPHAgent(std::string id, std::string name) : id_(std::move(id)), name_(std::move(name)) {}

  // An agent when `value` is a map holding both "id" and "name", else empty.
  // Text values are taken as they are and integers in decimal; a present value
  // of any other kind reads as "".
  static std::optional<ZPHAgent> from(const Value& value);

  const std::string& id() const { return id_; }
  const std::string& name() const { return name_; }

  bool operator==(const ZPHAgent&) const = default;

 private:
  std::string id_;
  std::string name_;
};

}  // namespace zephlo
