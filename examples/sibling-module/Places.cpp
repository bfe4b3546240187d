#include "Places.h"

#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/NSJSONSerialization.h>

namespace places {

std::shared_ptr<zembra::NSBundle> bundle() {
    // One for the life of the process: it keeps the catalogues that it has read.
    static const auto bundle = std::make_shared<zembra::NSBundle>(
        zembra::Value(), zembra::NSBundle::Catalogues{LOCALE_DIRECTORY, "zembra-places"});
    return bundle;
}

std::vector<std::shared_ptr<Place>> placesOfAccount(std::shared_ptr<PlacesError>* error) {
    if (!zembra::ZMBSDKAuthManager::sharedManager()->token().isString()) {
        *error = zembra::sdkAuthUnauthorizedError<PlacesError>();
        return {};
    }
    const zembra::Value json = zembra::NSJSONSerialization::JSONObjectWithData(
        R"([{"display_name": "Mill", "owner_info": {"full_name": "Ada"}}, {"display_name": "Quay"}])");
    return Place::objectsWithArrayOfUntrustedJSON(json).value_or(std::vector<std::shared_ptr<Place>>());
}

}  // namespace places
