#include "storage/file_mapping_thread_data.h"

#include "base/log.h"

namespace storage {
namespace {

constexpr std::uint64_t kPurgeStep = 64;
constexpr std::size_t kFirstBuckets = 8;

// What misuse throws; it ends at the exported function, which fails then.
constexpr const char* kCheckYourCode = "check your code!";

}  // namespace

std::size_t ThreadLocalData::KeyHash::operator()(std::uint64_t key) const noexcept {
  constexpr std::uint64_t kOffsetBasis = 0xcbf29ce484222325;
  constexpr std::uint64_t kPrime = 0x100000001b3;
  std::uint64_t hash = kOffsetBasis;
  for (unsigned shift = 0; shift < 64; shift += 8) {
    hash = (hash ^ (key >> shift & 0xFF)) * kPrime;
  }
  return hash;
}

ThreadLocalData* ThreadLocalData::ofThreadIfAny() { return static_cast<ThreadLocalData*>(platform::threadObject()); }

ThreadLocalData& ThreadLocalData::ofThread() {
  if (ThreadLocalData* const existing = ofThreadIfAny()) {
    return *existing;
  }
  platform::setThreadObject(std::make_unique<ThreadLocalData>());
  return *ofThreadIfAny();
}

ThreadLocalData::ThreadLocalData() : ownerThreadId_(platform::currentThreadId()), purgeThreshold_(kPurgeStep) {
  records_.max_load_factor(1.0F);
  records_.rehash(kFirstBuckets);
  base::logger().log(ember_logger::trace, "[%s] thread start [tid:%u] [addr:%p]", "ThreadLocalData::ThreadLocalData",
                     ownerThreadId_, static_cast<const void*>(this));
}

ThreadLocalData::~ThreadLocalData() {
  base::logger().log(ember_logger::trace, "[%s] thread quit [tid:%u] [addr:%p]", "ThreadLocalData::~ThreadLocalData",
                     ownerThreadId_, static_cast<const void*>(this));
}

void ThreadLocalData::checkThread() const {
  if (platform::currentThreadId() != ownerThreadId_) {
    base::logger().log(ember_logger::error,
                       "[%s] other thread use ThreadLocalData,This will cause thread insecurity.check your code",
                       "ThreadLocalData::check");
    throw kCheckYourCode;
  }
}

const std::shared_ptr<ThreadLocalData::AreaRecord>& ThreadLocalData::updateArea(std::uint64_t key,
                                                                                const AliveFlag& alive,
                                                                                const TileArea& newArea,
                                                                                TileArea& oldArea) {
  if (key == 0) {
    base::logger().log(ember_logger::error, "[%s] ptr is nullptr,check your code!", "ThreadLocalData::updateArea");
    throw kCheckYourCode;
  }
  checkThread();
  const bool sameAsLast =
      lastRecord_ != nullptr && lastRecord_->key == key && lastRecord_->alive == alive && *lastRecord_->alive;
  if (!sameAsLast) {
    lastRecord_ = findOrCreate(key, alive);
  }
  oldArea = lastRecord_->area;
  lastRecord_->area = newArea;
  return lastRecord_;
}

std::shared_ptr<ThreadLocalData::AreaRecord> ThreadLocalData::findOrCreate(std::uint64_t key, const AliveFlag& alive) {
  if (const auto found = records_.find(key); found != records_.end()) {
    const auto& record = found->second;
    if (record->alive == alive && *record->alive) {
      return record;
    }
    records_.erase(found);  // of an owner that had this address before
  }
  purgeIfGrown();
  auto record = std::make_shared<AreaRecord>(AreaRecord{key, alive, {}});
  records_.emplace(key, record);
  return record;
}

void ThreadLocalData::purgeIfGrown() {
  if (records_.size() < purgeThreshold_) {
    return;
  }
  std::erase_if(records_, [](const auto& entry) { return entry.second->alive == nullptr || !*entry.second->alive; });
  purgeThreshold_ = records_.size() / kPurgeStep * kPurgeStep + kPurgeStep;
}

bool ThreadLocalData::check(std::uint64_t key) {
  checkThread();
  const auto found = records_.find(key);
  if (found == records_.end()) {
    return false;
  }
  if (lastRecord_ == found->second) {
    lastRecord_.reset();
  }
  records_.erase(found);
  return true;
}

FileMappingThreadData::~FileMappingThreadData() {
  *alive_ = false;
  try {
    check();
  } catch (...) {  // a thread's record that another one uses: logged, and the flag makes the record harmless
  }
}

bool FileMappingThreadData::check() {
  ThreadLocalData* const data = ThreadLocalData::ofThreadIfAny();
  return data != nullptr && data->check(key());
}

void FileMappingThreadData::updateArea(const TileArea& newArea, TileArea& oldArea) {
  ThreadLocalData::ofThread().updateArea(key(), alive_, newArea, oldArea);
}

}  // namespace storage
