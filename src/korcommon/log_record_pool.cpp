#include "korcommon/log_record_pool.h"

#include <array>
#include <atomic>
#include <cstddef>

namespace korcommon::detail {
namespace {

using dova::dova_msgs::Log;

constexpr size_t kRecordsPerThread = 4;

// One recyclable record, with room for the control block of the shared_ptr
// that hands it out. The slot is free again when that control block goes,
// which is after the last shared_ptr and the last weak_ptr.
class RecordSlot {
 public:
  // Large enough for a control block that holds a pointer, a deleter and an
  // allocator; a larger one goes to the heap (see SlotAllocator).
  static constexpr size_t kControlBlockSize = 64;

  void* controlBlockStorage() { return control_block_; }

  // Only the owning thread takes a slot; any thread may release it.
  bool tryTake() {
    // Acquire: every use of the record before its release happens before
    // the owner writes to it again.
    if (state_.load(std::memory_order_acquire) != kFree) return false;
    state_.store(kInUse, std::memory_order_relaxed);
    return true;
  }

  // The last reference of any kind is gone. A slot whose thread has ended
  // goes with it.
  void release() {
    if (state_.exchange(kFree, std::memory_order_acq_rel) == kOrphaned) delete this;
  }

  // The owning thread ends: a free slot goes now, one still referenced when
  // its last reference goes.
  void abandon() {
    if (state_.exchange(kOrphaned, std::memory_order_acq_rel) == kFree) delete this;
  }

  Log record;

 private:
  enum State { kFree, kInUse, kOrphaned };

  alignas(std::max_align_t) unsigned char control_block_[kControlBlockSize];
  std::atomic<int> state_{kFree};
};

// Places the shared_ptr's control block in its slot, and frees the slot when
// the control block is deallocated.
template <typename T>
class SlotAllocator {
 public:
  using value_type = T;

  explicit SlotAllocator(RecordSlot* slot) noexcept : slot_(slot) {}
  template <typename U>
  SlotAllocator(const SlotAllocator<U>& other) noexcept  // NOLINT: rebinding is implicit
      : slot_(other.slot()) {}

  T* allocate(size_t count) {
    if (count * sizeof(T) <= RecordSlot::kControlBlockSize &&
        alignof(T) <= alignof(std::max_align_t)) {
      return static_cast<T*>(slot_->controlBlockStorage());
    }
    return std::allocator<T>().allocate(count);
  }

  void deallocate(T* block, size_t count) noexcept {
    if (static_cast<void*>(block) != slot_->controlBlockStorage()) {
      std::allocator<T>().deallocate(block, count);
    }
    slot_->release();
  }

  RecordSlot* slot() const { return slot_; }

  friend bool operator==(const SlotAllocator& left, const SlotAllocator& right) {
    return left.slot_ == right.slot_;
  }
  friend bool operator!=(const SlotAllocator& left, const SlotAllocator& right) {
    return !(left == right);
  }

 private:
  RecordSlot* slot_;
};

// The record outlives its last shared_ptr: the slot keeps it, with its
// strings' capacity, for the next message.
struct KeepRecord {
  void operator()(Log* /*record*/) const noexcept {}
};

// Set when the calling thread's slots are gone. A thread may still trace
// then: from the destructor of another thread_local, or on the main thread
// from a static destructor. Trivially destructible, so always readable.
thread_local bool thread_records_gone = false;

// The calling thread's slots, made as they are first needed.
class ThreadRecords {
 public:
  ThreadRecords() = default;
  ThreadRecords(const ThreadRecords&) = delete;
  ThreadRecords& operator=(const ThreadRecords&) = delete;

  ~ThreadRecords() {
    thread_records_gone = true;
    for (RecordSlot* slot : slots_) {
      if (slot != nullptr) slot->abandon();
    }
  }

  // A free record, or null when every slot is still referenced.
  std::shared_ptr<Log> take() {
    for (RecordSlot*& slot : slots_) {
      if (slot == nullptr) slot = new RecordSlot;
      if (!slot->tryTake()) continue;
      try {
        return std::shared_ptr<Log>(&slot->record, KeepRecord(), SlotAllocator<Log>(slot));
      } catch (...) {
        slot->release();  // no control block was made
        throw;
      }
    }
    return nullptr;
  }

 private:
  std::array<RecordSlot*, kRecordsPerThread> slots_{};
};

}  // namespace

std::shared_ptr<Log> takeLogRecord() {
  if (!thread_records_gone) {
    thread_local ThreadRecords records;
    if (std::shared_ptr<Log> record = records.take()) return record;
  }
  return std::make_shared<Log>();
}

}  // namespace korcommon::detail
