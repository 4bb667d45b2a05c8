#include "Tools/servicemanagerctl/JobsCommands.h"

#include <cstdlib>
#include <optional>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Linux/Files/PropertyListFile.h"
#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"
#include "Tools/servicemanagerctl/WaitProgress.h"

namespace {

using namespace platform;

constexpr char kServiceManagersLabel[] = "com.vantor.servicemanager";

}  // namespace

struct JobsCommands::Connected {
  EmbeddedJobs& jobs;
  RunLoop& loop;
  const std::string& hostProgram;

  int refuse(const NSError& error) const {
    fail(asAdvice(error, hostProgram, ::geteuid()));
    return exitStatusOf(error);
  }

  int refuseUnknown(const std::string& label) const {
    return refuse({kCFErrorDomainLaunchd, static_cast<int>(LaunchdError::kNoSuchJob),
                   "no job has the label \"" + abridged(label) + "\""});
  }
};

JobsCommands::JobsCommands(CLI::App& app)
    : jobs_(app.add_subcommand("jobs", "Look at the job host's jobs, and change them")),
      list_(jobs_->add_subcommand("list", "All jobs: label, process, how the last one ended")),
      show_(jobs_->add_subcommand("show", "One job with its dictionary")),
      submit_(jobs_->add_subcommand("submit", "Submit the job that a property list describes")),
      remove_(jobs_->add_subcommand("remove", "End a job's processes and forget the job")) {
  jobs_->require_subcommand(1);
  for (CLI::App* command : {list_, show_, submit_, remove_}) {
    command->add_flag("--json", json_, "For programs");
  }
  for (CLI::App* command : {show_, remove_}) {
    command->add_option("label", label_, "The job's label")->required();
  }
  submit_->add_option(kFileOption, file_, "A property list, XML or binary")->required();
}

int JobsCommands::run(EmbeddedJobs& jobs, RunLoop& loop, const std::string& hostProgram) const {
  const Connected to{jobs, loop, hostProgram};
  if (list_->parsed()) return list(to);
  if (show_->parsed()) return show(to);
  if (submit_->parsed()) return submit(to);
  return remove(to);
}

int JobsCommands::list(const Connected& to) const {
  const auto states = to.jobs.copyJobStates();
  if (!states) return to.refuse(states.error());
  const std::vector<JobState> jobs = jobStates(*states);
  if (!json_) {
    print(asTable(jobs, readerOf(STDOUT_FILENO)));
    return EXIT_SUCCESS;
  }
  auto json = nlohmann::ordered_json::array();
  for (const JobState& job : jobs) json.push_back(asJson(job));
  print(dumped(json));
  return EXIT_SUCCESS;
}

int JobsCommands::show(const Connected& to) const {
  const auto job = to.jobs.copyJob(label_);
  if (!job) return to.refuse(job.error());
  if (job->isNil()) return to.refuseUnknown(label_);
  const JobState state = jobState(label_, *job);
  print(json_ ? dumpedAnswer(asJson(state, *job)) : asText(state, *job, readerOf(STDOUT_FILENO)));
  return EXIT_SUCCESS;
}

int JobsCommands::submit(const Connected& to) const {
  const auto dictionary = readPropertyListFile(file_);
  if (!dictionary) return fail(dictionary.error());
  const auto submitted = to.jobs.SMJobSubmit(kSMDomainSystemLaunchd, *dictionary, nullptr);
  if (!submitted) return to.refuse(submitted.error());
  // The host rejects a job without a label.
  const std::string label = *(*dictionary)["Label"].string();
  const auto job = to.jobs.copyJob(label);
  if (!job) return to.refuse(job.error());
  if (job->isNil()) return to.refuseUnknown(label);  // Another client has removed it already.
  const JobState state = jobState(label, *job);
  print(json_ ? dumpedAnswer(asJson(state)) : asSentence(state));
  return EXIT_SUCCESS;
}

int JobsCommands::remove(const Connected& to) const {
  const auto job = to.jobs.copyJob(label_);
  if (!job) return to.refuse(job.error());
  if (job->isNil()) return to.refuseUnknown(label_);
  std::optional<WaitProgress> progress;
  progress.emplace(to.loop,
                   WaitProgress::removalOf(
                       label_, (*job)["ExitTimeOut"].integer().value_or(kDefaultExitTimeOut)),
                   readerOf(STDERR_FILENO), warn);
  std::expected<void, NSError> outcome;
  to.jobs.removeJob(kSMDomainSystemLaunchd, label_, nullptr,
                    [&](std::expected<void, NSError> removed) {
                      outcome = std::move(removed);
                      to.loop.stop();
                    });
  to.loop.run();
  progress.reset();
  if (!outcome) return to.refuse(outcome.error());
  print(json_ ? dumpedAnswer({{"label", label_}, {"removed", true}})
              : plain(label_) + " is removed.\n");
  if (label_ == kServiceManagersLabel)
    remark(
        "without it nobody watches the services; \"servicemanagerctl jobs submit FILE\" brings it "
        "back, with its file in the folder LaunchDaemons of the product");
  return EXIT_SUCCESS;
}
