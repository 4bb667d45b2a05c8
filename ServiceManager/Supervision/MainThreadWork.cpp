#include "ServiceManager/Supervision/MainThreadWork.h"

// The main thread alone changes `innermost_`, so it reads it without the lock.
MainThreadWork::Scope::Scope(MainThreadWork& work, std::string_view what, std::string_view label)
    : work_(work),
      what_(what),
      label_(label),
      since_(work.runLoop_.now()),
      outer_(work.innermost_) {
  const std::lock_guard lock(work_.mutex_);
  work_.innermost_ = this;
}

MainThreadWork::Scope::~Scope() {
  const std::lock_guard lock(work_.mutex_);
  work_.innermost_ = outer_;
}

std::optional<MainThreadWork::Work> MainThreadWork::current() const {
  const std::lock_guard lock(mutex_);
  if (!innermost_) return std::nullopt;
  return Work{innermost_->what_, std::string(innermost_->label_), innermost_->since_};
}
