#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/RunLoops/RunLoop.h"

// The work of the main thread that may take long, so that another thread can say what a main thread
// that does not answer is doing. The main thread writes, any thread reads.
class MainThreadWork {
 public:
  struct Work {
    std::string_view what;  // one of the words below
    std::string label;      // of a service; may be empty
    platform::Instant since;
  };

  // `runLoop` is that of the main thread, and outlives all scopes.
  explicit MainThreadWork(const platform::RunLoop& runLoop) : runLoop_(runLoop) {}
  MainThreadWork(const MainThreadWork&) = delete;
  MainThreadWork& operator=(const MainThreadWork&) = delete;

  // The main thread does this until the scope ends. Scopes may lie in one another.
  class [[nodiscard]] Scope {
   public:
    // `what` lasts for ever, `label` as long as this.
    Scope(MainThreadWork& work, std::string_view what, std::string_view label);
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();

   private:
    friend class MainThreadWork;
    MainThreadWork& work_;
    const std::string_view what_;
    const std::string_view label_;
    const platform::Instant since_;
    const Scope* const outer_;
  };

  // The innermost scope; nothing if there is none.
  std::optional<Work> current() const;

 private:
  const platform::RunLoop& runLoop_;
  mutable std::mutex mutex_;
  const Scope* innermost_ = nullptr;
};

inline constexpr std::string_view kWorkEvaluates = "evaluates";
inline constexpr std::string_view kWorkChecksService = "checksService";
inline constexpr std::string_view kWorkChecksProgram = "checksProgram";
inline constexpr std::string_view kWorkReadsHealth = "readsHealth";
