#pragma once

#include "common/memory_stream.h"
#include "nfs4/attributes.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <utility>

// What the tables of attributes are made of: a row's shape, and the functions that most rows share.

namespace nfslib::nfs4 {

using nfs::OperationResult;
using Words = std::array<unsigned, 3>;
using Object = ShownObject;
using Values = Nfs4SetAttributes;

enum Access : unsigned { kNone = 0, kRead = 1, kSet = 2, kReadSet = kRead | kSet };

struct Attribute {
  unsigned number;
  unsigned access;
  void (*print)(MemoryStream& out, const Object& object);
  void (*decode)(MemoryStream& in, Values& values);
  // Applies the value if there is one, and says whether there was; nullptr: it cannot be applied.
  bool (*apply)(const Values& values, MetaData& md) = nullptr;
  // OK when there is no value or the object has it; nullptr: it is taken as it is.
  OperationResult (*compare)(const Values& values, const Object& object) = nullptr;
  // nullptr: every object has it.
  bool (*isThere)(const Object& object) = nullptr;
};

class AttributeTable {
 public:
  constexpr AttributeTable(std::span<const Attribute> all, std::size_t sentWords)
      : rows(all), words(sentWords), readable(wordsOf(kRead)), settable(wordsOf(kSet)) {}

  const Attribute* find(unsigned number) const {
    const auto row = std::ranges::lower_bound(rows, number, {}, &Attribute::number);
    return row != rows.end() && row->number == number ? &*row : nullptr;
  }
  // Those that can be read or set. What the table announces does not depend on what is asked for.
  constexpr unsigned supported(std::size_t word) const { return readable[word] | settable[word]; }

  const std::span<const Attribute> rows;  // in the order of their numbers
  const std::size_t words;                // of the bitmaps that are sent
  const Words readable;
  const Words settable;

 private:
  constexpr Words wordsOf(unsigned access) const {
    Words all{};
    for (const Attribute& attribute : rows) {
      if ((attribute.access & access) != 0)
        all[attribute.number / 32] |= 1U << attribute.number % 32;
    }
    return all;
  }
};

// ---- How values are written and read

inline nfstime4 timeOf(std::uint32_t seconds) { return {seconds, 0}; }
inline MemoryStream& operator<<(MemoryStream& out, const nfstime4& value) {
  return out << static_cast<std::uint64_t>(value.seconds) << value.nanoseconds;
}

template <auto field>
void decodeField(MemoryStream& in, Values& values) {
  in >> (values.*field).emplace();
}
template <auto field>
void decodeSetTime(MemoryStream& in, Values& values) {
  values.*field = readSetTime(in, values);
}
template <bool value>
void printBool(MemoryStream& out, const Object&) {
  out << value;
}
template <unsigned value>
void printWord(MemoryStream& out, const Object&) {
  out << value;
}
template <std::uint64_t value>
void printHyper(MemoryStream& out, const Object&) {
  out << value;
}
template <auto field>
void printField(MemoryStream& out, const Object& object) {
  out << object.md.*field;
}
template <auto field>
void printTime(MemoryStream& out, const Object& object) {
  out << timeOf(object.md.*field);
}
template <auto field>
void printNumberText(MemoryStream& out, const Object& object) {
  out << std::to_string(object.md.*field);
}

// ---- How values are applied and compared

template <auto field>
bool applyOwner(const std::optional<std::string>& text, MetaData& md) {
  if (text) md.*field = static_cast<std::uint32_t>(std::atoi(text->c_str()));
  return text.has_value();
}
template <auto field>
bool applyTime(const std::optional<nfstime4>& time, MetaData& md) {
  if (time) md.*field = static_cast<std::uint32_t>(time->seconds);
  return time.has_value();
}
inline OperationResult sameIf(bool condition) {
  return condition ? OperationResult::OK : OperationResult::NotSame;
}
template <auto value, auto field>
OperationResult sameField(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || std::cmp_equal(*wanted, object.md.*field));
}
template <auto value, auto field>
OperationResult sameText(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || *wanted == std::to_string(object.md.*field));
}
template <auto value, auto field>
OperationResult sameTime(const Values& values, const Object& object) {
  const auto& wanted = values.*value;
  return sameIf(!wanted || std::cmp_equal(wanted->seconds, object.md.*field));
}

// supported_attrs and suppattr_exclcreat, of the table that the object is shown by.
void printSupported(MemoryStream& out, const Object& object);
void printSettable(MemoryStream& out, const Object& object);

}  // namespace nfslib::nfs4
