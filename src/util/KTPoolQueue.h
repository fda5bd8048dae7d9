// A queue of free entries, linked through the entries themselves.

#pragma once

#include "util/KTThrowable.h"

// First in, first out. Owns nothing; an entry is in one queue at a time.
template <class Entry>
class KTPoolQueue {
 public:
  bool empty() const { return !head_; }

  Entry* front() const { return head_; }  // Null when empty.

  void append(Entry* entry) {
    entry->nextFree = nullptr;
    (tail_ ? tail_->nextFree : head_) = entry;
    tail_ = entry;
  }

  // Takes the first entry. Returns null from an empty queue, which is a fault of the caller.
  Entry* pop() {
    KT_ASSERT(head_);
    Entry* const entry = head_;
    if (!entry) return nullptr;
    head_ = entry->nextFree;
    if (!head_) tail_ = nullptr;
    entry->nextFree = nullptr;
    return entry;
  }

  // Appends all entries of `other`, in their order.
  void append(KTPoolQueue&& other) {
    if (other.empty()) return;
    (tail_ ? tail_->nextFree : head_) = other.head_;
    tail_ = other.tail_;
    other.head_ = other.tail_ = nullptr;
  }

 private:
  Entry* head_ = nullptr;
  Entry* tail_ = nullptr;
};
