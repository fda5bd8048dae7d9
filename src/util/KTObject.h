// The root of all shared objects: an intrusive count and the pointer that holds it.
//
// Counts may be raised and dropped from any thread. A KTPtr object itself has one owner; two threads must not
// assign the same KTPtr at once.

#pragma once

#include <atomic>

#include "platform/Types.h"

// A signed 32-bit word in which every access is one atomic read-modify-write instruction, reads included: a
// reader always sees the latest value and all that was written before it.
class KTAtomicCounter {
 public:
  explicit KTAtomicCounter(orv::i32 value = 0) : value_(value) {}
  KTAtomicCounter(const KTAtomicCounter&) = delete;
  KTAtomicCounter& operator=(const KTAtomicCounter&) = delete;

  orv::i32 increment() { return value_.fetch_add(1, std::memory_order_acq_rel) + 1; }
  orv::i32 decrement() { return value_.fetch_sub(1, std::memory_order_acq_rel) - 1; }
  orv::i32 read() const { return value_.fetch_add(0, std::memory_order_acq_rel); }
  void store(orv::i32 value) { value_.exchange(value, std::memory_order_acq_rel); }
  void clear() { store(0); }

  // Not atomic: only with exclusive access to the counter.
  void restart() { value_.store(0, std::memory_order_relaxed); }

  // Decrements a pooled entry's count; the caller owns one of its counts and gives it up. At a count of 2 the
  // other is the pool's own, which stays for as long as the entry is out. Only the owner of a count may raise
  // it, so that nobody else writes to the word before the entry is back in the pool, and a plain store will
  // do. The acquiring load sees what earlier owners wrote; the pool's own hand-over makes the store visible
  // to the next one.
  orv::i32 decrementPooled() {
    if (value_.load(std::memory_order_acquire) != 2) return decrement();
    value_.store(1, std::memory_order_relaxed);
    return 1;
  }

 private:
  mutable std::atomic<orv::i32> value_;
};

// A new object has count 0 and no owner until the first KTPtr takes it. The order of the virtual operations
// is part of the binary contract; derived classes add theirs behind these.
class KTObject {
 public:
  KTObject() = default;
  KTObject(const KTObject&) = delete;
  KTObject& operator=(const KTObject&) = delete;

  virtual orv::i32 getRefCount() { return refCount_.read(); }
  virtual orv::i32 addRef() { return refCount_.increment(); }
  // Drops a count. Returns the new count; 0 if the object destroyed itself.
  virtual inline orv::i32 release();
  virtual KTObject* self() { return this; }
  virtual ~KTObject() = default;
  virtual bool queryTrue(orv::u32) { return true; }
  virtual void noOperation() {}

 protected:
  KTAtomicCounter refCount_;
};

inline orv::i32 KTObject::release() {
  const orv::i32 count = refCount_.decrement();
  if (count > 0) return count;
#ifndef __clang_analyzer__  // It can't follow counts, and sees uses behind every delete.
  delete this;
#endif
  return 0;
}

// An owning pointer: one count for as long as it holds. The virtual destructor belongs to the binary
// contract.
template <class T>
class KTPtr {
 public:
  KTPtr() = default;
  // Implicit: wherever a KTPtr is asked for, a raw pointer will do.
  KTPtr(T* object) : object_(object) {
    if (object_) object_->addRef();
  }
  KTPtr(const KTPtr& other) : KTPtr(other.object_) {}
  virtual ~KTPtr() {
    if (object_) object_->release();
  }

  // The old object is dropped before the new one is counted: an object that only the old one kept alive must
  // not be assigned without a second owner. Meanwhile this pointer is null for whatever a destructor may do
  // with it.
  KTPtr& operator=(const KTPtr& other) {
    if (this == &other) return *this;
    T* const old = object_;
    T* const next = other.object_;
    object_ = nullptr;
    if (old) old->release();
    object_ = next;
    if (next) next->addRef();
    return *this;
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_ = nullptr;
};

class KTObjectPtr : public KTPtr<KTObject> {
 public:
  using KTPtr<KTObject>::KTPtr;
};

namespace orv::util::hidden {

// Makes copying inaccessible to whatever inherits it.
class Noncopyable {
 protected:
  Noncopyable() = default;
  ~Noncopyable() = default;

 public:
  Noncopyable(const Noncopyable&) = delete;
  Noncopyable& operator=(const Noncopyable&) = delete;
};

}  // namespace orv::util::hidden
