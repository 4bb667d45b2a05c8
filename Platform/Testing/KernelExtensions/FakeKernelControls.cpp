#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

namespace platform {
namespace {

constexpr Duration kTimeout = std::chrono::seconds(1);

std::unexpected<Error> controlFailure(ErrorCode code, int number, std::string_view what) {
  return std::unexpected(Error{code, number, "fake control: " + std::string(what)});
}

}  // namespace

class FakeKernelControls::FakeSocket final : public ControlSocket {
 public:
  explicit FakeSocket(FakeKernelControls& controls) : controls_(controls) {}
  FakeSocket(const FakeSocket&) = delete;
  FakeSocket& operator=(const FakeSocket&) = delete;
  ~FakeSocket() override { hangUp(); }

  Result<void> findControl(std::string_view name) override {
    if (!isControlName(name)) return controlFailure(ErrorCode::kInvalid, 0, "no name");
    ++controls_.searches_[std::string(name)];
    if (!controls_.find(name)) return controlFailure(ErrorCode::kNotFound, ENOENT, name);
    name_ = name;
    return {};
  }

  Result<void> connect() override {
    Control* const control = controls_.find(name_);
    if (!control || control->isUnreachable)
      return controlFailure(ErrorCode::kNotFound, ECONNREFUSED, name_);
    if (control->isForeign) return controlFailure(ErrorCode::kDenied, EPERM, name_);
    handler_ = control->makeHandler();
    ++control->clients;
    ++control->connections;
    return {};
  }

  ProcessId offeredBy() const override {
    const Control* const control = handler_ ? controls_.find(name_) : nullptr;
    return control ? control->process : 0;
  }

  Result<ControlInteger> getIntegerOption(std::uint32_t option) override {
    if (auto answers = await(); !answers) return std::unexpected(answers.error());
    const auto bytes = handler_->getOption(option);
    if (!bytes) return refused(bytes.error());
    if (bytes->size() > kMaxControlOptionBytes) {
      return controlFailure(ErrorCode::kSystem, EMSGSIZE, "a long option");
    }
    ControlInteger integer{0, bytes->size()};
    std::copy_n(bytes->begin(), std::min(bytes->size(), sizeof integer.value),
                reinterpret_cast<std::uint8_t*>(&integer.value));
    return integer;
  }

  Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) override {
    if (bytes.size() > kMaxControlOptionBytes) {
      return controlFailure(ErrorCode::kInvalid, EMSGSIZE, "too many bytes");
    }
    if (auto answers = await(); !answers) return answers;
    const auto done = handler_->setOption(option, bytes);
    if (!done) return refused(done.error());
    return {};
  }

  Result<void> ping() override { return await(); }

  Result<void> prepareToUnload() override {
    if (auto answers = await(); !answers) return answers;
    if (controls_.find(name_)->clients == 1) return {};
    return controlFailure(ErrorCode::kDenied, EBUSY, "has other clients");
  }

 private:
  static std::unexpected<Error> refused(const Error& error) {
    return controlFailure(ErrorCode::kSystem, error.osError == 0 ? EINVAL : error.osError,
                          error.context);
  }

  Result<void> await() {
    if (!handler_) return controlFailure(ErrorCode::kInvalid, ENOTCONN, name_);
    const Control* const control = controls_.find(name_);
    if (control && !control->isHanging) return {};
    if (control) controls_.loop_.sleepFor(kTimeout);
    hangUp();
    return controlFailure(ErrorCode::kSystem, control ? ETIMEDOUT : ECONNRESET, name_);
  }

  void hangUp() {
    if (!std::exchange(handler_, nullptr)) return;
    const auto control = controls_.controls_.find(name_);
    if (control != controls_.controls_.end()) --control->second.clients;
  }

  FakeKernelControls& controls_;
  std::string name_;
  std::unique_ptr<ControlHandler> handler_;  // while connected
};

void FakeKernelControls::offer(std::string_view name, MakeControlHandler makeHandler,
                               std::function<bool()> isListening) {
  controls_[std::string(name)] = Control{std::move(makeHandler), std::move(isListening)};
}

int FakeKernelControls::searches(std::string_view name) const {
  const auto found = searches_.find(name);
  return found == searches_.end() ? 0 : found->second;
}

FakeKernelControls::Control* FakeKernelControls::find(std::string_view name) {
  const auto found = controls_.find(name);
  if (found == controls_.end()) return nullptr;
  Control& control = found->second;
  return !control.isListening || control.isListening() ? &control : nullptr;
}

Result<std::unique_ptr<ControlSocket>> FakeKernelControls::openControlSocket() {
  if (withoutDescriptors_) return controlFailure(ErrorCode::kExhausted, EMFILE, "no descriptor");
  return std::make_unique<FakeSocket>(*this);
}

}  // namespace platform
