#include "JobHost/Output/ServiceOutput.h"

#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "JobHost/Output/JournalStream.h"
#include "JobHost/Output/OutputFiles.h"
#include "Platform/Linux/Logging/ServiceOutputFile.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Result;
using platform::UniqueFd;
using Kind = platform::PlatformConfiguration::ServiceOutput;

ServiceOutput::ServiceOutput(Kind kind, const std::string& root, platform::SystemLog& log)
    : kind_(kind),
      log_(log),
      files_(std::make_unique<OutputFiles>(platform::serviceOutputFolder(root))) {}

Result<std::unique_ptr<ServiceOutput>> ServiceOutput::create(
    const platform::PlatformConfiguration& configuration, std::string pipes,
    platform::SystemLog& log) {
  std::unique_ptr<ServiceOutput> output(
      new ServiceOutput(configuration.serviceOutput, configuration.root, log));
  auto reader = OutputReader::create(std::move(pipes), output->files_, platform::monotonicTime);
  if (!reader) return std::unexpected(std::move(reader.error()));
  output->reader_ = *std::move(reader);
  return output;
}

void ServiceOutput::takeOver(platform::RunLoop& loop) {
  loop_ = &loop;
  tryToTakeOver();
}

// A service whose pipe is not read waits for ever as soon as the pipe is full.
void ServiceOutput::tryToTakeOver() {
  const auto takenOver = reader_->takeOver();
  retry_ = nullptr;
  if (takenOver) {
    hasFailedToRead_ = false;
    return;
  }
  noteThatNothingIsRead(takenOver.error());
}

void ServiceOutput::noteThatNothingIsRead(const platform::Error& error) {
  if (!std::exchange(hasFailedToRead_, true)) {
    log_.asl_log(nullptr, platform::ASL_LEVEL_ERR,
                 "the output of some services is not read: " + platform::describe(error));
  }
  retry_ = loop_->startTimer(kRetryInterval, platform::RunLoop::Repeat::kOnce,
                             [this] { tryToTakeOver(); });
}

JobOutput ServiceOutput::output() {
  if (kind_ == Kind::kDiscard) return {};
  return
      [this](const JobDefinition& job, const JobAccount& account) { return openFor(job, account); };
}

UniqueFd ServiceOutput::openFor(const JobDefinition& job, const JobAccount& account) {
  // A user who owned a pipe could hold up the thread that reads, and what it has open would be the
  // next user's.
  if (kind_ == Kind::kLog && account.user != ::geteuid()) return {};
  auto opened = kind_ == Kind::kJournal ? openJournalStream(job.label)
                                        : reader_->open(platform::outputNameOf(job.label));
  if (!opened) {
    noteFailure(job.label, opened.error());
    return {};
  }
  hasFailed_ = false;
  return *std::move(opened);
}

// Once until it succeeds: a crash loop must not fill the log with this.
void ServiceOutput::noteFailure(const std::string& label, const platform::Error& error) {
  if (std::exchange(hasFailed_, true)) return;
  log_.asl_log(nullptr, platform::ASL_LEVEL_WARNING,
               fmt::format("job {}: its output is lost: {}", platform::quotedInMessage(label),
                           platform::describe(error)));
}

void ServiceOutput::stop(platform::Duration limit) {
  reader_->stop();
  files_.flush(limit);
}

void ServiceOutput::start() {
  if (const auto started = reader_->start(); !started) noteThatNothingIsRead(started.error());
}

}  // namespace jobhost
