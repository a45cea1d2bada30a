#include "fs/file_data.h"

#include "common/statistics.h"
#include "fs/cache_triggers.h"

#include <utility>

namespace nfslib {

namespace {

// Below this a copy costs less than the system call that it saves.
constexpr unsigned kWorthSendingFromFile = 32'768;

std::shared_ptr<IDescriptorFile> descriptorFile(const std::shared_ptr<File>& file) {
  auto source = std::dynamic_pointer_cast<IDescriptorFile>(hostObject(file));
  return source && source->ReadDescriptor() >= 0 ? source : nullptr;
}

}  // namespace

void writeFileData(MemoryStream& out, const std::shared_ptr<File>& file, std::uint64_t offset,
                   unsigned length, SendFromFile fromFile) {
  out << length;
  const bool mayPass = fromFile == SendFromFile::Allowed && out.takesFile();
  auto source = length >= kWorthSendingFromFile && mayPass ? descriptorFile(file) : nullptr;
  if (source) {
    out.writeFromFile(std::move(source), offset, length);
  } else if (length != 0) {
    const memory::mutable_buffer data = out.writeZeros(length);
    file->Read(offset, data.data(), data.size());
  }
  out.writeOpaqueTail(length);
  statistics::count(statistics::Counter::BytesRead, length);
}

}  // namespace nfslib
