#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/TokenComparison.h"
#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"

using platform::Array;
using platform::Data;
using platform::NSConnection;

bool KLXConnectionAuthenticator::connection(NSConnection& parent,
                                            NSConnection& shouldMakeNewConnection) {
  shouldMakeNewConnection.setDelegate(parent.delegate());
  return true;
}

Data KLXConnectionAuthenticator::authenticationDataForComponents(const Array& /*components*/) {
  return clientProfileData(system_);
}

bool KLXConnectionAuthenticator::authenticateComponents(const Array& /*components*/,
                                                        const Data& withData) {
  return tokensAreEqual(withData, systemProfileData(system_));
}
