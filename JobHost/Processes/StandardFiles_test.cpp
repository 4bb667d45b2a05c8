#include "JobHost/Processes/StandardFiles.h"

#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using platform::UniqueFd;

// A process that gets them can't tell that the host did not wait when it opened them.
TEST(StandardFilesTest, ReadingAndWritingWaits) {
  platform::TemporaryFolder folder;
  const std::string pipe = folder.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const UniqueFd other(::open(pipe.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  ASSERT_TRUE(other);
  JobDefinition job;
  job.standardInPath = pipe;
  job.standardOutPath = pipe;
  job.standardErrorPath = folder.path("file");
  const auto files = openStandardFiles(job, JobAccount());
  ASSERT_TRUE(files) << platform::describe(files.error());
  const int modes[] = {O_RDONLY, O_WRONLY | O_APPEND, O_WRONLY | O_APPEND};
  for (std::size_t i = 0; i < files->size(); ++i) {
    const int flags = ::fcntl((*files)[i].get(), F_GETFL);
    EXPECT_EQ(flags & (O_ACCMODE | O_APPEND | O_NONBLOCK), modes[i]) << i;
  }
}

}  // namespace
}  // namespace jobhost
