#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"

using namespace platform;

void addGlobalSettingsProtocol(ProtocolTable& protocols) {
  using enum MethodDescription::Kind;
  protocols.add(kKLXGlobalSettingsProtocol,
                Protocol(kKLXGlobalSettingsProtocol, {{"registerDefaults:", kOneWay},
                                                      {"restoreDefaultsForKeys:sender:", kOneWay},
                                                      {"dictionaryRepresentation", kTwoWay},
                                                      {"versionDictionary", kTwoWay},
                                                      {"defaultSubscription", kTwoWay},
                                                      {"objectForKey:", kTwoWay},
                                                      {"stringForKey:", kTwoWay},
                                                      {"arrayForKey:", kTwoWay},
                                                      {"dictionaryForKey:", kTwoWay},
                                                      {"dataForKey:", kTwoWay},
                                                      {"integerForKey:", kTwoWay},
                                                      {"floatForKey:", kTwoWay},
                                                      {"doubleForKey:", kTwoWay},
                                                      {"boolForKey:", kTwoWay},
                                                      {"setObject:forKey:sender:", kOneWay},
                                                      {"setInteger:forKey:sender:", kOneWay},
                                                      {"setFloat:forKey:sender:", kOneWay},
                                                      {"setDouble:forKey:sender:", kOneWay},
                                                      {"setBool:forKey:sender:", kOneWay},
                                                      {"removeObjectForKey:sender:", kOneWay},
                                                      {"isDefault:", kTwoWay},
                                                      {"persistBlob:forKey:sender:", kTwoWay},
                                                      {"persistedBlobForKey:", kTwoWay},
                                                      {"deletePersistedBlobForKey:", kOneWay},
                                                      {"persistedBlobKeys", kTwoWay}}));
}
