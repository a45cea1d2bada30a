#include "nfs4/session.h"

#include "common/host_failure.h"
#include "common/log.h"
#include "nfs4/client_limits.h"
#include "nfs4/pseudo_root.h"
#include "server/nfs_service.h"

#include <algorithm>
#include <exception>

namespace nfslib {

using nfs::OperationResult;

namespace {

// Open files beyond this number are opened anew when they are used, so that a client that never
// closes anything does not use up the host's descriptors.
constexpr std::size_t kMaxHeldFiles = 1024;
constexpr std::size_t kMaxOpenFiles = 65'536;
constexpr std::size_t kMaxOwners = 1024;  // of one open file
constexpr std::size_t kMaxExclusive = 256;

// The handle alone told what was meant: an object that the host does not find is gone.
std::optional<OperationResult> statusByHandle(const std::exception& failure) {
  const auto status = toldStatus(failure);
  return status == OperationResult::NoEntry ? OperationResult::InvalidFileHandle : status;
}

std::optional<OperationResult> statusByName(NfsFileSystem* view, const NfsPath& path,
                                            const std::exception& failure) {
  if (view == nullptr || path.isRootPath()) return std::nullopt;
  try {
    return view->statusOfAbsence(path, failure);
  } catch (const std::exception& e) {
    return statusByHandle(e);  // of the directory
  }
}

}  // namespace

const std::shared_ptr<Nfs4Session>& Nfs4Session::getDefaultSession() {
  static const auto session = std::make_shared<Nfs4Session>(sessionid{}, 0, 0);
  return session;
}

Nfs4Session::Nfs4Session(const sessionid& id, std::uint64_t clientId, std::uint64_t streamId,
                         std::shared_ptr<nfs4::Lease> lease)
    : m_id(id), m_clientId(clientId), m_streamId(streamId), m_lease(std::move(lease)) {}

// ---- Objects

bool Nfs4Session::setCurrent(const NfsHandle& handle, std::shared_ptr<NfsFileSystem> fileSystem,
                             NfsPath path, MetaData metaData) {
  m_current.handle = handle;
  m_current.fileSystem = std::move(fileSystem);
  m_current.path = std::move(path);
  m_current.metaData = std::move(metaData);
  m_current.placesSeen = m_current.fileSystem ? m_current.fileSystem->placeChanges() : 0;
  m_current.stateSequenceId = 0;
  m_current.stateOther = {};
  findOpenState();
  return true;
}

template <class Set, class StatusOf>
bool Nfs4Session::orFalse(const Set& set, const StatusOf& statusOf) {
  m_refusal.reset();
  try {
    return set();
  } catch (const std::exception& e) {
    log().warn("Unable to set filesystem object: [%1]", e.what());
    if (m_tellsHostFailures) m_refusal = statusOf(e);
    return false;
  }
}

OperationResult Nfs4Session::refusalOr(OperationResult usual) const {
  return m_refusal.value_or(usual);
}

bool Nfs4Session::setCurrentFileSystemObject(const NfsService& service) {
  return setCurrent({service.getGeneration(), 0, 0}, nullptr, NfsPath("/"),
                    nfs4::pseudoRootMetaData(service));
}

bool Nfs4Session::setCurrentFileSystemObject(const NfsService& service, const NfsHandle& handle) {
  return orFalse(
      [&] {
        if (handle.objectId == 0) {
          setCurrentFileSystemObject(service);
          m_current.handle = handle;
          return true;
        }
        if (service.isStaleHandle(handle)) return false;
        auto view = service.getFileSystem(handle).second;
        auto path = view->findPath(handle);
        if (!path) return false;
        MetaData md = view->getMetaData(*path);
        return setCurrent(handle, std::move(view), *std::move(path), std::move(md));
      },
      statusByHandle);
}

bool Nfs4Session::setCurrentFileSystemObject(const NfsService& service, const std::string& name) {
  if (!m_current.isSet()) return false;
  std::shared_ptr<NfsFileSystem> view = m_current.fileSystem;
  NfsPath path("/");
  const auto find = [&] {
    NfsHandle base = m_current.handle;
    if (m_current.isPseudoRoot()) {
      const auto [number, exported] = service.getFileSystem(NfsPath(name));
      base = {service.getGeneration(), number, 0};
      view = exported;
    } else {
      path = m_current.path / name;
    }
    MetaData md = view->getMetaData(path);
    const NfsHandle handle = view->getHandle(base, path, md);
    return setCurrent(handle, view, path, std::move(md));
  };
  return orFalse(
      find, [&](const std::exception& failure) { return statusByName(view.get(), path, failure); });
}

bool Nfs4Session::setParentAsCurrentFileSystemObject() {
  if (!m_current.isSet() || m_current.isPseudoRoot()) return false;
  return orFalse(
      [&] {
        const std::shared_ptr<NfsFileSystem> view = m_current.fileSystem;
        NfsPath path = m_current.path.getParentPath();
        MetaData md = view->getMetaData(path);
        const NfsHandle handle = view->getHandle(m_current.handle, path, md);
        return setCurrent(handle, view, std::move(path), std::move(md));
      },
      statusByHandle);
}

bool Nfs4Session::restoreSavedFileSystemObject(const NfsService& service) {
  if (service.isStaleHandle(m_saved.handle)) return false;
  m_current = m_saved;
  findOpenState();
  return true;
}

void Nfs4Session::followMoves() {
  for (FileSystemObject* object : {&m_current, &m_saved}) {
    if (!object->fileSystem || object->placesSeen == object->fileSystem->placeChanges()) continue;
    object->placesSeen = object->fileSystem->placeChanges();
    auto path = object->fileSystem->findPath(object->handle);
    if (!path) {
      *object = {};
    } else if (!(*path == object->path)) {
      object->path = *std::move(path);
      object->openFile.reset();
    }
  }
}

void Nfs4Session::GiveBack::operator()(Nfs4Session* session) const {
  {
    const std::lock_guard lock(session->m_takenLock);
    session->m_isTaken = false;
  }
  session->m_given.notify_one();
}

bool Nfs4Session::enter(std::optional<std::chrono::steady_clock::time_point> deadline) {
  std::unique_lock lock(m_takenLock);
  const auto isFree = [this] { return !m_isTaken; };
  if (!deadline) {
    m_given.wait(lock, isFree);
  } else if (!m_given.wait_until(lock, *deadline, isFree)) {
    return false;
  }
  m_isTaken = true;
  return true;
}

Nfs4Session::Lock Nfs4Session::take(const Profile& profile) {
  enter(std::nullopt);
  Lock taken(this);
  releaseWithdrawn();
  m_tellsHostFailures = profile.tellsHostFailures;
  if (profile.keepsObjects) {
    followMoves();
  } else {
    m_current = m_saved = {};
  }
  return taken;
}

void Nfs4Session::releaseObjects(std::uint32_t fileSystemId,
                                 std::chrono::steady_clock::time_point deadline) {
  {
    const std::lock_guard lock(m_takenLock);
    m_withdrawn.push_back(fileSystemId);
  }
  if (!enter(deadline)) return;
  const Lock taken(this);
  releaseWithdrawn();
}

void Nfs4Session::releaseWithdrawn() {
  std::vector<std::uint32_t> withdrawn;
  {
    const std::lock_guard lock(m_takenLock);
    withdrawn.swap(m_withdrawn);
  }
  for (const std::uint32_t fileSystemId : withdrawn) {
    for (FileSystemObject* object : {&m_current, &m_saved}) {
      if (object->fileSystem && object->handle.fileSystemId == fileSystemId) *object = {};
    }
    std::erase_if(m_openFiles, [&](const auto& row) { return row.first.first == fileSystemId; });
  }
}

// ---- Open files

void Nfs4Session::findOpenState() {
  m_current.openFile.reset();
  const auto at = m_openFiles.find(keyOf(m_current.handle));
  if (at == m_openFiles.end() || m_current.isPseudoRoot()) return;
  OpenFile& known = at->second;
  if (!known.file || !(known.path == m_current.path)) {
    // It was renamed since: what is written must be told of the path that it has now.
    try {
      auto file = m_current.fileSystem->openFile(m_current.path);
      if (known.file) known.file = file;
      known.path = m_current.path;
      m_current.openFile = std::move(file);
    } catch (const std::exception& e) {
      log().warn("Cannot open the moved file [%1] again: [%2]", m_current.path, e.what());
    }
  } else {
    m_current.openFile = known.file;
  }
}

bool Nfs4Session::opened(std::shared_ptr<File> file, const OpenOwner& owner) {
  const FileKey key = keyOf(m_current.handle);
  const auto at = m_openFiles.find(key);
  const bool isFull = at == m_openFiles.end() ? m_openFiles.size() == kMaxOpenFiles
                                              : at->second.owners.size() == kMaxOwners &&
                                                    !at->second.owners.contains(owner);
  if (isFull) throw nfs::NfsOperationError(OperationResult::Resource);
  OpenFile& known = m_openFiles[key];
  const bool isNew = known.owners.insert(owner).second;
  known.path = m_current.path;
  if (m_openFiles.size() <= kMaxHeldFiles) known.file = file;
  m_current.openFile = std::move(file);
  m_current.stateSequenceId = 0;
  m_current.stateOther = {};
  return isNew;
}

bool Nfs4Session::closed() {
  const auto at = m_openFiles.find(keyOf(m_current.handle));
  if (at != m_openFiles.end()) {
    // A stateid does not tell whose it is.
    auto& owners = at->second.owners;
    owners.erase(owners.begin());
    if (!owners.empty()) return false;
    m_openFiles.erase(at);
  }
  m_current.openFile.reset();
  return true;
}

void Nfs4Session::rememberExclusive(std::uint64_t fileId, const verifier4& verifier) {
  if (!m_exclusive) m_exclusive.emplace(kMaxExclusive);
  m_exclusive->set(fileId, verifier);
}

bool Nfs4Session::madeExclusively(std::uint64_t fileId, const verifier4& verifier) {
  if (!m_exclusive) return false;
  const auto known = m_exclusive->find(fileId);
  return known && *known == verifier;
}

// ---- Limits and the replies that can be repeated

void Nfs4Session::applyChannelAttributes(ChannelAttributes& channel, const Profile& profile) {
  channel.headerPadSize = 0;
  const auto cut = [](std::uint32_t& value, std::uint32_t most) { value = std::min(value, most); };
  cut(channel.maxRequestSize, profile.maxMessage);
  cut(channel.maxResponseSize, profile.maxMessage);
  cut(channel.maxResponseSizeCached, profile.maxKeptReply);
  cut(channel.maxOperations, nfs4::kMaxOperations);
  cut(channel.maxRequests, profile.maxSlots);
  m_foreChannel = channel;
}

std::shared_ptr<Nfs4Session::CompoundResponse> Nfs4Session::findCachedResponse(
    unsigned slot) const {
  const auto at = m_responses.find(slot);
  return at == m_responses.end() ? nullptr : at->second;
}

void Nfs4Session::setCurrentResponse(std::shared_ptr<CompoundResponse> response) {
  m_response = std::move(response);
  m_recordStart.reset();
}

bool Nfs4Session::prepareToCache(unsigned slot, unsigned sequenceId, const MemoryStream& reply) {
  auto at = m_responses.find(slot);
  if (at == m_responses.end()) {
    if (m_responses.size() == nfs4::kMaxKnownSlots) return false;
    at = m_responses.emplace(slot, std::make_shared<CompoundResponse>()).first;
  }
  *at->second = {.sequenceId = sequenceId, .data = {}};
  record(at->second, reply);
  return true;
}

void Nfs4Session::record(std::shared_ptr<CompoundResponse> response, const MemoryStream& reply) {
  m_response = std::move(response);
  m_recordStart = reply.getOutputPosition();
}

void Nfs4Session::flush(MemoryStream& reply, OperationResult status, unsigned operationsCount) {
  if (!m_response) return;
  if (m_recordStart) {
    const memory::const_buffer whole = reply.getOutputBuffer();
    m_response->status = status;
    m_response->operationsCount = operationsCount;
    m_response->data.assign(whole.begin() + std::min<std::size_t>(*m_recordStart, whole.size()),
                            whole.end());
    m_slots.keep(m_response);
  } else {
    reply.truncateOutput();
    // A longer tag than the first time may leave less room.
    if (m_response->data.size() > reply.outputSpace()) {
      throw nfs::NfsOperationError(OperationResult::ReplyTooBig);
    }
    reply.write(m_response->data.data(), static_cast<unsigned>(m_response->data.size()));
  }
  setCurrentResponse(nullptr);
}

void Nfs4Session::fail(OperationResult status) {
  if (m_recordStart) {
    m_response->status = status;
    m_slots.keep(m_response);
  }
  setCurrentResponse(nullptr);
}

unsigned Nfs4Session::responseSize(const MemoryStream& reply) const {
  return reply.getOutputDataSize() - m_recordStart.value_or(0);
}

OperationResult Nfs4Session::checkResponseSize(unsigned statusPosition, MemoryStream& reply) const {
  if (m_foreChannel.maxRequestSize == 0) return OperationResult::OK;
  const unsigned size = responseSize(reply);
  OperationResult result = OperationResult::OK;
  if (m_recordStart && size > m_foreChannel.maxResponseSizeCached) {
    result = OperationResult::ReplyTooBigToCache;
  } else if (size > m_foreChannel.maxResponseSize) {
    result = OperationResult::ReplyTooBig;
  }
  if (result != OperationResult::OK) {
    reply.seekOutput(statusPosition, SeekOrigin::Begin);
    reply << result;
    reply.truncateOutput();
  }
  return result;
}

}  // namespace nfslib
