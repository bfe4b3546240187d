#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSBundle.h>
#include <ZembraPlatform/NSError.h>

/// A module beside the SDK, as a shared library: models, and errors with messages in the user's language.
namespace places {

/// The bundle with the module's messages.
ZEMBRA_EXPORT std::shared_ptr<zembra::NSBundle> bundle();

/// An error of this module: an SDK error made through it has the module's texts.
class ZEMBRA_EXPORT PlacesError : public zembra::NSError {
    ZMB_BUNDLE(PlacesError, bundle())

public:
    using NSError::NSError;
};

class ZEMBRA_EXPORT Owner : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Owner, zembra::QVDataObject)

public:
    ZMB_PROPERTY(zembra::NSString, fullName);
};

class ZEMBRA_EXPORT Place : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Place, zembra::QVDataObject)

public:
    ZMB_PROPERTY(zembra::NSString, displayName);
    ZMB_PROPERTY(Owner, ownerInfo);
};

/// The places of the account that the SDK is registered for. A module would ask the platform; this one has
/// them at hand. An SDK that is not registered yet gives no places and an error for people to read.
ZEMBRA_EXPORT std::vector<std::shared_ptr<Place>> placesOfAccount(std::shared_ptr<PlacesError>* error);

}  // namespace places
