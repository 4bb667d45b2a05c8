#include "Kit/SettingsServer/SettingsStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Kit/SettingsServer/SettingsStore_fixture.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Error;
using platform::ErrorCode;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Limits = SettingsLimits;

TEST_F(SettingsStoreTest, EveryTypeSurvivesAKillUnchanged) {
  const std::pair<const char*, Value> settings[] = {
      {"true", true},
      {"integer", 1},
      {"large", std::int64_t{1} << 62},
      {"real", 1.0},
      {"fraction", -0.1},
      {"string", "\xC3\xA4 text"},
      {"empty", ""},
      {"data", Data{0, 1, 255}},
      {"no data", Data{}},
      {"date", platform::Date{1.25}},
      {"array", Array{1, true, 1.0, "a", Array{}, Value::nullMarker()}},
      {"dictionary", Dictionary{{"b", 1}, {"a", Dictionary{{"deep", Data{7}}}}}},
  };
  for (const auto& [key, value] : settings) ASSERT_TRUE(store_->set(kOne, key, value)) << key;
  openAsAfterAKill();
  for (const auto& [key, value] : settings) {
    const Value kept = store_->value(kOne, key);
    EXPECT_EQ(kept, value) << key;
    EXPECT_EQ(kept.type(), value.type()) << key;
  }
  const Value array = store_->value(kOne, "array");
  EXPECT_EQ((*array.array())[0].type(), Value::Type::kInteger);
  EXPECT_EQ((*array.array())[1].type(), Value::Type::kBoolean);
  EXPECT_EQ((*array.array())[2].type(), Value::Type::kReal);
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(SettingsStoreTest, DomainsAreSeparate) {
  ASSERT_TRUE(store_->set(kOne, "key", 1));
  EXPECT_TRUE(store_->value(kOther, "key").isNil());
  EXPECT_THAT(*store_->removeValues(kOther, {"key"}), IsEmpty());
  EXPECT_EQ(store_->value(kOne, "key"), Value(1));
}

TEST_F(SettingsStoreTest, AValueHidesItsDefaultUntilItIsRemoved) {
  EXPECT_THAT(*store_->registerDefaults(kOne, Dictionary{{"a", 1}, {"b", "default"}}),
              ElementsAre("a", "b"));
  EXPECT_EQ(store_->value(kOne, "a"), Value(1));
  EXPECT_TRUE(store_->isDefault(kOne, "a"));
  ASSERT_TRUE(store_->set(kOne, "a", 2));
  EXPECT_EQ(store_->value(kOne, "a"), Value(2));
  EXPECT_FALSE(store_->isDefault(kOne, "a"));
  EXPECT_EQ(store_->dictionaryRepresentation(kOne), (Dictionary{{"a", 2}, {"b", "default"}}));
  EXPECT_THAT(*store_->removeValues(kOne, {"a", "b", "a", "c"}), ElementsAre("a"));
  EXPECT_EQ(store_->value(kOne, "a"), Value(1));
  EXPECT_TRUE(store_->isDefault(kOne, "a"));
  EXPECT_FALSE(store_->isDefault(kOne, "c"));  // The key is unknown.
}

TEST_F(SettingsStoreTest, DefaultsSurviveAKillToo) {
  ASSERT_TRUE(store_->registerDefaults(kOne, Dictionary{{"a", 1}}));
  openAsAfterAKill();
  EXPECT_EQ(store_->value(kOne, "a"), Value(1));
  EXPECT_TRUE(store_->isDefault(kOne, "a"));
}

TEST_F(SettingsStoreTest, OnlyDefaultsThatAreReadDifferentlyCountAsChanged) {
  ASSERT_TRUE(store_->set(kOne, "covered", 5));
  ASSERT_TRUE(store_->registerDefaults(kOne, Dictionary{{"same", 1}, {"kind", 1}}));
  const Dictionary before = store_->versions(kOne);
  EXPECT_THAT(*store_->registerDefaults(
                  kOne, Dictionary{{"same", 1}, {"covered", 6}, {"kind", true}, {"new", 1}}),
              ElementsAre("kind", "new"));
  EXPECT_EQ(store_->versions(kOne)["same"], before["same"]);
  EXPECT_EQ(store_->value(kOne, "kind").type(), Value::Type::kBoolean);
}

TEST_F(SettingsStoreTest, AVersionNeverFalls) {
  const auto version = [&](const char* key) {
    return store_->versions(kOne)[key].integer().value_or(0);
  };
  ASSERT_TRUE(store_->registerDefaults(kOne, Dictionary{{"a", 1}}));
  const auto ofDefault = version("a");
  EXPECT_GT(ofDefault, 0);
  ASSERT_TRUE(store_->set(kOne, "a", 2));
  const auto ofValue = version("a");
  EXPECT_GT(ofValue, ofDefault);
  ASSERT_TRUE(store_->set(kOther, "a", 2));
  EXPECT_EQ(version("a"), ofValue);
  ASSERT_TRUE(store_->set(kOne, "a", 2));  // This counts as a change, too.
  const auto again = version("a");
  EXPECT_GT(again, ofValue);
  ASSERT_TRUE(store_->removeValues(kOne, {"a"}));
  const auto removed = version("a");
  EXPECT_GT(removed, again);
  ASSERT_TRUE(store_->set(kOne, "gone", 1));
  const auto gone = version("gone");
  ASSERT_TRUE(store_->removeValues(kOne, {"gone"}));
  EXPECT_FALSE(store_->versions(kOne).contains("gone"));
  openAsAfterAKill();
  EXPECT_EQ(version("a"), removed);
  ASSERT_TRUE(store_->set(kOne, "gone", 1));
  EXPECT_GT(version("gone"), gone);
}

TEST_F(SettingsStoreTest, AKeyHasAtMost255Bytes) {
  EXPECT_TRUE(store_->set(kOne, std::string(Limits::kKeyBytes - 1, 'k'), 1));
  EXPECT_TRUE(store_->set(kOne, std::string(Limits::kKeyBytes, 'k'), 1));
  const Error error = refused(std::string(Limits::kKeyBytes + 1, 'k'), 1);
  EXPECT_EQ(error.code, ErrorCode::kExhausted);
  EXPECT_THAT(error.context, HasSubstr("its key has 256 bytes, the most are 255"));
  EXPECT_EQ(refused("", 1).code, ErrorCode::kInvalid);
  EXPECT_EQ(store_->dictionaryRepresentation(kOne).size(), 2u);
}

TEST_F(SettingsStoreTest, ASettingTakesAtMost64KiB) {
  EXPECT_TRUE(store_->set(kOne, "k", valueOfBytes(Limits::kSettingBytes - 1)));
  const Value largest = valueOfBytes(Limits::kSettingBytes);
  EXPECT_TRUE(store_->set(kOne, "k", largest));
  const Error error = refused("k", valueOfBytes(Limits::kSettingBytes + 1));
  EXPECT_EQ(error.code, ErrorCode::kExhausted);
  EXPECT_THAT(error.context,
              HasSubstr("\"k\" of com.vantor.One: takes 65537 bytes, the most are 65536"));
  EXPECT_EQ(store_->value(kOne, "k"), largest);
}

TEST_F(SettingsStoreTest, ADomainsSettingsTakeAtMost192KiB) {
  EXPECT_TRUE(store_->set(kOne, "a", valueOfBytes(Limits::kSettingBytes)));
  EXPECT_TRUE(store_->set(kOne, "b", valueOfBytes(Limits::kSettingBytes)));
  EXPECT_TRUE(store_->set(kOne, "c", valueOfBytes(Limits::kSettingBytes - 100)));
  EXPECT_TRUE(store_->set(kOne, "d", valueOfBytes(99)));
  EXPECT_TRUE(store_->set(kOne, "d", valueOfBytes(100)));
  EXPECT_EQ(refused("d", valueOfBytes(101)).code, ErrorCode::kExhausted);
  EXPECT_EQ(store_->value(kOne, "d"), valueOfBytes(100));
  // A removed setting makes room, and other domains have their own limits.
  EXPECT_TRUE(store_->set(kOther, "a", valueOfBytes(Limits::kSettingBytes)));
  ASSERT_TRUE(store_->removeValues(kOne, {"c"}));
  EXPECT_TRUE(store_->set(kOne, "d", valueOfBytes(101)));
}

TEST_F(SettingsStoreTest, ADomainHasAtMost1024Values) {
  Dictionary defaults;
  for (std::size_t i = 0; i < Limits::kDomainSettings - 1; ++i) defaults.set(std::to_string(i), 1);
  ASSERT_TRUE(store_->registerDefaults(kOne, defaults));
  EXPECT_TRUE(store_->registerDefaults(kOne, Dictionary{{"last", 1}}));
  const auto over = store_->registerDefaults(kOne, Dictionary{{"last", 2}, {"over", 1}});
  ASSERT_FALSE(over);
  EXPECT_THAT(over.error().context,
              HasSubstr("\"over\" of com.vantor.One: the most settings that a domain may have are "
                        "1024"));
  EXPECT_EQ(store_->value(kOne, "last"), Value(1));  // All or none.
  EXPECT_TRUE(store_->set(kOne, "over", 1));         // Values have their own limit.
}

TEST_F(SettingsStoreTest, TheFullestDomainTravelsInOneMessage) {
  // Null markers are the smallest values: eight bytes with their overhead.
  const Array smallest((Limits::kSettingBytes - 1000) / 8, Value::nullMarker());
  for (const char* key : {"a", "b", "c"}) {
    const auto set = store_->set(kOne, key, Value(smallest));
    ASSERT_TRUE(set) << describe(set.error());
    ASSERT_TRUE(store_->registerDefaults(kOne, Dictionary{{key + std::string("d"), smallest}}));
  }
  const Value all(store_->dictionaryRepresentation(kOne));
  const auto bytes = platform::peerBodyBytes(Array{all});
  ASSERT_TRUE(bytes) << describe(bytes.error());
  EXPECT_LT(*bytes, platform::kMaxPeerMessageBytes - platform::kPeerMessageHeaderBytes);
}

TEST_F(SettingsStoreTest, AnUnstorableValueIsRefused) {
  EXPECT_EQ(refused("k", Value()).code, ErrorCode::kInvalid);
  EXPECT_EQ(refused("k", "\xFF").code, ErrorCode::kInvalid);
  Value deep = 1;
  // One level is the dictionary in which all settings travel.
  for (std::size_t depth = 0; depth < platform::kMaxPeerDepth - 1; ++depth) deep = Array{deep};
  EXPECT_TRUE(store_->set(kOne, "deep", deep));
  EXPECT_EQ(refused("k", Array{deep}).code, ErrorCode::kInvalid);
  EXPECT_TRUE(store_->value(kOne, "k").isNil());
}

TEST_F(SettingsStoreTest, BlobsAreKeptApartFromSettings) {
  EXPECT_TRUE(store_->persistBlob(kOne, "key", Data{1, 2}));
  EXPECT_TRUE(store_->persistBlob(kOne, "empty", Data{}));
  EXPECT_TRUE(store_->value(kOne, "key").isNil());
  openAsAfterAKill();
  EXPECT_EQ(*store_->blob(kOne, "key"), (Data{1, 2}));
  EXPECT_EQ(*store_->blob(kOne, "empty"), Data{});
  EXPECT_EQ(*store_->blob(kOther, "key"), std::nullopt);
  EXPECT_THAT(*store_->blobKeys(kOne), ElementsAre("empty", "key"));
  EXPECT_TRUE(store_->persistBlob(kOne, "key", Data{3}));
  EXPECT_EQ(*store_->blob(kOne, "key"), Data{3});
  EXPECT_TRUE(store_->deleteBlob(kOne, "key"));
  EXPECT_TRUE(store_->deleteBlob(kOne, "never was"));
  EXPECT_THAT(*store_->blobKeys(kOne), ElementsAre("empty"));
}

TEST_F(SettingsStoreTest, BlobsAreBoundedInSizeAndNumber) {
  EXPECT_TRUE(store_->persistBlob(kOne, "b", Data(Limits::kBlobBytes - 1)));
  EXPECT_TRUE(store_->persistBlob(kOne, "b", Data(Limits::kBlobBytes)));
  EXPECT_FALSE(store_->persistBlob(kOne, "b", Data(Limits::kBlobBytes + 1)));
  EXPECT_FALSE(store_->persistBlob(kOne, "", Data{1}));
  for (std::size_t i = 1; i < Limits::kDomainBlobs; ++i)
    ASSERT_TRUE(store_->persistBlob(kOne, std::to_string(i), Data{1}));
  const auto over = store_->persistBlob(kOne, "over", Data{1});
  ASSERT_FALSE(over);
  EXPECT_THAT(over.error().context, HasSubstr("the most blobs that a domain may have are 64"));
  EXPECT_TRUE(store_->persistBlob(kOne, "1", Data{2}));  // This key exists already.
  EXPECT_TRUE(store_->persistBlob(kOther, "over", Data{1}));
}

TEST(QuotedKeyTest, IsCutBetweenCharactersWhereItIsTooLong) {
  EXPECT_EQ(quotedKey("key"), "\"key\"");
  const std::string most(SettingsLimits::kKeyBytes, 'k');
  EXPECT_EQ(quotedKey(most), "\"" + most + "\"");
  EXPECT_EQ(quotedKey(most + "k"), "\"" + most + "...\"");
  const std::string beside = most.substr(1) + "\xC3\xA4";
  EXPECT_EQ(quotedKey(beside), "\"" + most.substr(1) + "...\"");
}

}  // namespace
