#pragma once

#include "json/json.h"

namespace test {

/// A reader whose state tests can see and, to break it, set.
template <typename Reader>
class Visible : public Reader {
 public:
  char currentState() const { return this->template get_state<char>(); }
  void breakState(char value) { this->set_state(value); }
};

using VisibleReader = Visible<json::reader>;
using VisibleKvpReader = Visible<json::kvp_reader>;

}  // namespace test
