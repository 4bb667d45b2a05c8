#include <utility>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/ReportedFacts.h"

using namespace platform;

Value OperatorReport::reasonsOfServices(const OperatorPicture& picture, const Array& labels) {
  Dictionary all;
  for (const Value& label : labels) {
    if (!label.string() || picture.catalogue->service(*label.string()).isNil()) continue;
    const Value facts = factsOf(picture, *label.string(), {});
    Dictionary reason;
    for (const char* key : {kFactReason, kFactSwitches, kFactProgramFault, kFactThrottle}) {
      setIfKnown(reason, key, facts[key]);
    }
    all.set(*label.string(), std::move(reason));
  }
  return all;
}
