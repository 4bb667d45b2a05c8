#pragma once

#include <memory>
#include <utility>

// A table that one thread changes, and that others get as it was when they asked. It is copied for
// a change, if it has been shared since the last copy. Belongs to the thread that changes it.
template <class Table>
class SharedTable {
 public:
  SharedTable() = default;
  // Another thread may read a copy.
  SharedTable(const SharedTable& other) : table_(other.table_), isShared_(true) {
    other.isShared_ = true;
  }
  SharedTable& operator=(const SharedTable& other) {
    table_ = other.table_;
    isShared_ = other.isShared_ = true;
    return *this;
  }
  ~SharedTable() = default;

  const Table& operator*() const { return *table_; }
  const Table* operator->() const { return table_.get(); }

  // For any thread. It does not change any more.
  std::shared_ptr<const Table> share() const {
    isShared_ = true;
    return table_;
  }

  // To be used before the next share(). use_count() could not tell whether to copy: another thread
  // may release its table at this moment.
  Table& change() {
    if (std::exchange(isShared_, false)) table_ = std::make_shared<Table>(*table_);
    return *table_;
  }

 private:
  std::shared_ptr<Table> table_ = std::make_shared<Table>();
  mutable bool isShared_ = false;
};
