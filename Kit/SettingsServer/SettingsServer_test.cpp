#include <filesystem>
#include <optional>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Kit/SettingsServer/SettingsServers.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::DistributedNotification;
using platform::Value;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// All servers in one program, and a client of one domain in another, on virtual time and a real
// file.
class SettingsServerTest : public testing::Test {
 protected:
  using Client = KLXGlobalSettingsClient;

  SettingsServerTest() {
    VantorDistantObject::gTimeoutInterval = 10.0;
    addGlobalSettingsProtocol(protocols_);
    client_ = Client::commonSettingsClientWithDelegate(environment(), nullptr);
    changes_ = distributed_->addObserver(
        kKLXGlobalSettingsDidChangeNotification, std::nullopt,
        [this](const DistributedNotification& notification) {
          const std::string* key = notification.userInfo[kKLXGlobalSettingsKeyModified].string();
          changed_.push_back(notification.object.value_or("") + "/" + (key ? *key : ""));
        });
    start();
  }

  void start() {
    auto store = SettingsStore::open(folder_.path("settings.sqlite"),
                                     SettingsServers::domainNames(), [](std::string_view) {});
    ASSERT_TRUE(store);
    store_ = std::move(*store);
    servers_.emplace(SettingsServers::Environment{serverProgram_.connections, authenticator_,
                                                  protocols_, *serverDistributed_, *store_,
                                                  refusals_});
    loop_.runReady();
  }
  void stop() {
    servers_.reset();
    store_.reset();
    loop_.runReady();
  }
  Client::Environment environment() {
    return {loop_, program_.connections, *distributed_, program_.center, protocols_, system_};
  }
  Value ask(std::string_view selector, Array arguments = {}) {
    auto answer = client_->sendMessage(selector, std::move(arguments));
    loop_.runReady();
    return answer.value_or(Value("no such message"));
  }
  // The exception of the last message.
  std::string raised() const {
    return client_->recentException() ? client_->recentException()->reason : "";
  }
  std::vector<std::string> takeChanges() { return std::exchange(changed_, {}); }

  platform::TemporaryFolder folder_;
  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "program"};
  platform::FakeSystemInformation system_;
  platform::ProtocolTable protocols_;
  platform::VirtualRunLoop loop_;
  platform::FakeNotificationBus bus_{loop_};
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  platform::FakePeerTransport serverTransport_{network_, {200, 0, 0}};
  std::function<std::string(std::string_view)> path_ = [](std::string_view name) {
    return std::string(name);
  };
  platform::ConnectedProgram program_{loop_, transport_, path_};
  platform::ConnectedProgram serverProgram_{loop_, serverTransport_, path_};
  std::unique_ptr<platform::DistributedNotificationCenter> distributed_ = bus_.makeCenter(log_);
  std::unique_ptr<platform::DistributedNotificationCenter> serverDistributed_ =
      bus_.makeCenter(log_);
  platform::RefusalLog refusals_{loop_, log_, "configd"};
  KLXConnectionAuthenticator authenticator_{system_};
  std::vector<std::string> changed_;
  std::unique_ptr<platform::DistributedNotificationCenter::Observation> changes_;
  std::unique_ptr<SettingsStore> store_;
  std::optional<SettingsServers> servers_;
  Client::Made client_;
};

TEST_F(SettingsServerTest, EveryDomainIsServedUnderItsNameAndAnnounced) {
  stop();
  std::vector<std::string> started;
  std::vector<std::unique_ptr<platform::DistributedNotificationCenter::Observation>> observations;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) {
    observations.push_back(distributed_->addObserver(
        domain.startNotification, std::nullopt, [&](const DistributedNotification& notification) {
          started.push_back(notification.name);
        }));
  }
  start();
  EXPECT_EQ(started.size(), kGlobalSettingsDomains.size());
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) {
    EXPECT_THAT(started, Contains(domain.startNotification));
    Client client(environment(), domain.connectionName);
    client.sendMessage("setObject:forKey:sender:", {domain.prefix, "name", Value()});
    EXPECT_EQ(client.objectForKey("name"), Value(domain.prefix));
  }
}

TEST_F(SettingsServerTest, ADomainOfOnesOwnIsServedAndAnnounced) {
  stop();
  const std::string name = "com.example.agent.settings";
  int started = 0;
  const auto observation = distributed_->addObserver(
      name + ".didStart", std::nullopt, [&](const DistributedNotification&) { ++started; });
  auto domains = SettingsServers::domainNames();
  domains.push_back(name);
  const auto store =
      SettingsStore::open(folder_.path("own.sqlite"), domains, [](std::string_view) {});
  ASSERT_TRUE(store);
  const SettingsServers servers({serverProgram_.connections, authenticator_, protocols_,
                                 *serverDistributed_, **store, refusals_},
                                {name});
  loop_.runReady();
  EXPECT_EQ(started, 1);
  Client client(environment(), name);
  client.sendMessage("setObject:forKey:sender:", {"value", "key", Value()});
  EXPECT_EQ(client.objectForKey("key"), Value("value"));
  loop_.runReady();
  EXPECT_THAT(takeChanges(), Contains(name + "/key"));
}

