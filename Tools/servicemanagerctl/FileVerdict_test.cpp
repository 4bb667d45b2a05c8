#include "Tools/servicemanagerctl/FileVerdict.h"

#include <cerrno>
#include <set>

#include <gtest/gtest.h>

#include "Platform/Values/OSStatus.h"

namespace {

using namespace platform;

struct Row {
  CodeSigningResult<void> check;
  FileVerdict::Kind kind;
  const char* text;
};

TEST(FileVerdictTest, EachKindHasItsWordsAndStatus) {
  const Row rows[] = {{{}, FileVerdict::Kind::kIntact, "intact"},
                      {refuse(errSecCSUnsigned, "x: no signature"), FileVerdict::Kind::kNotSigned,
                       "not signed: x: no signature"},
                      {refuse(kErrnoStatusBase + EMFILE, "x: no descriptor"),
                       FileVerdict::Kind::kUnknown, "could not be told: x: no descriptor"},
                      {refuse(kErrnoStatusBase + ENOENT, "x: none"), FileVerdict::Kind::kMissing,
                       "there is no such file: x: none"},
                      {refuse(errSecCSSignatureFailed, "x: changed"), FileVerdict::Kind::kDamaged,
                       "damaged, or not signed by a trusted signer: x: changed"}};
  std::set<std::string_view> words;
  std::set<int> statuses;
  for (const Row& row : rows) {
    const FileVerdict verdict = fileVerdict(row.check);
    EXPECT_EQ(verdict.kind, row.kind) << row.text;
    EXPECT_EQ(inWords(verdict), row.text);
    words.insert(verdictWord(verdict.kind));
    statuses.insert(exitStatusOf(verdict.kind));
  }
  EXPECT_EQ(words.size(), std::size(rows));
  EXPECT_EQ(statuses.size(), std::size(rows));
}

}  // namespace
