#pragma once

#include <memory>
#include <string>

#include "json/json.h"

namespace test {

/// The JSON reader written down state by state, as slow as it is plain: an object a level, each with a text of its own,
/// and every character handed down through all levels. What json::reader is compared with. For small texts: the depth
/// of a value is call depth here.
class ReaderModel {
 public:
  using Answer = json::reader::push_result;

  ReaderModel() = default;
  virtual ~ReaderModel() = default;
  ReaderModel(const ReaderModel&) = delete;
  ReaderModel& operator=(const ReaderModel&) = delete;

  virtual std::unique_ptr<ReaderModel> clone() const;
  virtual void clear();
  virtual Answer push(char c);
  virtual bool isValid() const;
  virtual std::string readout() const;

  json::jtype type() const;
  char currentState() const { return state; }

 protected:
  void copyInto(ReaderModel& copy) const;

  std::string buffer;
  std::unique_ptr<ReaderModel> subReader;
  char state = 0;

 private:
  Answer accept(char c);
  Answer acceptInto(char newState, char c);
  Answer pushString(char c);
  Answer pushNumber(char c);
  Answer pushBoolean(char c);
  Answer pushNull(char c);
  Answer pushArray(char c);
  Answer startElement(char c);
  Answer pushIntoElement(char c);
  Answer pushObject(char c);
  Answer startEntry(char c);
  Answer pushIntoEntry(char c);
  Answer finishChild(char c);
};

/// The same for one "key":value pair: what json::kvp_reader is compared with.
class KvpReaderModel : public ReaderModel {
 public:
  std::unique_ptr<ReaderModel> clone() const override;
  void clear() override;
  Answer push(char c) override;
  bool isValid() const override;
  std::string readout() const override;

 private:
  std::unique_ptr<ReaderModel> key = std::make_unique<ReaderModel>();
  bool colonRead = false;
};

/// The type of a value that starts with this character, by the table.
json::jtype modelTypeOf(char first);

bool modelIsSpace(char c);

}  // namespace test