TEST_F(SettingsServerTest, ANameThatIsTakenIsNotAnnounced) {
  stop();
  const auto other = program_.connections.makeConnection();
  ASSERT_TRUE(other->registerName("com.vantor.CommonPreferences"));
  int started = 0;
  const auto observation =
      distributed_->addObserver("com.vantor.CommonPreferences.didStart", std::nullopt,
                                [&](const DistributedNotification&) { ++started; });
  start();
  EXPECT_EQ(started, 0);
}

TEST_F(SettingsServerTest, AChangeIsReadBackAndAnnounced) {
  ask("setObject:forKey:sender:", {"strict", "mode", "test"});
  EXPECT_EQ(ask("objectForKey:", {"mode"}), Value("strict"));
  EXPECT_THAT(takeChanges(), ElementsAre("com.vantor.CommonPreferences/mode"));
  ask("setObject:forKey:sender:", {"strict", "mode", "test"});
  EXPECT_THAT(takeChanges(), ElementsAre("com.vantor.CommonPreferences/mode"));
  ask("removeObjectForKey:sender:", {"mode", "test"});
  EXPECT_TRUE(ask("objectForKey:", {"mode"}).isNil());
  EXPECT_THAT(takeChanges(), ElementsAre("com.vantor.CommonPreferences/mode"));
  ask("removeObjectForKey:sender:", {"mode", "test"});
  EXPECT_THAT(takeChanges(), IsEmpty());
}

TEST_F(SettingsServerTest, TheChangeIsOnTheDiskWhenItIsAnnounced) {
  std::vector<Value> onDisk;
  const auto observation = serverDistributed_->addObserver(
      kKLXGlobalSettingsDidChangeNotification, std::nullopt, [&](const DistributedNotification&) {
        const std::string copy = folder_.path("copy");
        for (const char* ending : {"", "-wal"}) {
          std::filesystem::copy_file(folder_.path("settings.sqlite") + ending, copy + ending,
                                     std::filesystem::copy_options::overwrite_existing);
        }
        const auto store =
            SettingsStore::open(copy, SettingsServers::domainNames(), [](std::string_view) {});
        onDisk.push_back(store ? (*store)->value("com.vantor.CommonPreferences", "a") : Value());
      });
  ask("setInteger:forKey:sender:", {1, "a", Value()});
  ask("setInteger:forKey:sender:", {2, "a", Value()});
  EXPECT_THAT(onDisk, ElementsAre(Value(1), Value(2)));
}

TEST_F(SettingsServerTest, EachSetterKeepsItsType) {
  ask("setInteger:forKey:sender:", {1, "integer", Value()});
  ask("setFloat:forKey:sender:", {0.1, "float", Value()});
  ask("setDouble:forKey:sender:", {0.1, "double", Value()});
  ask("setDouble:forKey:sender:", {3, "whole", Value()});
  ask("setBool:forKey:sender:", {true, "bool", Value()});
  ask("setObject:forKey:sender:", {Data{1, 2}, "data", Value()});
  EXPECT_EQ(ask("objectForKey:", {"integer"}).integer(), 1);
  EXPECT_EQ(ask("objectForKey:", {"float"}).real(), static_cast<double>(0.1F));
  EXPECT_EQ(ask("objectForKey:", {"double"}).real(), 0.1);
  EXPECT_EQ(ask("objectForKey:", {"whole"}).real(), 3.0);
  EXPECT_EQ(ask("objectForKey:", {"bool"}).boolean(), true);
  EXPECT_EQ(*ask("objectForKey:", {"data"}).data(), (Data{1, 2}));
}

