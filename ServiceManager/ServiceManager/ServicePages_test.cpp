#include "ServiceManager/ServiceManager/ServicePages.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Peers/PeerMessageRules.h"

namespace {

using namespace platform;

Dictionary servicesWith(std::size_t count, const Value& entry) {
  Dictionary services;
  for (std::size_t i = 0; i < count; ++i) services.set("service " + std::to_string(i), entry);
  return services;
}

// As a client that asks for page after page.
Dictionary allPages(const Dictionary& services, std::size_t& pages) {
  Dictionary all;
  std::string last;
  for (pages = 0;; ++pages) {
    const auto page = pageOfServices(services, last);
    EXPECT_TRUE(page);
    if (!page || page->empty()) return all;
    EXPECT_TRUE(peerBodyBytes({Value(*page)})) << "page " << pages;
    for (const auto& [label, entry] : *page) {
      EXPECT_FALSE(all.contains(label)) << label;
      all.set(label, entry);
      last = label;
    }
  }
}

TEST(ServicePages, AFewServicesAreOnePage) {
  const Dictionary services = servicesWith(3, Dictionary{{"Program", "/bin/true"}});
  std::size_t pages = 0;
  EXPECT_EQ(allPages(services, pages), services);
  EXPECT_EQ(pages, 1u);
}

TEST(ServicePages, HaveAllOfManyServicesInTheirOrder) {
  // The smallest values: as many as possible are in a page.
  const Dictionary services = servicesWith(10'000, Array(20, Value()));
  EXPECT_FALSE(peerBodyBytes({Value(services)}));
  std::size_t pages = 0;
  const Dictionary all = allPages(services, pages);
  EXPECT_GT(pages, 1u);
  EXPECT_TRUE(std::ranges::equal(all, services));
}

TEST(ServicePages, ALargeServiceIsAPageOfItsOwn) {
  Dictionary services = servicesWith(3, Value("text"));
  services.set("service 1", Data(600'000));
  std::size_t pages = 0;
  EXPECT_EQ(allPages(services, pages), services);
  EXPECT_EQ(pages, 3u);
}

TEST(ServicePages, NothingFollowsAnUnknownService) {
  EXPECT_FALSE(pageOfServices(servicesWith(3, Value("text")), "unknown"));
  EXPECT_EQ(pageOfServices({}, ""), Dictionary());
}

}  // namespace
