#include "Platform/Linux/SystemFacts/UserIdentity.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(GecosTest, TheFullNameIsTheFirstFieldElseTheLoginName) {
  const struct {
    const char* gecos;
    const char* login;
    const char* name;
  } cases[] = {{"Kim Doe", "kim", "Kim Doe"},
               {"Kim Doe,Room 1,555,,", "kim", "Kim Doe"},
               {"", "kim", "kim"},
               {",Room 1", "kim", "kim"},
               {"& Doe", "kim", "Kim Doe"},
               {"&", "kim", "Kim"},
               {"&&", "kim", "KimKim"},
               {"Doe, &", "kim", "Doe"},
               {"& Doe", "Kim", "Kim Doe"},
               {"& Doe", "_kim", "_kim Doe"},
               {"& Doe", "", " Doe"},
               {"Müller", "kim", "Müller"}};
  for (const auto& [gecos, login, name] : cases) EXPECT_EQ(fullNameOfGecos(gecos, login), name);
}

// A name service with one user, 501, whose entry has `entrySize` bytes.
std::size_t entrySize = 0;
int interruptions = 0;

int lookUpLarge(uid_t user, passwd* entry, char* buffer, std::size_t size, passwd** result) {
  *result = nullptr;
  if (interruptions > 0) {
    --interruptions;
    return EINTR;
  }
  if (user != 501) return 0;
  if (size < entrySize) return ERANGE;
  std::memset(buffer, 'x', entrySize);
  std::strcpy(buffer, "kim");
  buffer[entrySize - 1] = '\0';
  entry->pw_name = buffer;
  entry->pw_gecos = buffer + 4;
  *result = entry;
  return 0;
}

TEST(UserIdentityTest, TheSizeOfAnEntryIsLimited) {
  for (const std::size_t size : {16, 1024, 1025, 100'000, 1024 * 1024}) {
    entrySize = size;
    const auto identity = lookUpUser(501, lookUpLarge);
    ASSERT_TRUE(identity) << size;
    EXPECT_EQ(identity->posixName, "kim");
    EXPECT_EQ(identity->fullName, std::string(size - 5, 'x'));
  }
  entrySize = 1024 * 1024 + 1;
  EXPECT_FALSE(lookUpUser(501, lookUpLarge));
}

TEST(UserIdentityTest, AnInterruptedLookupIsRepeated) {
  entrySize = 16;
  interruptions = 3;
  EXPECT_TRUE(lookUpUser(501, lookUpLarge));
  EXPECT_EQ(interruptions, 0);
}

TEST(UserIdentityTest, AnUnknownUserHasNoIdentity) { EXPECT_FALSE(lookUpUser(502, lookUpLarge)); }

TEST(UserIdentityTest, AFailureOfTheNameServiceGivesNoIdentity) {
  EXPECT_FALSE(lookUpUser(501, [](uid_t, passwd*, char*, std::size_t, passwd** result) {
    *result = nullptr;
    return EIO;
  }));
}

TEST(UserIdentityTest, AnEntryMayHaveNullTexts) {
  const auto nothingButAName = [](uid_t, passwd* entry, char* buffer, std::size_t,
                                  passwd** result) {
    std::strcpy(buffer, "kim");
    *entry = {};
    entry->pw_name = buffer;
    *result = entry;
    return 0;
  };
  EXPECT_EQ(lookUpUser(501, nothingButAName)->fullName, "kim");
  EXPECT_FALSE(lookUpUser(501, [](uid_t, passwd* entry, char*, std::size_t, passwd** result) {
    *entry = {};
    *result = entry;
    return 0;
  }));
}

}  // namespace
}  // namespace platform
