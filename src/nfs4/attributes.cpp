#include "nfs4/attributes.h"

#include "common/clock.h"
#include "fs/nfs_file_system.h"
#include "nfs4/attribute_table.h"

#include <algorithm>

namespace nfslib::nfs4 {

namespace {

bool has(const Object& object, const Attribute& attribute) {
  return attribute.isThere == nullptr || attribute.isThere(object);
}
void setBit(Words& words, unsigned number) { words[number / 32] |= 1U << number % 32; }

bool hasBit(const Bitmap& bitmap, unsigned number) {
  return number / 32 < bitmap.size() && (bitmap[number / 32] >> number % 32 & 1U) != 0;
}

// Calls `visit` with the rows of the attributes that can be accessed so and are in the bitmap.
template <class Visit>
void forEach(const AttributeTable& table, const Bitmap& bitmap, unsigned access,
             const Visit& visit) {
  for (const Attribute& attribute : table.rows) {
    if ((attribute.access & access) != 0 && hasBit(bitmap, attribute.number)) visit(attribute);
  }
}

Values decodeAll(MemoryStream& in, const AttributeTable& table, const Bitmap& bitmap,
                 unsigned access) {
  Values values;
  forEach(table, bitmap, access, [&](const Attribute& attribute) { attribute.decode(in, values); });
  return values;
}

bool isWithin(const Bitmap& bitmap, const Words& allowed, std::size_t words) {
  for (std::size_t i = 0; i < words; ++i) {
    if ((bitmap[i] & ~allowed[i]) != 0) return false;
  }
  return true;
}

}  // namespace

std::string bitmap4ToStr(const Bitmap& bitmap) {
  std::string text;
  for (const unsigned word : bitmap) (text += text.empty() ? "" : ", ") += std::to_string(word);
  return text;
}

void printSupported(MemoryStream& out, const Object& object) {
  const AttributeTable& table = attributeTable(object.profile, object.minorVersion);
  Words absent{};
  for (const Attribute& attribute : table.rows) {
    if (!has(object, attribute)) setBit(absent, attribute.number);
  }
  out << static_cast<unsigned>(table.words);
  for (std::size_t i = 0; i < table.words; ++i) out << (table.supported(i) & ~absent[i]);
}
void printSettable(MemoryStream& out, const Object& object) {
  constexpr unsigned kSettableWords = 2;
  const AttributeTable& table = attributeTable(object.profile, object.minorVersion);
  out << kSettableWords;
  for (unsigned i = 0; i < kSettableWords; ++i) out << table.settable[i];
}

const std::optional<FileSystemStatistics>& ShownObject::statistics() const {
  if (!told) told = view != nullptr ? view->statistics() : std::nullopt;
  return *told;
}

void printAttributeValue(MemoryStream& out, unsigned attribute, const ShownObject& object) {
  const Attribute* row = attributeTable(object.profile, object.minorVersion).find(attribute);
  if (row != nullptr && row->print != nullptr) row->print(out, object);
}

void printAttributes(MemoryStream& out, const Bitmap& requested, const ShownObject& object) {
  const AttributeTable& table = attributeTable(object.profile, object.minorVersion);
  Words shown{};
  forEach(table, requested, kRead, [&](const Attribute& attribute) {
    if (has(object, attribute)) setBit(shown, attribute.number);
  });
  const auto words = static_cast<unsigned>(std::min(requested.size(), table.words));
  out << words;
  for (unsigned i = 0; i < words; ++i) out << shown[i];
  const unsigned lengthPosition = out.getOutputPosition();
  out << 0U;
  for (const Attribute& attribute : table.rows) {
    if ((shown[attribute.number / 32] >> attribute.number % 32 & 1U) != 0) {
      attribute.print(out, object);
    }
  }
  const unsigned end = out.getOutputPosition();
  out.seekOutput(lengthPosition, SeekOrigin::Begin);
  out << end - lengthPosition - 4;
  out.seekOutput(end, SeekOrigin::Begin);
}

bool areReadable(const Bitmap& bitmap, const AttributeTable& table) {
  return bitmap.size() <= table.words && isWithin(bitmap, table.readable, bitmap.size());
}

nfstime4 readSetTime(MemoryStream& in, Nfs4SetAttributes& values) {
  constexpr unsigned kSetToClientTime = 1;
  unsigned how = 0;
  nfstime4 time;
  in >> how;
  if (how == kSetToClientTime) {
    in >> time;
    values.setsTimeOfClient = true;
  } else {
    values.setsTimeOfServer = true;
    time.seconds = nfslib::utility::currentSeconds();
  }
  return time;
}

void readAttributeValue(MemoryStream& in, unsigned attribute, Nfs4SetAttributes& values) {
  if (const Attribute* row = attributeTable({}, 0).find(attribute)) row->decode(in, values);
}

Nfs4SetAttributes readWritableAttributes(MemoryStream& in, const Bitmap& bitmap,
                                         OperationResult& status, const AttributeTable& table) {
  unsigned length = 0;
  in >> length;  // of the values, which tell their own lengths
  if (!isWithin(bitmap, table.settable, std::min(bitmap.size(), table.words))) {
    status = OperationResult::AttributeNotSupported;
  }
  Values values = decodeAll(in, table, bitmap, kSet);
  if (values.unknownOwner && status == OperationResult::OK) status = OperationResult::BadOwner;
  return values;
}

Nfs4SetAttributes readReadableAttributes(MemoryStream& in, const Bitmap& bitmap,
                                         const AttributeTable& table) {
  return decodeAll(in, table, bitmap, kRead);
}

Bitmap setAttributes(const Nfs4SetAttributes& values, MetaData& md, const AttributeTable& table) {
  Words applied{};
  for (const Attribute& attribute : table.rows) {
    if (attribute.apply != nullptr && attribute.apply(values, md)) {
      setBit(applied, attribute.number);
    }
  }
  if (applied[1] != 0) return {applied[0], applied[1]};
  if (applied[0] != 0) return {applied[0]};
  return {};
}

OperationResult compareAttributes(const Nfs4SetAttributes& values, const ShownObject& object) {
  for (const Attribute& attribute : attributeTable(object.profile, object.minorVersion).rows) {
    if (attribute.compare == nullptr) continue;
    const OperationResult result = attribute.compare(values, object);
    if (result != OperationResult::OK) return result;
  }
  return OperationResult::OK;
}

}  // namespace nfslib::nfs4
