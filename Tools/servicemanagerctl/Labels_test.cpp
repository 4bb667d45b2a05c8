#include "Tools/servicemanagerctl/Labels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<std::string> kKnown{"com.vantor.demo.agent", "com.vantor.demo.scanner",
                                      "com.vantor.demo.webfilter"};

TEST(LabelsTest, TheNearestLabelsAreSimilarOnes) {
  EXPECT_THAT(nearestLabels("com.vantor.demo.agnt", kKnown), ElementsAre("com.vantor.demo.agent"));
  EXPECT_THAT(nearestLabels("agent", kKnown), ElementsAre("com.vantor.demo.agent"));
  EXPECT_THAT(nearestLabels("webfilte", kKnown), ElementsAre("com.vantor.demo.webfilter"));
  EXPECT_THAT(nearestLabels("org.example.other", kKnown), IsEmpty());
  EXPECT_THAT(nearestLabels("", kKnown), IsEmpty());
  EXPECT_THAT(nearestLabels("a", {"b", "c", "d", "e"}), ElementsAre("b", "c", "d"));
}

TEST(LabelsTest, AnUnknownLabelNamesTheNearestOnes) {
  EXPECT_EQ(unknownLabel("agnt\033", {"agent", "mail"}),
            (Refusal{kExitUnknownLabel,
                     "no service has the label \"agnt\\u001b\"; \"servicemanagerctl list\" tells "
                     "which there are"}));
  EXPECT_EQ(unknownLabel("agnt", {"agent", "mail"}).text,
            "no service has the label \"agnt\"; did you mean agent? \"servicemanagerctl list\" "
            "tells which there are");
}

TEST(LabelsTest, AnErrorIsShortHoweverManyServicesThereAre) {
  const std::vector<std::string> known(100, std::string(1000, 'x'));
  EXPECT_LT(unknownLabel(std::string(1000, 'x'), known).text.size(), 500u);
}

TEST(LabelsTest, TheOverviewHasThoseOfOtherProductsToo) {
  const Value overview =
      Dictionary{{kFactServices, Dictionary{{"web", Dictionary()}, {"agent", Dictionary()}}},
                 {kFactOtherServices, Dictionary{{"mail", Array{"office"}}}}};
  EXPECT_THAT(labelsIn(overview), ElementsAre("agent", "mail", "web"));
  EXPECT_THAT(labelsIn({}), IsEmpty());
}

TEST(LabelsTest, PatternsSelectLabels) {
  const auto selected = [](const std::vector<std::string>& patterns) {
    return selectLabels(patterns, kKnown).value_or(std::vector<std::string>{"refused"});
  };
  EXPECT_EQ(selected({}), kKnown);
  EXPECT_THAT(selected({"*.webfilter", kKnown[0], "*"}), testing::ElementsAreArray(kKnown));
  EXPECT_THAT(selected({"*er"}), ElementsAre(kKnown[1], kKnown[2]));
  EXPECT_THAT(selected({"*nothing"}), IsEmpty());
  EXPECT_THAT(selected({kKnown[0], "agent"}), ElementsAre("refused"));
}

}  // namespace