TEST_F(SettingsServerTest, EachGetterConvertsOrAnswersNilOrZero) {
  ask("setObject:forKey:sender:", {"12", "text", Value()});
  ask("setObject:forKey:sender:", {Array{1}, "array", Value()});
  ask("setObject:forKey:sender:", {Dictionary{{"a", 1}}, "dictionary", Value()});
  ask("setObject:forKey:sender:", {Data{1}, "data", Value()});
  ask("setDouble:forKey:sender:", {2.5, "real", Value()});
  EXPECT_EQ(ask("stringForKey:", {"real"}), Value("2.5"));
  EXPECT_EQ(ask("integerForKey:", {"text"}).integer(), 12);
  EXPECT_EQ(ask("integerForKey:", {"real"}).integer(), 2);
  EXPECT_EQ(ask("doubleForKey:", {"text"}).real(), 12.0);
  EXPECT_EQ(ask("floatForKey:", {"real"}).real(), 2.5);
  EXPECT_EQ(ask("boolForKey:", {"real"}).boolean(), true);
  EXPECT_EQ(ask("arrayForKey:", {"array"}), Value(Array{1}));
  EXPECT_EQ(ask("dictionaryForKey:", {"dictionary"}), Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(ask("dataForKey:", {"data"}), Value(Data{1}));
  for (const char* selector :
       {"stringForKey:", "arrayForKey:", "dictionaryForKey:", "dataForKey:", "objectForKey:"}) {
    EXPECT_TRUE(ask(selector, {"missing"}).isNil()) << selector;
  }
  EXPECT_TRUE(ask("arrayForKey:", {"text"}).isNil());
  EXPECT_TRUE(ask("stringForKey:", {"array"}).isNil());
  EXPECT_EQ(ask("integerForKey:", {"array"}).integer(), 0);
  EXPECT_EQ(ask("doubleForKey:", {"missing"}).real(), 0.0);
  EXPECT_EQ(ask("boolForKey:", {"missing"}).boolean(), false);
  EXPECT_EQ(client_->recentException(), std::nullopt);
}

TEST_F(SettingsServerTest, DefaultsAreBelowValues) {
  ask("registerDefaults:", {Dictionary{{"a", 1}, {"b", 2}}});
  EXPECT_THAT(takeChanges(),
              ElementsAre("com.vantor.CommonPreferences/a", "com.vantor.CommonPreferences/b"));
  ask("registerDefaults:", {Dictionary{{"a", 1}, {"b", 2}}});
  EXPECT_THAT(takeChanges(), IsEmpty());
  ask("setInteger:forKey:sender:", {5, "a", Value()});
  ask("setInteger:forKey:sender:", {6, "c", Value()});
  EXPECT_EQ(ask("dictionaryRepresentation"), Value(Dictionary{{"a", 5}, {"b", 2}, {"c", 6}}));
  EXPECT_EQ(ask("isDefault:", {"a"}), Value(false));
  EXPECT_EQ(ask("isDefault:", {"b"}), Value(true));
  takeChanges();
  ask("restoreDefaultsForKeys:sender:", {Array{"a", "b", "c"}, "test"});
  EXPECT_THAT(takeChanges(),
              ElementsAre("com.vantor.CommonPreferences/a", "com.vantor.CommonPreferences/c"));
  EXPECT_EQ(ask("dictionaryRepresentation"), Value(Dictionary{{"a", 1}, {"b", 2}}));
}

TEST_F(SettingsServerTest, VersionsShowTheChangedSettings) {
  ask("setInteger:forKey:sender:", {1, "a", Value()});
  ask("setInteger:forKey:sender:", {1, "b", Value()});
  const Value before = ask("versionDictionary");
  ask("setInteger:forKey:sender:", {2, "a", Value()});
  const Value after = ask("versionDictionary");
  EXPECT_EQ(after["b"], before["b"]);
  EXPECT_GT(*after["a"].integer(), *before["a"].integer());
}

TEST_F(SettingsServerTest, TheSubscriptionNamesTheNotification) {
  EXPECT_EQ(ask("defaultSubscription"),
            Value(Dictionary{{"Domain", "com.vantor.CommonPreferences"},
                             {"StartNotification", "com.vantor.CommonPreferences.didStart"},
                             {"ChangeNotification", "KLXGlobalSettingsDidChangeNotification"},
                             {"ChangedKey", "KLXGlobalSettingsKeyModified"}}));
}

TEST_F(SettingsServerTest, ABlobIsPersistedOrRefused) {
  EXPECT_EQ(ask("persistBlob:forKey:sender:", {Data{1, 2}, "b", Value()}), Value(true));
  EXPECT_EQ(ask("persistedBlobForKey:", {"b"}), Value(Data{1, 2}));
  EXPECT_EQ(ask("persistedBlobKeys"), Value(Array{"b"}));
  EXPECT_EQ(ask("persistBlob:forKey:sender:", {"text", "b", Value()}), Value(false));
  EXPECT_EQ(ask("persistBlob:forKey:sender:", {Data(SettingsLimits::kBlobBytes + 1), "b", Value()}),
            Value(false));
  EXPECT_EQ(sink_.count("persistBlob:forKey:sender: is refused"), 2u);
  ask("deletePersistedBlobForKey:", {"b"});
  EXPECT_TRUE(ask("persistedBlobForKey:", {"b"}).isNil());
  EXPECT_EQ(ask("persistedBlobKeys"), Value(Array{}));
  EXPECT_THAT(takeChanges(), IsEmpty());  // A blob is no setting.
}

TEST_F(SettingsServerTest, BadInputIsRefusedWithALineThatNamesIt) {
  struct Row {
    const char* selector;
    Array arguments;
    const char* says;
  };
  const Row rows[] = {
      {"setObject:forKey:sender:", {1, 5, Value()}, "the key is NSNumber, not a string"},
      {"setObject:forKey:sender:", {Value(), "k", Value()}, "the value for \"k\" is nil"},
      {"setObject:forKey:sender:", {1, "", Value()}, "no key"},
      {"setObject:forKey:sender:", {1, std::string(256, 'k'), Value()}, "the most are 255"},
      {"setInteger:forKey:sender:", {"1", "k", Value()}, "the value for \"k\" is NSString"},
      {"setInteger:forKey:sender:", {1.5, "k", Value()}, "the value for \"k\" is NSNumber"},
      {"setFloat:forKey:sender:", {true, "k", Value()}, "the value for \"k\" is NSNumber"},
      {"setDouble:forKey:sender:", {"1", "k", Value()}, "the value for \"k\" is NSString"},
      {"setBool:forKey:sender:", {1, "k", Value()}, "the value for \"k\" is NSNumber"},
      {"removeObjectForKey:sender:", {Value(), Value()}, "the key is nil, not a string"},
      {"registerDefaults:", {Array{}}, "what is registered is NSArray, not a dictionary"},
      {"registerDefaults:", {Dictionary{{"good", 1}, {"", 1}}}, "no key"},
      {"restoreDefaultsForKeys:sender:", {"k", Value()}, "what is restored is NSString"},
      {"restoreDefaultsForKeys:sender:", {Array{1}, Value()}, "the key is NSNumber"},
      {"deletePersistedBlobForKey:", {1}, "the key is NSNumber"},
      {"objectForKey:", {Value()}, "the key is nil, not a string"},
      {"boolForKey:", {1}, "the key is NSNumber"},
      {"isDefault:", {1}, "the key is NSNumber"},
      {"persistedBlobForKey:", {1}, "the key is NSNumber"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.selector);
    loop_.advanceBy(std::chrono::minutes(2));  // The number of lines per minute is limited.
    sink_.clear();
    ask(row.selector, row.arguments);
    EXPECT_THAT(sink_.texts(), ElementsAre(AllOf(HasSubstr("com.vantor.CommonPreferences: "),
                                                 HasSubstr(row.selector), HasSubstr(row.says))));
  }
  EXPECT_EQ(ask("dictionaryRepresentation"), Value(Dictionary{}));
  EXPECT_THAT(takeChanges(), IsEmpty());
}

TEST_F(SettingsServerTest, AKeyOfAnyLengthMakesAShortLine) {
  const std::string key(500'000, 'k');
  ask("setObject:forKey:sender:", {1, key, Value()});
  ask("setInteger:forKey:sender:", {"1", key, Value()});
  EXPECT_EQ(ask("persistBlob:forKey:sender:", {"text", key, Value()}), Value(false));
  ask("registerDefaults:", {Dictionary{{key, 1}}});
  EXPECT_EQ(sink_.texts().size(), 4u);
  for (const std::string& line : sink_.texts()) EXPECT_LT(line.size(), 500u) << line;
  EXPECT_TRUE(ask("objectForKey:", {key}).isNil());
  EXPECT_EQ(ask("dictionaryRepresentation"), Value(Dictionary{}));
}

TEST_F(SettingsServerTest, ATwoWayMessageRaisesTheReason) {
  EXPECT_TRUE(ask("objectForKey:", {5}).isNil());
  EXPECT_THAT(raised(), HasSubstr("the key is NSNumber, not a string"));
}

TEST_F(SettingsServerTest, SettingsSurviveARestart) {
  ask("setInteger:forKey:sender:", {5, "a", Value()});
  ask("registerDefaults:", {Dictionary{{"b", 2}}});
  ask("persistBlob:forKey:sender:", {Data{1}, "blob", Value()});
  stop();
  EXPECT_TRUE(ask("objectForKey:", {"a"}).isNil());
  start();
  EXPECT_EQ(ask("objectForKey:", {"a"}), Value(5));
  EXPECT_EQ(ask("objectForKey:", {"b"}), Value(2));
  EXPECT_EQ(ask("persistedBlobForKey:", {"blob"}), Value(Data{1}));
}

TEST_F(SettingsServerTest, AClientWithoutTheTokenIsNotServed) {
  platform::FakeSystemInformation otherBoot;
  otherBoot.setBootTime(1);
  Client stranger(
      {loop_, program_.connections, *distributed_, program_.center, protocols_, otherBoot},
      "com.vantor.CommonPreferences");
  stranger.sendMessage("setObject:forKey:sender:", {1, "a", Value()});
  loop_.runReady();
  EXPECT_FALSE(stranger.isProxyValid());
  EXPECT_TRUE(ask("objectForKey:", {"a"}).isNil());
}

}  // namespace
